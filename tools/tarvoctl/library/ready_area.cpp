#include "library/ready_area.hpp"

#include "common/failure.hpp"
#include "common/unique_fd.hpp"
#include "host/area_follower.hpp"
#include "host/area_source.hpp"
#include "host/file_shortage.hpp"
#include "host/folder_fault.hpp"
#include "host/memory_refusal.hpp"
#include "library/library_call.hpp"
#include "output/place_text.hpp"
#include "output/text.hpp"
#include "shared/paths.hpp"
#include "tarvo.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

enum class missing_file { accepted, refused };

/// The library makes its files one after the other: one that it cannot make would leave the others
/// half made.
void require_folder_for(const std::string& file) {
    const std::string folder = parent_of(file);
    if (const auto fault = fault_of_folder(folder, true)) {
        throw failure{exit_status::unreadable, fmt::format("cannot make {}: {} {}; {}", file,
                                                           folder, fault->text, fault->fix)};
    }
}

/// Whether the library, started now, could open the file as it would.
void check_file(const std::string& path, int access, missing_file when_missing) {
    const unique_fd file{::open(path.c_str(), access | O_NONBLOCK | O_CLOEXEC)};
    if (file) {
        return;
    }
    if ((errno == ENOENT || errno == ENOTDIR) && when_missing == missing_file::accepted) {
        require_folder_for(path);
        return;
    }
    const int number = errno;
    const bool forbidden = number == EACCES || number == EPERM;
    const memory_refusal refusal =
        path == paths::physical_memory && forbidden
            ? refusal_of_memory(number)
            : memory_refusal{error_text(number), forbidden ? run_as_root : "see 'tarvoctl doctor'"};
    throw failure{exit_status::unreadable,
                  fmt::format("cannot open {} for {}: {}; {}", path,
                              access == O_RDWR ? "reading and writing" : "reading", refusal.text,
                              refusal.fix)};
}

void require_possible_region(const site& here) {
    if (here.driver && here.driver->fault) {
        throw failure{exit_status::unreadable,
                      fmt::format("{} {}; {}", paths::region_driver, here.driver->fault->text,
                                  here.driver->fault->fix)};
    }
}

void check_files(const site& here, missing_file when_missing) {
    require_region(here);
    check_file(here.memory, O_RDWR, here.simulation ? when_missing : missing_file::refused);
    check_file(here.area, O_RDWR, when_missing);
    check_file(here.own_lock, O_RDONLY, when_missing);
    refuse_shortage(lost_memory(here), exit_status::damaged);
    // The library would fill the file up with zeros, and nobody could see that any were lost.
    refuse_shortage(cut_short_memory(here), exit_status::damaged);
    // The library's own look into the area would end its process. One that was cut short is refused
    // for that when it is read: room does not bring back what is lost.
    if (!open_built_area(here.area) || !cut_short_area(here)) {
        refuse_shortage(area_without_room(here), exit_status::unreadable);
    }
}

/// The library itself looks at little: it would end the process halfway, or make it worse.
void refuse_broken(const shared_area_t& area, const site& here, std::optional<remedy> call) {
    const auto findings = check_area(area, options_here(here));
    const auto broken = std::ranges::find_if(findings, [call](const finding& one) {
        return one.cls == finding_class::broken && one.out != call;
    });
    if (broken == findings.end()) {
        return;
    }
    if (is_of_another_region(findings)) {
        throw failure{
            exit_status::damaged,
            fmt::format("{} is left over from another region; {}. 'tarvoctl doctor' shows "
                        "both regions",
                        here.area, after_devices_if_mapped(removal_text(here.area), area))};
    }
    throw failure{exit_status::damaged,
                  fmt::format("the area is broken: {}: {}. The library would break off the call, "
                              "or make it worse; 'tarvoctl check' shows what helps",
                              place_text(broken->where, area), shown(broken->text))};
}

picture sound_picture(const site& here, std::chrono::milliseconds timeout,
                      std::optional<remedy> call = std::nullopt) {
    const auto area = read_area({{}, timeout});
    check_built(*area, here.area);
    refuse_broken(*area, here, call);
    return picture_of(*area);
}

picture new_picture(const site& here) {
    picture made{};
    made.region = here.region().value(); // or require_region() had thrown
    return made;
}

void start_library() {
    uint32_t start_dma = 0;
    uint32_t end_dma = 0;
    const change_of_records uninterrupted;
    if (tarvo_get_limits(&start_dma, &end_dma) != 0) {
        throw failure{exit_status::unreadable, "the library cannot start; its reason is above, and "
                                               "see 'tarvoctl doctor'"};
    }
}

} // namespace

picture ready_area(std::chrono::milliseconds timeout, std::optional<remedy> call) {
    const site here = find_site();
    picture records = sound_picture(here, timeout, call);
    check_files(here, missing_file::refused);
    return records;
}

picture ready_or_new_area(std::chrono::milliseconds timeout) {
    const site here = find_site();
    require_possible_region(here);
    check_files(here, missing_file::accepted);
    return open_built_area(here.area) ? sound_picture(here, timeout) : new_picture(here);
}

exit_status in_started_library(std::chrono::milliseconds timeout,
                               const std::function<exit_status()>& work) {
    return in_library(timeout, [&work] {
        start_library();
        return work();
    });
}

} // namespace tarvoctl
