#include "area/check_record.hpp"
#include "doctor/diagnosis.hpp"
#include "failure.hpp"
#include "host/area_source.hpp"
#include "shared/paths.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr const char* look_closer = "tarvoctl check tells all; tarvoctl repair mends what it can";

void compare_regions(const dma_window& in_area, const site& here, health_report& report) {
    const auto expected = here.region();
    const std::string text =
        fmt::format("made for the region {:#x} to {:#x}", in_area.first_pa, in_area.end_pa - 1);
    if (!expected) {
        report.add(verdict::note, here.area, text + "; what this machine has is not known");
    } else if (expected->first_pa != in_area.first_pa || expected->end_pa != in_area.end_pa) {
        report.add(verdict::error, here.area,
                   fmt::format("{}, but this machine has {:#x} to {:#x}: it is left over from "
                               "another region, and the library does not notice",
                               text, expected->first_pa, expected->end_pa - 1),
                   fmt::format("end all programs that use it, then rm {}", here.area));
        report.set_damaged();
    } else {
        report.add(verdict::ok, here.area, text + ", which is this machine's");
    }
}

void diagnose_surface(const shared_area_t& area, const site& here, health_report& report) {
    if (has_lost_flag(area)) {
        report.add(verdict::error, here.area,
                   "holds chunks or devices, yet says that it was not built: the next program that "
                   "starts builds it anew, and they are lost",
                   "tarvoctl repair, before any program that uses the library is started");
        report.set_damaged();
        return;
    }
    if (area.initialized == 0) {
        report.add(verdict::note, here.area,
                   "not built yet: the first program that starts does it");
        return;
    }
    const auto in_area = region_in(area.chunks);
    if (!in_area) {
        report.add(verdict::error, here.area,
                   "the two records that bound the region are damaged: programs that use the "
                   "library end by an assertion",
                   look_closer);
        report.set_damaged();
        return;
    }
    compare_regions(*in_area, here, report);
}

} // namespace

void diagnose_area(const site& here, health_report& report) {
    struct stat file {};
    // What is missing or too short was told with the files.
    if (::stat(here.area.c_str(), &file) != 0 ||
        file.st_size < static_cast<off_t>(sizeof(shared_area_t))) {
        if (here.simulation)
            report.set_readable();
        return;
    }
    try {
        const area_copy area = read_area_file(here.area);
        report.set_readable();
        diagnose_surface(*area, here, report);
    } catch (const failure& wrong) {
        report.add(verdict::error, here.area, wrong.what(), "run it as root");
    }
}

} // namespace tarvoctl
