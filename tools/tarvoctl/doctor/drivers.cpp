#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "common/unique_fd.hpp"
#include "doctor/diagnosis.hpp"
#include "host/memory_refusal.hpp"
#include "output/text.hpp"
#include "shared/paths.hpp"
#include "shared/region_line.hpp"
#include "tarvo/chunk.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr const char* load_driver = "load the region driver; on a machine without one, set "
                                    "SIMULATION_VMID for all programs";
constexpr const char* write_the_line =
    "let the region driver write its first line as start, end, 0 and name between tabs, such as "
    "80000000\\t8fffffff\\t0\\ttarvo; until then, set SIMULATION_VMID for all programs";

std::string without_newline(const char* text) {
    std::string line{text};
    while (line.ends_with('\n')) {
        line.pop_back();
    }
    return line;
}

void diagnose_region_bounds(const region_line& line, health_report& report) {
    const std::string subject = paths::region_driver;
    const uint64_t bytes = line.last_pa + 1 - line.first_pa;
    if (const auto fault = fault_of(line)) {
        report.add(verdict::error, subject, fault->text, fault->fix);
    } else {
        report.set_readable();
        report.add(verdict::ok, subject,
                   fmt::format("region \"{}\", {}, {}{}", line.name,
                               pa_range(line.first_pa, line.last_pa + 1), size_text(bytes),
                               line.is_cma() ? "; the kernel places the chunks" : ""));
        if (bytes >= tarvo::largest_chunk.count()) {
            report.add(verdict::note, subject,
                       "of 2 GiB and more: it cannot be mapped for a device as a whole");
        }
        if (bytes % static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)) != 0) {
            report.add(
                verdict::warning, subject,
                fmt::format("the region does not end on a page, but at {}: the rest of its "
                            "last page is never used",
                            pa_text(line.last_pa)),
                "let the region driver's first line name the last byte of a page as the end");
        }
    }
}

void diagnose_region_line(health_report& report) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> driver{
        std::fopen(paths::region_driver, "re"), &std::fclose};
    region_line line{};
    if (!driver) {
        report.add(verdict::error, paths::region_driver,
                   fmt::format("cannot be opened ({}): without it the library finds no region",
                               error_text(errno)),
                   errno == ENOENT ? load_driver : run_as_root);
    } else if (std::fgets(line.text, sizeof line.text, driver.get()) == nullptr) {
        report.add(verdict::error, paths::region_driver, "is empty: it describes no region",
                   write_the_line);
    } else if (!parse(line)) {
        report.add(verdict::error, paths::region_driver,
                   fmt::format("the first line is \"{}\", and not start, end, 0 and name between "
                               "tabs: the library finds no region",
                               shown(without_newline(line.text))),
                   write_the_line);
    } else {
        diagnose_region_bounds(line, report);
    }
}

constexpr const char* reserve_region =
    "reserve the region so that it is not system memory (memmap= or the device tree) and is "
    "claimed "
    "by no driver, or boot with iomem=relaxed";
constexpr const char* is_policy = ", which is the kernel's policy (CONFIG_STRICT_DEVMEM)";

std::string fix_for_mapping(int error) {
    return error == EPERM ? reserve_region
                          : "let the region driver name a region of this machine's memory; "
                            "/proc/iomem shows what there is";
}

/// Maps a page the way the library does, and touches nothing.
void diagnose_memory_access(const site& here, health_report& report) {
    const unique_fd memory{::open(paths::physical_memory, O_RDWR | O_CLOEXEC)};
    if (!memory) {
        const memory_refusal refusal = refusal_of_memory(errno);
        report.add(verdict::error, paths::physical_memory, "opening refused: " + refusal.text,
                   refusal.fix);
        return;
    }
    if (!here.driver) {
        return;
    }
    const auto page_bytes = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void* const page = ::mmap(nullptr, page_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(),
                              static_cast<off_t>(here.driver->first_pa));
    if (page == MAP_FAILED) {
        const int error = errno;
        report.add(verdict::error, paths::physical_memory,
                   fmt::format("mapping the region's first page refused: {}{}", error_text(error),
                               error == EPERM ? is_policy : ""),
                   fix_for_mapping(error));
        return;
    }
    ::munmap(page, page_bytes);
    struct stat file {};
    const bool device = ::fstat(memory.get(), &file) == 0 && S_ISCHR(file.st_mode);
    report.add(device ? verdict::ok : verdict::note, paths::physical_memory,
               device ? "the region can be mapped"
                      : "the region can be mapped, but of a stand-in: it is not a device");
}

/// The driver's file is the kernel's own: without its folder it is not the driver that is missing.
const char* fix_for_missing_iommu() {
    return ::access(parent_of(paths::iommu_driver).c_str(), F_OK) == 0
               ? "load the IOMMU driver"
               : "mount -t sysfs sysfs /sys";
}

/// Simulation does without the driver, and then there is nothing to fix.
void diagnose_iommu(const site& here, health_report& report) {
    if (::access(paths::iommu_driver, W_OK) == 0) {
        report.add(verdict::ok, paths::iommu_driver, "the IOMMU driver takes requests");
        return;
    }
    const int error = errno;
    const bool missing = error == ENOENT || error == EROFS;
    const std::string text =
        fmt::format("cannot be written ({}): no device can be registered", error_text(error));
    if (here.simulation && missing) {
        report.add(verdict::note, paths::iommu_driver, text + ", as in most simulations");
    } else {
        report.add(here.simulation ? verdict::note : verdict::warning, paths::iommu_driver, text,
                   missing ? fix_for_missing_iommu() : "run programs with devices as root");
    }
}

} // namespace

void diagnose_drivers(const site& here, health_report& report) {
    if (!here.simulation) {
        diagnose_region_line(report);
        diagnose_memory_access(here, report);
    }
    diagnose_iommu(here, report);
}

} // namespace tarvoctl
