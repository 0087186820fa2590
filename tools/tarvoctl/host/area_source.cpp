#include "host/area_source.hpp"

#include "area/check_record.hpp"
#include "area/live_records.hpp"
#include "common/unique_fd.hpp"
#include "failure.hpp"
#include "host/cross_process_lock.hpp"
#include "host/plain_file.hpp"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

[[noreturn]] void complain_of_missing(const std::string& path) {
    const site here = find_site();
    if (path != here.area)
        throw failure{exit_status::unreadable, fmt::format("{} is not there", path)};
    require_region(here);
    throw failure{exit_status::unreadable,
                  fmt::format("there is no area: looked for {}, because {}. The first program that "
                              "uses the library makes it; 'tarvoctl doctor' tells more",
                              path, here.reason)};
}

[[noreturn]] void complain_of(const std::string& path, int number) {
    if (number == ENOENT || number == ENOTDIR)
        complain_of_missing(path);
    const bool forbidden = number == EACCES || number == EPERM;
    throw failure{exit_status::unreadable,
                  fmt::format("cannot open {}: {}{}", path, error_text(number),
                              forbidden ? "; run it as root" : "")};
}

[[noreturn]] void complain_of_unbuilt(const std::string& path) {
    throw failure{
        exit_status::unreadable,
        fmt::format("{} is not built yet: no program has started the library on it", path)};
}

[[noreturn]] void complain_of_length(const std::string& path, off_t length) {
    // The first process makes the file, and then gives it its length.
    if (length == 0 && path == find_site().area)
        complain_of_unbuilt(path);
    throw failure{exit_status::damaged,
                  fmt::format("{} is no area: it has {} bytes, and an area has at least {}", path,
                              length, sizeof(shared_area_t))};
}

unique_fd open_area(const std::string& path, int access) {
    unique_fd file = open_plain_file(path, access);
    struct stat found {};
    if (!file || ::fstat(file.get(), &found) != 0)
        complain_of(path, errno);
    if (found.st_size < static_cast<off_t>(sizeof(shared_area_t)))
        complain_of_length(path, found.st_size);
    return file;
}

/// Not by a mapping: that fills up the holes of a file in a tmpfs, and ends the process where the
/// file has become shorter or no memory is left for it.
void read_whole(const unique_fd& file, const std::string& path, shared_area_t& to) {
    auto* const bytes = reinterpret_cast<char*>(&to);
    for (std::size_t offset = 0; offset < sizeof to;) {
        const ssize_t count =
            ::pread(file.get(), bytes + offset, sizeof to - offset, static_cast<off_t>(offset));
        if (count < 0)
            complain_of(path, errno);
        if (count == 0)
            complain_of_length(path, static_cast<off_t>(offset));
        offset += static_cast<std::size_t>(count);
    }
}

/// By a mapping, so that the lock is held only while what is in use is looked at.
void copy_live_records(const site& here, std::chrono::milliseconds timeout, live_records& records) {
    const mapped_area mapped{here.area};
    mapped.touch();
    const cross_process_lock lock{here.locks_to_take(), timeout};
    check_built(mapped.area(), here.area);
    records.copy(mapped.area());
}

} // namespace

void require_region(const site& here) {
    if (here.simulation || here.driver)
        return;
    throw failure{
        exit_status::unreadable,
        fmt::format("there is no region: /proc/tarvo is missing or does not describe one, and {}. "
                    "Load the kernel driver, or run with SIMULATION_VMID set",
                    here.reason)};
}

/// An area that its first process has not finished making says so in its first byte.
void check_built(const shared_area_t& area, const std::string& path) {
    if (has_lost_flag(area)) {
        throw failure{exit_status::damaged,
                      fmt::format("{} holds chunks or devices, yet says that it was not built: the "
                                  "next program that starts the library would build it anew, and "
                                  "they would be lost; see 'tarvoctl repair'",
                                  path)};
    }
    if (area.initialized == 0)
        complain_of_unbuilt(path);
}

check_options options_here(const site& here) {
    check_options made;
    made.page_bytes = static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    made.cma = here.is_cma();
    if (const auto region = here.region())
        made.region = expected_region{region->first_pa, region->end_pa - region->first_pa};
    return made;
}

mapped_area::mapped_area(const std::string& path, access wanted) {
    const bool writes = wanted == access::write;
    const unique_fd file = open_area(path, writes ? O_RDWR : O_RDONLY);
    constexpr std::size_t bytes = sizeof(shared_area_t);
    // Where a hole has no room on the disk, the first store into it would end the process.
    if (writes && ::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, bytes) != 0 && errno == ENOSPC)
        complain_of(path, errno);
    void* const start =
        ::mmap(nullptr, bytes, PROT_READ | (writes ? PROT_WRITE : 0), MAP_SHARED, file.get(), 0);
    if (start == MAP_FAILED)
        complain_of(path, errno);
    area_ = static_cast<shared_area_t*>(start);
}

mapped_area::~mapped_area() {
    ::munmap(area_, sizeof(shared_area_t));
}

void mapped_area::touch() const {
    // Only an advice: without it the copy takes longer, nothing else.
    ::madvise(area_, sizeof(shared_area_t), MADV_POPULATE_READ);
}

picture read_picture(const area_source& source) {
    live_records records;
    if (source.is_live()) {
        copy_live_records(find_site(), source.timeout, records);
    } else {
        const auto area = read_area(source);
        check_built(*area, source.file);
        records.copy(*area);
    }
    return records.to_picture();
}

std::unique_ptr<shared_area_t> read_area(const area_source& source) {
    auto copied = std::make_unique<shared_area_t>();
    if (!source.is_live()) {
        read_whole(open_area(source.file, O_RDONLY), source.file, *copied);
        return copied;
    }
    const site here = find_site();
    const unique_fd file = open_area(here.area, O_RDONLY);
    // Once before, so that nobody waits for a disk while the lock is held.
    read_whole(file, here.area, *copied);
    const cross_process_lock lock{here.locks_to_take(), source.timeout};
    read_whole(file, here.area, *copied);
    return copied;
}

} // namespace tarvoctl
