#include "behaviour_row.hpp"

#include "iommu_request.hpp"
#include "observed.hpp"
#include "pattern.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace {

namespace offset = area_offset;

enum column { situation, given, call, result, standard_error, driver, lock, changes, columns };

std::vector<std::string> words_of(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string replaced(std::string text, std::string_view what, std::string_view by) {
    for (size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// ---- What a row expects --------------------------------------------------------------------

/// `text`, *name of a shared text*, assertion `expression` in `signature`, container assertion
/// `expression`, line `number`; each as often as needed, one after the other.
class error_text_reader {
  public:
    explicit error_text_reader(const std::string& cell) : _parts(parts_of(cell)) {}

    std::string text() {
        std::string all;
        while (_next < _parts.size()) {
            all += element();
        }
        return all;
    }

  private:
    std::string element() {
        const cell_part& part = _parts.at(_next);
        if (part.kind == part_kind::code) {
            return with_newlines(taken(part_kind::code));
        }
        if (part.kind == part_kind::name) {
            return with_newlines(the_page().shared_texts.at(taken(part_kind::name)));
        }
        const std::string kind = taken(part_kind::words);
        const std::string expression = taken(part_kind::code);
        if (kind == "assertion" && taken(part_kind::words) == "in") {
            return assertion(taken(part_kind::code), expression);
        }
        if (kind == "container assertion" && taken(part_kind::words) == ", line") {
            return container_assertion(std::stoi(taken(part_kind::code)), expression);
        }
        throw std::runtime_error("no text begins with: " + kind);
    }

    static std::string with_newlines(const std::string& text) {
        return replaced(text, "\\n", "\n");
    }

    const std::string& taken(part_kind kind) {
        const cell_part& part = _parts.at(_next++);
        return part.kind == kind ? part.text : throw std::runtime_error("misplaced: " + part.text);
    }

    cell_parts _parts;
    size_t _next = 0;
};

std::string expected_error(const std::string& cell) {
    return cell == "-" ? "" : error_text_reader(cell).text();
}

/// A plain word of the page, or the code spans of the cell.
std::string word_or_codes(const std::string& cell, std::initializer_list<const char*> known) {
    const bool is_word = std::find(known.begin(), known.end(), cell) != known.end();
    return is_word ? cell : joined(codes_of(cell));
}

behaviour expectation(const std::vector<std::string>& cells) {
    static const std::vector<std::string> locks{"takes", "takes and keeps", "releases", "held",
                                                "no"};
    if (std::find(locks.begin(), locks.end(), cells.at(lock)) == locks.end()) {
        throw std::runtime_error("unknown in column Lock: " + cells.at(lock));
    }
    return {word_or_codes(cells.at(result), {"an address", "the same address"}),
            expected_error(cells.at(standard_error)), codes_of(cells.at(driver)), cells.at(lock),
            word_or_codes(cells.at(changes), {"nothing", "empty"})};
}

bool is_address(const std::string& reply) {
    static const pattern address("0x[0-9a-f]+");
    return address.matches(reply);
}

// ---- The machine ---------------------------------------------------------------------------

bool is_option(const std::string& step) {
    return step.starts_with("--");
}

std::optional<world> named_world(const std::string& name) {
    for (const world& one : all_worlds()) {
        if (one.name == name) {
            return one;
        }
    }
    return std::nullopt;
}

world world_of(const std::vector<std::string>& steps) {
    for (const std::string& step : steps) {
        if (const auto found = named_world(step)) {
            return *found;
        }
    }
    return simulation;
}

/// "--rule op=map,errno=EIO" as two words; blanks in the value stay.
std::vector<std::string> options_of(const std::vector<std::string>& steps) {
    std::vector<std::string> options;
    for (const std::string& step : steps) {
        if (is_option(step)) {
            const size_t blank = step.find(' ');
            options.push_back(step.substr(0, blank));
            options.push_back(step.substr(blank + 1));
        }
    }
    return options;
}

std::string device_text(const area_device& device) {
    const pci_device pci{static_cast<uint32_t>(device.domain), static_cast<uint32_t>(device.bus),
                         static_cast<uint32_t>(device.devfn)};
    return std::to_string(device.index) + "=" + pci.name() + (device.online != 0 ? "" : ":offline");
}

/// NAME:FIRST+COUNT@DEVICES for each chunk, NUMBER=PCI-NAME for each device.
std::string listing(const sandbox& machine) {
    const area_file area = machine.area();
    const std::vector<area_chunk> chunks = area.view().chunks();
    std::vector<std::string> lines;
    for (size_t i = 1; i + 1 < chunks.size(); i++) {
        std::string line = chunks[i].name + ":" +
                           std::to_string((chunks[i].pa - machine.chosen().start) / page_bytes()) +
                           "+" + std::to_string(chunks[i].size / page_bytes());
        char mark = '@';
        for (const area_ref& ref : area.view().refs(chunks[i].index)) {
            line += mark + std::to_string(ref.dev);
            mark = ',';
        }
        lines.push_back(line);
    }
    for (const area_device& device : area.view().devices()) {
        lines.push_back(device_text(device));
    }
    return lines.empty() ? "empty" : joined(lines);
}

/// "set chunk 2 pa 0x500": one field of the area, behind the library's back.
void set_field(const sandbox& machine, const std::vector<std::string>& words) {
    const area_file area = machine.writable_area();
    const std::string field = words.at(1) + " " + words.at(words.size() - 2);
    const int element = words.size() == 5 ? std::stoi(words.at(2)) : 0;
    const auto value = static_cast<uint64_t>(std::stoll(words.back(), nullptr, 0));
    if (field == "chunks free") {
        area.writer().i32(offset::chunks_free, static_cast<int32_t>(value));
    } else if (field == "chunk next") {
        area.writer().i32(offset::chunk(element) + offset::next, static_cast<int32_t>(value));
    } else if (field == "chunk pa") {
        area.writer().u64(offset::chunk(element) + offset::pa, value);
    } else if (field == "chunk size") {
        area.writer().u32(offset::chunk(element) + offset::size, static_cast<uint32_t>(value));
    } else if (field == "device online") {
        area.writer().u8(offset::device(element) + offset::online, static_cast<uint8_t>(value));
    } else {
        throw std::runtime_error("no such field: " + joined(words));
    }
}

class row_machine {
  public:
    explicit row_machine(const std::vector<std::string>& steps)
        : _box(world_of(steps), options_of(steps)), _user(_box.start(first_commands(steps))) {
        for (const std::string& step : steps) {
            if (!is_option(step) && !named_world(step) && !is_beginning(step)) {
                carry_out(step);
            }
        }
    }

    const std::string& last_address() const { return _last_address; }

    behaviour observe(const std::string& command, const behaviour& expected) {
        const std::vector<uint8_t> before = area_bytes();
        const size_t lines_before = written_lines().size();
        _user.new_text();
        behaviour seen;
        seen.lock = lock_before();
        seen.result = made(with_address(command), expected);
        seen.lock = lock_after(seen.lock, expected.lock);
        seen.standard_error = _user.new_text();
        const std::vector<std::string> lines = written_lines();
        seen.driver.assign(lines.begin() + static_cast<std::ptrdiff_t>(lines_before), lines.end());
        seen.changes = is_area(before) ? "nothing" : listing(_box);
        return seen;
    }

  private:
    static bool is_beginning(const std::string& step) {
        return step == "not started" || step.starts_with("trace ");
    }

    static std::vector<std::string> first_commands(const std::vector<std::string>& steps) {
        std::vector<std::string> commands;
        for (const std::string& step : steps) {
            if (step.starts_with("trace ")) {
                commands.push_back("setenv ZUL_TRACE tarvo=" + step.substr(step.find(' ') + 1));
            }
        }
        if (std::find(steps.begin(), steps.end(), "not started") == steps.end()) {
            commands.emplace_back("limits");
        }
        return commands;
    }

    void carry_out(const std::string& step) {
        static const pattern repetition("([0-9]+) times (.*)");
        const std::vector<std::string> words = words_of(step);
        if (words.front() == "rule") {
            _box.add_rules({words.at(1)});
        } else if (words.front() == "set") {
            set_field(_box, words);
        } else if (words.front() == "other:") {
            _others.push_back(_box.start());
            _others.back().call(step.substr(step.find(' ') + 1));
        } else if (repetition.matches(step)) {
            const std::string call = repetition.group_in(step, 2);
            for (int i = 0; i < std::stoi(repetition.group_in(step)); i++) {
                _user.call(replaced(call, "#", std::to_string(i)));
            }
        } else {
            const std::string reply = _user.call(with_address(step));
            if (is_address(reply)) {
                _last_address = reply;
            }
        }
    }

    std::string with_address(const std::string& text) const {
        return replaced(text, "$", _last_address);
    }

    /// Each without its newline, as the page shows it.
    std::vector<std::string> written_lines() const {
        std::vector<std::string> lines;
        for (const std::string& event : _box.driver_log()) {
            const size_t colon = event.find(": ");
            if (event.find(" write") < colon && event.ends_with('\n')) {
                lines.push_back(event.substr(colon + 2, event.size() - colon - 3));
            }
        }
        return lines;
    }

    std::vector<uint8_t> area_bytes() const {
        return std::filesystem::exists(_box.shared_area()) ? _box.area().snapshot()
                                                           : std::vector<uint8_t>{};
    }

    bool is_area(const std::vector<uint8_t>& bytes) const {
        return std::filesystem::exists(_box.shared_area())
                   ? first_difference(_box.area().view().bytes(), bytes).empty()
                   : bytes.empty();
    }

    bool locked() const {
        return std::filesystem::exists(_box.lock_file()) && !lock_is_free(_box.lock_file());
    }

    /// "held" by this process; otherwise another one takes the lock, if there is a lock file.
    std::string lock_before() {
        if (locked()) {
            return "held";
        }
        if (!std::filesystem::exists(_box.lock_file())) {
            return "missing";
        }
        _holder.emplace(_box.lock_file());
        return "free";
    }

    /// Makes the call, while the lock is held by another where the row says "takes" or "no".
    std::string made(const std::string& command, const behaviour& expected) {
        _user.send(command);
        if (expected.lock.starts_with("takes")) {
            _user.wait_until_it_waits_for_a_lock();
            _holder.reset();
        }
        const bool fatal = expected.result.starts_with("SIG");
        std::string result = fatal ? ended(_user.finish()) : in_words(_user.reply(), expected);
        _holder.reset();
        return result;
    }

    static std::string ended(const ending& end) {
        return end.signal == 0 ? shown(end) : std::string("SIG") + sigabbrev_np(end.signal);
    }

    std::string in_words(const std::string& reply, const behaviour& expected) const {
        if (expected.result == "the same address" && reply == _last_address) {
            return expected.result;
        }
        if (expected.result == "an address" && is_address(reply)) {
            return expected.result;
        }
        return reply;
    }

    /// What has come of the lock, in the page's words. That "takes" waits, and that "no" does not,
    /// was seen by getting here.
    std::string lock_after(const std::string& before, const std::string& expected) const {
        if (before == "held") {
            return locked() ? "held" : "releases";
        }
        if (before == "missing" && std::filesystem::exists(_box.lock_file())) {
            return "starts the library";
        }
        const std::string taken = expected.starts_with("takes") ? "takes" : "no";
        return locked() ? taken + " and keeps" : taken;
    }

    sandbox _box;
    client _user;
    std::vector<client> _others;
    std::optional<held_lock> _holder;
    std::string _last_address;
};

} // namespace

row_result run(const page_row& row) {
    if (row.cells.size() != columns || row.cells.at(situation).empty()) {
        throw std::runtime_error("not a row of the table");
    }
    row_result both{expectation(row.cells), {}};
    row_machine machine(codes_of(row.cells.at(given)));
    const std::vector<std::string> commands = codes_of(row.cells.at(call));
    if (commands.size() != 1) {
        throw std::runtime_error("not one call");
    }
    both.expected.standard_error =
        replaced(both.expected.standard_error, "$", machine.last_address());
    both.seen = machine.observe(commands.front(), both.expected);
    return both;
}
