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

std::string altered_line(const cma_allocation& allocation, listing_fault fault) {
    switch (fault) {
    case listing_fault::missing_field:
        return allocation.name + "\t" + to_hex(allocation.first_pa) + "\n";
    case listing_fault::garbage:
        return "garbage\n";
    case listing_fault::wrong_size:
        return line_of_wrong_size(allocation);
    case listing_fault::address_zero:
        return line_at_address_zero(allocation);
    case listing_fault::extra_name:
        return line_of_extra_name(allocation) + line(allocation);
    case listing_fault::extra_size:
        return line_of_wrong_size(allocation) + line(allocation);
    case listing_fault::empty:
    case listing_fault::no_first_line:
    case listing_fault::first_line_only:
        break;
    }
    return line(allocation);
}

std::string allocation_lines(const std::vector<cma_allocation>& allocations, const rule* altering,
                             const altered_listing* altered) {
    std::string lines;
    for (const auto& allocation : allocations) {
        const bool picked =
            altered != nullptr && (!altering->name || *altering->name == allocation.name);
        lines += picked ? altered_line(allocation, altered->fault) : line(allocation);
    }
    return lines;
}

} // namespace

std::string make_listing(const std::string& region_line,
                         const std::vector<cma_allocation>& allocations, const rule* altering) {
    const auto* const altered =
        altering == nullptr ? nullptr : std::get_if<altered_listing>(&altering->answer);
    std::string lines = allocation_lines(allocations, altering, altered);
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
