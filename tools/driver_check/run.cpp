#include "run.hpp"

#include "common/failure.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <fmt/format.h>
#include <unistd.h>

namespace driver_check {

namespace {

/// Why such a check cannot run; empty where it can.
std::string missing(need needed, const subject& all) {
    const bool for_device = needed == need::device || needed == need::cma_device;
    const bool for_cma = needed == need::cma_region || needed == need::cma_device;
    if (needed == need::nothing) {
        return {};
    }
    if (!all.region) {
        return "there is no region to use; see 1.1 to 1.4";
    }
    if (for_cma && !all.is_cma()) {
        return "the region is not CMA's";
    }
    if (needed == need::plain_region && all.is_cma()) {
        return "the region is CMA's";
    }
    if (for_device && !all.device) {
        return "name a device that may be used with --device";
    }
    if (needed == need::absent_device && !all.absent_device) {
        return "name an address without a device with --absent-device";
    }
    return {};
}

result run(const clause& each, const subject& all) {
    const std::string reason = missing(each.needs, all);
    if (!reason.empty()) {
        return {&each, verdict::skipped, reason};
    }
    try {
        each.check(all);
        return {&each, verdict::passed, {}};
    } catch (const breach& found) {
        return {&each, verdict::failed, found.text};
    } catch (const not_applicable& found) {
        return {&each, verdict::skipped, found.reason};
    }
}

/// Without one of its files a driver is broken; without both there is none.
void require_driver() {
    const bool has_region = ::access(paths::region_driver, F_OK) == 0;
    const bool has_requests = ::access(paths::iommu_driver, F_OK) == 0;
    if (!has_region && !has_requests) {
        throw failure{exit_status::unreadable,
                      fmt::format("no driver here: neither {} nor {} is there; load the driver",
                                  paths::region_driver, paths::iommu_driver)};
    }
    const char* const closed =
        has_region && ::access(paths::region_driver, R_OK) != 0    ? paths::region_driver
        : has_requests && ::access(paths::iommu_driver, W_OK) != 0 ? paths::iommu_driver
                                                                   : nullptr;
    if (closed != nullptr && errno == EACCES) {
        throw failure{exit_status::unreadable,
                      fmt::format("{}: {}; run as root", closed, error_text(EACCES))};
    }
}

} // namespace

std::vector<result> run_checks(const subject& all) {
    require_driver();
    std::vector<result> results;
    for (const auto group : {region_clauses(), memory_clauses(), allocator_clauses(),
                             request_clauses(), device_clauses(), answer_clauses()}) {
        for (const clause& each : group) {
            results.push_back(run(each, all));
        }
    }
    return results;
}

} // namespace driver_check
