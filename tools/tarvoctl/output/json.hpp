#pragma once

#include "area/records.hpp"
#include "common/exit_status.hpp"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tarvoctl {

/// Keys stay in the order in which they are added.
using json = nlohmann::ordered_json;

/// A list with what `make` makes of each item.
template <typename Items, typename Make>
json json_list(const Items& items, Make make) {
    json made = json::array();
    for (const auto& each : items) {
        made.push_back(make(each));
    }
    return made;
}

/// What every output begins with: the number of the schema it follows and the command.
json json_document(std::string_view command);

/// The same of what was read from an area: adds whether all of it is of one moment.
json json_document(std::string_view command, const picture& records);

/// An address, as a number and as hexadecimal text: {"number": 4096, "hex": "0x1000"}.
json json_address(uint64_t address);

/// An address as devices see it; null where it is unknown where the region lies.
json json_dma(uint64_t pa, const picture& records);

/// Adds a name of the records. One that is not UTF-8 is added as KEY_bytes, too, in hexadecimal:
/// what replaces its bytes is the same for all of them.
void add_text(json& to, const std::string& key, const std::string& text);

/// Where the region lies, for processors and for devices; null where that is unknown.
json json_region(const picture& records);
json json_device(const device_record& device);
json json_chunk(const chunk_record& chunk, const picture& records);

enum class json_layout {
    readable, ///< a member a line, and of a list in it an element a line
    compact,  ///< a document a line
};

/// How documents are laid out from now on; readable to begin with.
void lay_json_out(json_layout wanted);

/// A document as it is printed, with its end of line. Bytes that are not UTF-8 become U+FFFD.
std::string json_text(const json& document);

/// Writes a document to standard output.
void print_json(const json& document);

/// What stands in for the document of a command that failed. `command` is empty where the command
/// line names none.
json json_error(std::string_view command, exit_status status, std::string_view message);

} // namespace tarvoctl
