#include "common/quantities.hpp"

#include <array>
#include <bit>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

namespace {

using std::chrono::system_clock;

constexpr std::array unit_names{"KiB", "MiB", "GiB"};
constexpr size_t unit_bits = 10; // from each to the next

std::tm local_time(system_clock::time_point when) {
    return fmt::localtime(system_clock::to_time_t(when));
}

/// Since the last whole second.
int64_t milliseconds_of(system_clock::time_point when) {
    const auto since_second =
        std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch()) %
        std::chrono::seconds{1};
    return since_second.count();
}

/// "+02:00"
std::string zone_text(const std::tm& local) {
    std::string zone = fmt::format("{:%z}", local);
    return zone.insert(zone.size() - 2, ":");
}

} // namespace

/// Ten digits are a terabyte, which is more than the machines have that the library is made for.
std::string pa_text(uint64_t pa) {
    return fmt::format("{:#012x}", pa);
}

std::string dma_text(uint32_t dma) {
    return fmt::format("{:#010x}", dma);
}

std::string pa_range(uint64_t first_pa, uint64_t end_pa) {
    return pa_text(first_pa) + "-" + pa_text(end_pa - 1);
}

std::string size_text(uint64_t bytes) {
    return size_text(bytes, common_unit({&bytes, 1}));
}

std::string size_text(uint64_t bytes, size_t unit) {
    return unit == 0 ? counted(bytes, "byte")
                     : fmt::format("{} {}", bytes >> unit * unit_bits, unit_names[unit - 1]);
}

size_t common_unit(std::span<const uint64_t> sizes) {
    uint64_t all_bits = 0; // whose lowest one decides
    for (const uint64_t bytes : sizes) {
        all_bits |= bytes;
    }
    if (all_bits == 0) {
        return 0;
    }
    const auto whole = static_cast<size_t>(std::countr_zero(all_bits)) / unit_bits;
    return std::min(whole, unit_names.size());
}

std::string size_with_bytes(uint64_t bytes) {
    const std::string size = size_text(bytes);
    const std::string exact = counted(bytes, "byte");
    return size == exact ? size : fmt::format("{} ({})", size, exact);
}

std::string time_text(system_clock::time_point when) {
    const std::tm local = local_time(when);
    return fmt::format("{:%FT%T}{}", local, zone_text(local));
}

std::string exact_time_text(system_clock::time_point when) {
    const std::tm local = local_time(when);
    return fmt::format("{:%FT%T}.{:03}{}", local, milliseconds_of(when), zone_text(local));
}

std::string utc_time_text(system_clock::time_point when) {
    return fmt::format("{:%FT%T}.{:03}Z", fmt::gmtime(system_clock::to_time_t(when)),
                       milliseconds_of(when));
}

std::string file_time_text(system_clock::time_point when) {
    return fmt::format("{:%Y%m%dT%H%M%S%z}", local_time(when));
}

std::string counted(uint64_t count, std::string_view thing) {
    const char* const ending = count == 1 ? "" : thing.ends_with('s') ? "es" : "s";
    return fmt::format("{} {}{}", count, thing, ending);
}
