#include "common/numbers.hpp"
#include "common/trouble.hpp"
#include "driver/errno_names.hpp"
#include "driver/rule.hpp"
#include "driver/text.hpp"

#include <algorithm>
#include <array>
#include <map>

namespace sandbox {

namespace {

template <typename Value, size_t Count>
using name_table = std::array<std::pair<std::string_view, Value>, Count>;

constexpr name_table<rule_operation, 7> operation_names{{
    {"map", rule_operation::map},
    {"unmap", rule_operation::unmap},
    {"allocate", rule_operation::allocate},
    {"release", rule_operation::release},
    {"open-read", rule_operation::open_read},
    {"open-write", rule_operation::open_write},
    {"any", rule_operation::any},
}};

constexpr name_table<driver_file, 2> file_names{{
    {"proc", driver_file::proc},
    {"sysfs", driver_file::sysfs},
}};

constexpr name_table<moment, 3> moment_names{{
    {"open", moment::open},
    {"write", moment::write},
    {"close", moment::close},
}};

constexpr name_table<listing_fault, 9> fault_names{{
    {"missing-field", listing_fault::missing_field},
    {"garbage", listing_fault::garbage},
    {"wrong-size", listing_fault::wrong_size},
    {"address-zero", listing_fault::address_zero},
    {"empty", listing_fault::empty},
    {"no-first-line", listing_fault::no_first_line},
    {"first-line-only", listing_fault::first_line_only},
    {"extra-name", listing_fault::extra_name},
    {"extra-size", listing_fault::extra_size},
}};

/// Reads the text of one rule key by key, then checks what the keys say together.
class parser {
  public:
    explicit parser(std::string_view text) { _made.text = text; }

    rule parse() {
        for (const auto part : split(_made.text, ',')) {
            parse_key(part);
        }
        resolve_answer();
        resolve_moment();
        resolve_file();
        check_request_keys();
        return _made;
    }

  private:
    using reader = void (parser::*)(std::string_view);

    [[noreturn]] void refuse(const std::string& why) const {
        throw trouble{"rule '" + _made.text + "': " + why};
    }

    bool given(std::string_view key) const {
        return std::find(_keys.begin(), _keys.end(), key) != _keys.end();
    }

    void parse_key(std::string_view part) {
        static const std::map<std::string_view, reader> readers{
            {"op", &parser::read_op},           {"file", &parser::read_file},
            {"at", &parser::read_at},           {"device", &parser::read_device},
            {"range", &parser::read_range},     {"name", &parser::read_name},
            {"nth", &parser::read_nth},         {"errno", &parser::read_errno},
            {"address", &parser::read_address}, {"listing", &parser::read_listing},
            {"short", &parser::read_short}};
        const auto equals = part.find('=');
        if (equals == std::string_view::npos) {
            refuse("'" + std::string{part} + "' is not KEY=VALUE");
        }
        const auto key = part.substr(0, equals);
        const auto found = readers.find(key);
        if (found == readers.end()) {
            refuse("unknown key '" + std::string{key} +
                   "'; known are op, file, at, device, range, " +
                   "name, nth, errno, address, listing and short");
        }
        if (given(key)) {
            refuse("key '" + std::string{key} + "' is given twice");
        }
        _keys.push_back(found->first);
        (this->*found->second)(part.substr(equals + 1));
    }

    [[noreturn]] void refuse_value(std::string_view value, const std::string& wanted) const {
        refuse(std::string{_keys.back()} + "='" + std::string{value} + "' is not " + wanted);
    }

    template <typename Value, size_t Count>
    Value look_up(const name_table<Value, Count>& names, std::string_view value) const {
        std::string known;
        for (const auto& [name, meaning] : names) {
            if (name == value) {
                return meaning;
            }
            known += (known.empty() ? "" : ", ") + std::string{name};
        }
        refuse_value(value, "one of " + known);
    }

    void read_op(std::string_view value) { _made.op = look_up(operation_names, value); }
    void read_file(std::string_view value) { _made.file = look_up(file_names, value); }
    void read_at(std::string_view value) { _made.at = look_up(moment_names, value); }

    void read_name(std::string_view value) {
        if (value.empty()) {
            refuse_value(value, "the name of a chunk");
        }
        _made.name = value;
    }

    void read_device(std::string_view value) {
        const auto wanted = "a PCI device such as 0000:03:00.0";
        const auto colons = split(value, ':');
        if (colons.size() != 3) {
            refuse_value(value, wanted);
        }
        const auto dots = split(colons[2], '.');
        if (dots.size() != 2) {
            refuse_value(value, wanted);
        }
        const auto domain = number_in<uint32_t>(colons[0], 16);
        const auto bus = number_in<uint32_t>(colons[1], 16);
        const auto slot = number_in<uint32_t>(dots[0], 16);
        const auto function = number_in<uint32_t>(dots[1], 16);
        if (!domain || !bus || !slot || !function || *slot > 0x1f || *function > 7) {
            refuse_value(value, wanted);
        }
        _made.device = pci_device{*domain, *bus, *slot << 3 | *function};
    }

    void read_range(std::string_view value) {
        const auto ends = split(value, '-');
        const auto first = parse_hex(ends.front());
        const auto last = parse_hex(ends.back());
        if (ends.size() != 2 || !first || !last || *first > *last) {
            refuse_value(value, "0xSTART-0xEND with START not above END");
        }
        _made.range_pa = {*first, *last};
    }

    void read_nth(std::string_view value) {
        const bool open_ended = value.ends_with('+');
        const auto ends = split(value.substr(0, value.size() - (open_ended ? 1 : 0)), '-');
        const auto first = number_in<uint64_t>(ends.front());
        const auto last = number_in<uint64_t>(ends.back());
        if (ends.size() > (open_ended ? 1 : 2) || !first || !last || *first < 1 || *first > *last) {
            refuse_value(value, "N, N+ or N-M, counted from 1");
        }
        _made.first_due = *first;
        if (!open_ended) {
            _made.last_due = *last;
        }
    }

    void read_errno(std::string_view value) {
        const auto error = parse_errno(value);
        if (!error) {
            refuse_value(value, "a name from errno.h or a number from 1 to " +
                                    std::to_string(largest_errno));
        }
        _made.answer = refusal{*error};
    }

    void read_address(std::string_view value) {
        const auto pa = parse_hex(value);
        if (!pa) {
            refuse_value(value, "an address in hexadecimal such as 0x100000000");
        }
        _made.answer = handed_out_address{*pa};
    }

    void read_listing(std::string_view value) {
        _made.answer = altered_listing{look_up(fault_names, value)};
    }

    void read_short(std::string_view value) {
        const auto bytes = number_in<size_t>(value);
        if (!bytes) {
            refuse_value(value, "a number of bytes");
        }
        _made.answer = short_write{*bytes};
    }

    /// Exactly one key says what to do, and some of them say to what.
    void resolve_answer() {
        const auto answers = given("errno") + given("address") + given("listing") + given("short");
        if (answers == 0) {
            refuse("no answer; add errno=, address=, listing= or short=");
        }
        if (answers > 1) {
            refuse("errno, address, listing and short exclude each other; write two rules");
        }
        if (given("address")) {
            imply_op("address", rule_operation::allocate, "allocate");
        }
        if (given("listing")) {
            imply_op("listing", rule_operation::open_read, "open-read");
        }
    }

    void imply_op(const std::string& key, rule_operation op, const std::string& op_name) {
        if (given("op") && _made.op != op) {
            refuse(key + " goes with op=" + op_name + " only");
        }
        _made.op = op;
    }

    bool is_open_op() const {
        return _made.op == rule_operation::open_read || _made.op == rule_operation::open_write;
    }

    void resolve_moment() {
        if (is_open_op()) {
            if (given("at") && _made.at != moment::open) {
                refuse("op=open-read and op=open-write go with at=open only");
            }
            _made.at = moment::open;
        }
        if (_made.at != moment::write && (given("short") || given("address"))) {
            refuse("short and address go with at=write only");
        }
        const auto* const refused = std::get_if<refusal>(&_made.answer);
        // FUSE takes ENOSYS there for "never ask again": later opens and closes would go unseen.
        if (_made.at != moment::write && refused != nullptr && refused->error == ENOSYS) {
            refuse("errno=ENOSYS goes with at=write only: at an open or close the kernel hides it");
        }
    }

    void imply_file(const std::string& because, driver_file file) {
        if (_made.file && *_made.file != file) {
            refuse(because + " goes with file=" +
                   std::string{file == driver_file::proc ? "proc" : "sysfs"} + " only");
        }
        _made.file = file;
    }

    void resolve_file() {
        if (_made.op == rule_operation::map || _made.op == rule_operation::unmap) {
            imply_file("op=map or op=unmap", driver_file::sysfs);
        }
        if (_made.op == rule_operation::allocate || _made.op == rule_operation::release) {
            imply_file("op=allocate or op=release", driver_file::proc);
        }
        if (given("device") || given("range")) {
            imply_file("device or range", driver_file::sysfs);
        }
        if (given("name")) {
            imply_file("name", driver_file::proc);
        }
        if (given("listing")) {
            imply_file("listing", driver_file::proc);
        }
    }

    /// At an open nothing has been written yet that these keys could look into.
    void check_request_keys() const {
        if (_made.at != moment::open) {
            return;
        }
        const bool asks_op = !is_open_op() && _made.op != rule_operation::any;
        const bool asks_name = given("name") && !given("listing");
        if (asks_op || asks_name || given("device") || given("range")) {
            refuse(
                "at=open comes before the request is known; leave out op, device, range and name, "
                "or use at=write or at=close");
        }
    }

    rule _made;
    std::vector<std::string_view> _keys;
};

} // namespace

rule parse_rule(std::string_view text) {
    return parser{text}.parse();
}

} // namespace sandbox
