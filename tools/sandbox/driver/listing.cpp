#include "driver/listing.hpp"

#include "driver/text.hpp"

namespace sandbox {

namespace {

/// Enough to make a size wrong and still a size.
constexpr uint64_t odd_bytes = 4096;

std::string line(const cma_allocation& allocation) {
    return allocation.name + "\t" + to_hex(allocation.first_pa) + "\t" +
           to_hex(allocation.size_bytes) + "\n";
}

std::string altered_line(const cma_allocation& allocation, listing_fault fault) {
    const auto& [name, pa, bytes] = allocation;
    switch (fault) {
    case listing_fault::missing_field:
        return name + "\t" + to_hex(pa) + "\n";
    case listing_fault::garbage:
        return "garbage\n";
    case listing_fault::wrong_size:
        return line({name, pa, bytes + odd_bytes});
    case listing_fault::address_zero:
        return line({name, 0, bytes});
    case listing_fault::extra_name:
        return line({name + "_extra", pa, bytes}) + line(allocation);
    case listing_fault::extra_size:
        return line({name, pa, bytes + odd_bytes}) + line(allocation);
    case listing_fault::empty:
    case listing_fault::no_first_line:
    case listing_fault::first_line_only:
        break;
    }
    return line(allocation);
}

} // namespace

std::string make_listing(const std::string& region_line,
                         const std::vector<cma_allocation>& allocations, const rule* altering) {
    const auto* const altered =
        altering == nullptr ? nullptr : std::get_if<altered_listing>(&altering->answer);
    std::string lines;
    for (const auto& each : allocations) {
        const bool picked = altered != nullptr && (!altering->name || *altering->name == each.name);
        lines += picked ? altered_line(each, altered->fault) : line(each);
    }
    if (altered == nullptr) {
        return region_line + lines;
    }
    switch (altered->fault) {
    case listing_fault::empty:
        return {};
    case listing_fault::no_first_line:
        return lines;
    case listing_fault::first_line_only:
        return region_line;
    default:
        return region_line + lines;
    }
}

} // namespace sandbox
