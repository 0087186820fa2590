#include "driver/region.hpp"

#include "driver/text.hpp"

namespace sandbox {

std::string region_line(const region& described) {
    return to_hex(described.first_pa) + "\t" + to_hex(described.last_pa) + "\t0\t" +
           described.name + "\n";
}

std::optional<region> region_of_line(std::string_view line) {
    const auto fields = split(line.substr(0, line.find('\n')), '\t');
    if (fields.size() != 4) {
        return std::nullopt;
    }
    const auto first = parse_hex(fields[0]);
    const auto last = parse_hex(fields[1]);
    if (!first || !last) {
        return std::nullopt;
    }
    region found{*first, *last, std::string{fields[3]}};
    return found.is_usable() ? std::optional{found} : std::nullopt;
}

} // namespace sandbox
