#include "host/area_source.hpp"

#include "area/check_record.hpp"
#include "area/live_records.hpp"
#include "common/unique_fd.hpp"
#include "failure.hpp"
#include "host/cross_process_lock.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

[[noreturn]] void complain_of(const std::string& path, int number) {
    if (number != ENOENT && number != ENOTDIR) {
        throw failure{exit_status::unreadable,
                      fmt::format("cannot open {}: {}", path, error_text(number))};
    }
    const site here = find_site();
    if (path != here.area)
        throw failure{exit_status::unreadable, fmt::format("{} is not there", path)};
    throw failure{exit_status::unreadable,
                  fmt::format("there is no area: looked for {}, because {}. The first program that "
                              "uses the library makes it; 'tarvoctl doctor' tells more",
                              path, here.reason)};
}

[[noreturn]] void complain_of_length(const std::string& path, off_t length) {
    throw failure{exit_status::damaged,
                  fmt::format("{} is no area: it has {} bytes, and an area has at least {}", path,
                              length, sizeof(shared_area_t))};
}

std::vector<std::string> locks_of(const area_source& source, const site& here) {
    return source.is_live() ? here.locks : std::vector<std::string>{};
}

std::string path_of(const area_source& source, const site& here) {
    return source.is_live() ? here.area : source.file;
}

} // namespace

/// An area that its first process has not finished making says so in its first byte.
void check_built(const shared_area_t& area, const std::string& path) {
    if (has_lost_flag(area)) {
        throw failure{exit_status::damaged,
                      fmt::format("{} holds chunks or devices, yet says that it was not built: the "
                                  "next program that starts the library would build it anew, and "
                                  "they would be lost; see 'tarvoctl repair'",
                                  path)};
    }
    if (area.initialized == 0) {
        throw failure{
            exit_status::unreadable,
            fmt::format("{} is not built yet: no program has started the library on it", path)};
    }
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
    const unique_fd file{::open(path.c_str(), (writes ? O_RDWR : O_RDONLY) | O_CLOEXEC)};
    if (!file)
        complain_of(path, errno);
    struct stat found {};
    if (::fstat(file.get(), &found) != 0)
        complain_of(path, errno);
    if (found.st_size < static_cast<off_t>(sizeof(shared_area_t)))
        complain_of_length(path, found.st_size);
    void* const start = ::mmap(nullptr, sizeof(shared_area_t),
                               PROT_READ | (writes ? PROT_WRITE : 0), MAP_SHARED, file.get(), 0);
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
    const site here = find_site();
    const std::string path = path_of(source, here);
    const mapped_area mapped{path};
    mapped.touch();
    live_records records;
    {
        const cross_process_lock lock{locks_of(source, here), source.timeout};
        check_built(mapped.area(), path);
        records.copy(mapped.area());
    }
    return records.to_picture();
}

std::unique_ptr<shared_area_t> read_area(const area_source& source) {
    const site here = find_site();
    const mapped_area mapped{path_of(source, here)};
    mapped.touch();
    // Its pages are brought in before the lock is taken, too.
    auto copied = std::make_unique<shared_area_t>();
    const cross_process_lock lock{locks_of(source, here), source.timeout};
    std::memcpy(copied.get(), &mapped.area(), sizeof *copied);
    return copied;
}

} // namespace tarvoctl
