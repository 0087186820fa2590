#include "real_machine.hpp"

#include "pattern.hpp"

#include <csignal>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace model {

namespace {

/// A command of tarvo-client with that verb and the words from `first` on.
std::string command(const step& one, size_t first = 0) {
    std::string line = one.verb;
    for (size_t i = first; i < one.words.size(); i++) {
        line += " " + (one.words[i] ? ::quoted(*one.words[i]) : "@null");
    }
    return line;
}

/// What is mapped at an address of the client's: permissions, place in the file, file.
std::string mapping_at(client& program, const std::string& address) {
    if (address == "null") {
        return address;
    }
    std::istringstream fields(program.call("mapping " + address));
    std::string permissions;
    std::string offset;
    std::string bytes; // neighbours in the file count as one mapping
    std::string path;
    fields >> permissions >> offset >> bytes >> path;
    return permissions + " " + offset + " " + path;
}

/// Messages show where a mapping lies, which the model does not know.
void name_address(std::string& text, const std::string& address, const std::string& label) {
    const size_t at = address.empty() ? std::string::npos : text.find("va: " + address + ",");
    if (at != std::string::npos) {
        text.replace(at + std::strlen("va: "), address.size(), label);
    }
}

bool is_mapped(client& program, const std::string& address) {
    return program.call("mapping " + address) != "none";
}

} // namespace

std::string without_what_is_free(const std::string& errors) {
    if (errors.find("Assertion `") == std::string::npos) {
        return errors;
    }
    static const pattern fixed("^tarvo-client: (tarvo:(62|982|995): .*Assertion `.*)");
    static const pattern container(
        R"(^tarvo-client: (\./ArrayBackedList\.hpp:[0-9]+): .*(: Assertion `.*))");
    static const pattern other("^tarvo-client: tarvo:[0-9]+: .*(: Assertion `.*)");
    std::string text;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);) {
        line = fixed.replaced_in(line, "$1");
        line = container.replaced_in(line, "$1$2");
        text += other.replaced_in(line, "tarvo$1") + "\n";
    }
    return text;
}

real_machine::real_machine(const playground& where)
    : _machine(where.place(), where.options()),
      // The sandbox keeps its log beside the folder that its state is in.
      _log(_machine.shared_area().parent_path().parent_path().parent_path() / "log") {
    _users.resize(static_cast<size_t>(where.processes));
}

real_machine::user& real_machine::user_of(int number) {
    std::unique_ptr<user>& place = _users.at(static_cast<size_t>(number));
    if (!place) {
        place = std::make_unique<user>(_machine.start());
    }
    return *place;
}

std::optional<std::span<const uint8_t>> real_machine::area() {
    const auto path = _machine.shared_area();
    if (!std::filesystem::exists(path)) {
        return std::nullopt;
    }
    const uint64_t bytes = std::filesystem::file_size(path);
    if (bytes == 0) {
        return std::span<const uint8_t>{};
    }
    if (!_area || _area->view().bytes().size() != bytes) {
        _area = std::make_unique<area_file>(path);
    }
    return _area->view().bytes();
}

/// The log is cut off where it was read, or it would be read once again at every step. The driver
/// appends to it.
std::vector<std::string> real_machine::new_events() {
    std::vector<std::string> events;
    if (std::filesystem::exists(_log) && std::filesystem::file_size(_log) != 0) {
        for (const driver_event& event : driver_events(_log)) {
            events.push_back(shown(event));
        }
        std::filesystem::resize_file(_log, 0);
    }
    return events;
}

std::string real_machine::new_errors(user& caller) {
    const std::string all = caller.program.error_text();
    std::string fresh = all.substr(caller.error_bytes);
    caller.error_bytes = all.size();
    for (const auto& [label, address] : caller.mappings) {
        name_address(fresh, address, label);
    }
    name_address(fresh, caller.whole_region, whole_region_label);
    return without_what_is_free(fresh);
}

outcome real_machine::carry_out(const step& one, int expected_signal) {
    outcome result;
    if (one.who == the_machine) {
        std::vector<std::string> rules;
        for (const auto& rule : one.words) {
            rules.push_back(rule.value());
        }
        _machine.replace_rules(rules);
        return result;
    }
    user& caller = user_of(one.who);
    if (expected_signal != 0 || one.verb == "quit") {
        result = let_end(one, caller, expected_signal);
        _users.at(static_cast<size_t>(one.who)).reset();
        return result;
    }
    result.reply = call(caller, one);
    result.error_text = new_errors(caller);
    result.events = new_events();
    return result;
}

outcome real_machine::let_end(const step& one, user& ending_one, int expected_signal) {
    outcome result;
    ending end;
    if (one.verb == "kill") {
        end = ending_one.program.kill(expected_signal);
    } else if (one.verb == "quit") {
        end = ending_one.program.finish();
        result.reply = end == normal_end ? "ended" : shown(end);
    } else {
        step order = one;
        if (one.verb == "unmap" && ending_one.mappings.contains(one.words[1].value_or(""))) {
            order.words[1] = ending_one.mappings.at(one.word(1));
        }
        end = ending_one.program.dies(command(order, one.verb == "map" ? 1 : 0));
    }
    result.signal = end.signal;
    result.error_text = new_errors(ending_one);
    result.events = new_events();
    return result;
}

std::string real_machine::call(user& caller, const step& one) {
    if (one.verb == "map") {
        return map(caller, one);
    }
    if (one.verb == "unmap") {
        return unmap(caller, one);
    }
    if (one.verb == "map_all") {
        return map_all(caller);
    }
    if (one.verb == "unmap_all") {
        const std::string reply = caller.program.call("unmap_all");
        if (is_mapped(caller.program, caller.whole_region)) {
            return reply + " kept";
        }
        caller.whole_region.clear();
        return reply + " gone";
    }
    if (one.verb == "write" || one.verb == "look") {
        return touch(caller, one);
    }
    return caller.program.call(command(one));
}

std::string real_machine::map(user& caller, const step& one) {
    const std::string address = caller.program.call(command(one, 1));
    if (address != "null") {
        caller.mappings[one.word(0)] = address;
    }
    return mapping_at(caller.program, address);
}

std::string real_machine::map_all(user& caller) {
    const std::string address = caller.program.call("map_all");
    if (address != "null" && address == caller.whole_region) {
        return "same";
    }
    caller.whole_region = address;
    return mapping_at(caller.program, address);
}

std::string real_machine::unmap(user& caller, const step& one) {
    const auto mapped = caller.mappings.find(one.words[1].value_or(""));
    if (mapped == caller.mappings.end()) {
        return caller.program.call(command(one));
    }
    step order = one;
    order.words[1] = mapped->second;
    const std::string reply = caller.program.call(command(order));
    return reply + (is_mapped(caller.program, mapped->second) ? " kept" : " gone");
}

std::string real_machine::touch(user& caller, const step& one) {
    const std::string place =
        caller.mappings.at(one.word(0)) + " " + std::to_string(pages(one.number(1))) + " ";
    const std::string page = std::to_string(page_bytes());
    return one.verb == "look" ? caller.program.call("peek " + place + page)
                              : caller.program.call("fill " + place + page + " " + one.word(2));
}

} // namespace model
