#include "area/check.hpp"
#include "area/raw_records.hpp"
#include "area/repair.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "doctor/diagnosis.hpp"
#include "host/area_source.hpp"
#include "output/place_text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tarvoctl {

namespace {

void report_finding(const finding& each, const shared_area_t& area, const std::string& fix,
                    const site& here, health_report& report) {
    const std::string more =
        each.unlisted == 0 ? "" : fmt::format("; and {} more like it", each.unlisted);
    const std::string text = finding_text(each, area) + more;
    switch (each.cls) {
    case finding_class::broken:
        report.add_damage(here.area, text, fix);
        break;
    case finding_class::leaked:
        report.add(verdict::warning, here.area, text, fix);
        break;
    default: // what the library works on with
        report.add(verdict::note, here.area, text);
    }
}

/// Of an area whose bounds can be read; those that cannot are among the findings.
void report_region(const dma_window& in_area, bool is_another, const shared_area_t& area,
                   const site& here, health_report& report) {
    const auto expected = here.region();
    const std::string text = "made for the region " + pa_range(in_area.first_pa, in_area.end_pa);
    if (!expected) {
        report.add(verdict::note, here.area, text + "; what this machine has is unknown");
    } else if (is_another) {
        report.add_damage(here.area,
                          fmt::format("{}, but this machine has {}: it is left over from "
                                      "another region, and the library does not notice",
                                      text, pa_range(expected->first_pa, expected->end_pa)),
                          after_devices_if_mapped(removal_text(here.area), area));
    } else {
        report.add(verdict::ok, here.area, text + ", which is this machine's");
    }
}

/// The rules of check, the first finding of each.
void diagnose_records(const shared_area_t& area, const site& here, health_report& report) {
    check_options options = options_here(here);
    options.listed_per_rule = 1;
    const auto findings = check_area(area, options);
    const bool is_another = is_of_another_region(findings);
    if (const auto in_area = region_in(area.chunks)) {
        report_region(*in_area, is_another, area, here, report);
    }
    if (is_another) { // which alone decides what is done
        return;
    }
    const std::string fix = advice_on(findings, area, "tarvoctl repair");
    for (const finding& each : findings) {
        report_finding(each, area, fix, here, report);
    }
}

std::string fix_for_offline(const device_record& device, const picture& records) {
    const std::string name = device_text(device);
    const std::string unregister = "tarvoctl unregister " + name;
    const bool sees_chunks = std::ranges::any_of(
        records.chunks, [&device](const chunk_record& each) { return each.is_mapped_for(device); });
    return fmt::format("tarvoctl register {}; where it is gone for good, {}", name,
                       sees_chunks ? after_devices(unregister) : unregister);
}

void diagnose_devices(const picture& records, health_report& report) {
    const bool any_online = std::ranges::any_of(records.devices, &device_record::online);
    for (const device_record& each : records.devices) {
        if (!each.online) {
            report.add(verdict::warning, device_text(each),
                       any_online ? "is offline: no chunk made from now on is mapped for it"
                                  : "is offline, and no other device is online: no chunk made from "
                                    "now on is mapped for any",
                       fix_for_offline(each, records));
        }
    }
}

void diagnose_whole(const site& here, health_report& report) {
    area_source source;
    source.lock = lock_use::none;
    const area_copy area = read_area(source);
    report.set_readable();
    if (!area.consistent) {
        report.add(verdict::note, here.area,
                   "changes all the time: the records were not checked; tarvoctl check waits for "
                   "the lock");
        return;
    }
    diagnose_records(*area, here, report);
    if (area->initialized != 0) {
        diagnose_devices(picture_of(*area), report);
    }
}

} // namespace

void diagnose_area(const site& here, health_report& report) {
    struct stat file {};
    // A file that is missing, not regular or too short was reported with the files.
    if (::stat(here.area.c_str(), &file) != 0 || !S_ISREG(file.st_mode) ||
        file.st_size < static_cast<off_t>(sizeof(shared_area_t))) {
        if (here.simulation) {
            report.set_readable();
        }
        return;
    }
    try {
        diagnose_whole(here, report);
    } catch (const failure& wrong) {
        report.add(verdict::error, here.area, wrong.what(), run_as_root);
    }
}

} // namespace tarvoctl
