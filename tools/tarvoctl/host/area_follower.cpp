#include "host/area_follower.hpp"

#include "area/raw_records.hpp"
#include "common/failure.hpp"
#include "host/regular_file.hpp"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// Most areas that are looked at have been built, so only the others are read.
bool is_built(const unique_fd& file, const std::string& path) {
    unsigned char initialized = 0;
    if (::pread(file.get(), &initialized, 1, 0) != 1) {
        return false; // its first process has just made it
    }
    require_whole(file, path);
    return initialized != 0 || is_in_use(*read_area_file(path));
}

} // namespace

unique_fd open_built_area(const std::string& path) {
    unique_fd file = open_regular_file(path, O_RDONLY);
    if (!file && errno != ENOENT && errno != ENOTDIR) {
        throw failure{exit_status::unreadable,
                      fmt::format("cannot open {}: {}", path, error_text(errno))};
    }
    if (file && !is_built(file, path)) {
        file.reset();
    }
    return file;
}

area_look area_follower::look() {
    const std::string path = find_site().area;
    unique_fd file = open_built_area(path);
    if (!file) {
        _seen.reset();
        _identity.reset();
        return {area_look::state::absent, path};
    }
    try {
        return read(path, std::move(file));
    } catch (const failure& wrong) {
        if (wrong.status() == exit_status::timed_out) {
            return {area_look::state::locked, path, {}, wrong.what()};
        }
        if (!open_built_area(path)) { // removed just now
            return look();
        }
        throw;
    }
}

area_look area_follower::read(const std::string& path, unique_fd file) {
    const auto identity = identity_of(path);
    picture records = look_at_records(_source);
    const bool same = _seen && identity == _identity;
    if (!records.consistent) {
        return {area_look::state::inconsistent, path, std::move(records)};
    }
    _seen = std::move(file);
    _identity = identity;
    return {same ? area_look::state::same : area_look::state::new_area, path, std::move(records)};
}

void poll_area(const polling_options& options, const std::function<void(area_look)>& take,
               const std::function<bool(std::chrono::steady_clock::time_point)>& wait_until) {
    area_follower follower{options.source};
    do {
        take(follower.look());
    } while (wait_until(std::chrono::steady_clock::now() + options.interval));
}

} // namespace tarvoctl
