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

std::string line_of_wrong_size(cma_allocation allocation) {
    allocation.size_bytes += odd_bytes;
    return line(allocation);
}

std::string line_at_address_zero(cma_allocation allocation) {
    allocation.first_pa = 0;
    return line(allocation);
}

std::string line_of_extra_name(cma_allocation allocation) {
    allocation.name += "_extra";
    return line(allocation);
}

std::string bent_line(const cma_allocation& allocation, listing_oddity oddity) {
    switch (oddity) {
    case listing_oddity::missing_field:
        return allocation.name + "\t" + to_hex(allocation.first_pa) + "\n";
    case listing_oddity::garbage:
        return "garbage\n";
    case listing_oddity::wrong_size:
        return line_of_wrong_size(allocation);
    case listing_oddity::address_zero:
        return line_at_address_zero(allocation);
    case listing_oddity::extra_name:
        return line_of_extra_name(allocation) + line(allocation);
    case listing_oddity::extra_size:
        return line_of_wrong_size(allocation) + line(allocation);
    case listing_oddity::empty:
    case listing_oddity::no_first_line:
    case listing_oddity::first_line_only:
        break;
    }
    return line(allocation);
}

std::string allocation_lines(const std::vector<cma_allocation>& allocations, const rule* bending,
                             const bent_listing* bent) {
    std::string lines;
    for (const auto& allocation : allocations) {
        const bool picked =
            bent != nullptr && (!bending->name || *bending->name == allocation.name);
        lines += picked ? bent_line(allocation, bent->oddity) : line(allocation);
    }
    return lines;
}

} // namespace

std::string make_listing(const std::string& region_line,
                         const std::vector<cma_allocation>& allocations, const rule* bending) {
    const auto* const bent =
        bending == nullptr ? nullptr : std::get_if<bent_listing>(&bending->answer);
    std::string lines = allocation_lines(allocations, bending, bent);
    if (bent == nullptr) {
        return region_line + lines;
    }
    switch (bent->oddity) {
    case listing_oddity::empty:
        return {};
    case listing_oddity::no_first_line:
        return lines;
    case listing_oddity::first_line_only:
        return region_line;
    default:
        return region_line + lines;
    }
}

} // namespace sandbox
