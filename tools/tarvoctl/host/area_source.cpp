#include "host/area_source.hpp"

#include "area/list_walk.hpp"
#include "area/raw_records.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/cross_process_lock.hpp"
#include "host/file_shortage.hpp"
#include "host/gzip.hpp"
#include "host/regular_file.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <new>
#include <span>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace tarvoctl {

namespace {

[[noreturn]] void fail_missing(const std::string& path) {
    const site here = find_site();
    if (path != here.area) {
        throw failure{exit_status::unreadable, fmt::format("{} does not exist", path)};
    }
    require_region(here);
    throw failure{exit_status::unreadable,
                  fmt::format("there is no area: looked for {}, because {}. The first program that "
                              "uses the library makes it; see 'tarvoctl doctor'",
                              path, here.reason)};
}

[[noreturn]] void fail_to_open(const std::string& path, int number) {
    if (number == ENOENT || number == ENOTDIR) {
        fail_missing(path);
    }
    const bool forbidden = number == EACCES || number == EPERM;
    throw failure{exit_status::unreadable,
                  fmt::format("cannot open {}: {}{}", path, error_text(number),
                              forbidden ? "; run it as root" : "")};
}

[[noreturn]] void fail_unbuilt(const std::string& path) {
    throw failure{
        exit_status::unreadable,
        fmt::format("{} is not built yet: no program has started the library on it", path)};
}

[[noreturn]] void fail_length(const std::string& path, off_t length) {
    const bool is_live = path == find_site().area;
    // The first process makes the file, and then gives it its length.
    if (length == 0 && is_live) {
        fail_unbuilt(path);
    }
    throw failure{
        exit_status::damaged,
        fmt::format(
            "{} is {}, an area takes {}: {}", path, counted(static_cast<uint64_t>(length), "byte"),
            counted(sizeof(shared_area_t), "byte"),
            is_live ? "it was cut short; " + replacement_text(path)
                    : "it is not a copy of an area, or an incomplete one; 'tarvoctl snapshot' "
                      "makes one")};
}

/// An area's file, read by parts into a copy. Not by a mapping: that fills up the holes of a file
/// in a tmpfs, and ends the process where the file has become shorter or no room is left for it.
class area_reader {
  public:
    explicit area_reader(const std::string& path)
        : _path{path}, _file{open_regular_file(path, O_RDONLY)} {
        if (!_file) {
            fail_to_open(_path, errno);
        }
    }

    void read_all() {
        read(0, sizeof(shared_area_t));
        read(offsetof(shared_area_t, initialized), sizeof _copy->initialized);
    }

    /// What a picture is made of: the flag, the ends of the lists, the devices, and those chunks
    /// that are on their list.
    void read_lists() {
        constexpr size_t ends = offsetof(shared_area_t, chunks._head);
        read(offsetof(shared_area_t, initialized), sizeof _copy->initialized);
        read(ends, sizeof(shared_area_t) - ends);
        read_chunk(_copy->chunks._head);
        read_chunk(_copy->chunks._tail); // which a damaged list does not lead to
        walk_list(chunk_links(*_copy),
                  [this](int index) { read_chunk(_copy->chunks._arr[index].next); });
        if (_copy->initialized == 0) { // those that are on no list show whether it ever was
            read_all();
        }
    }

    using reading = void (area_reader::*)();

    /// Reads without the lock, until two readings in a row are alike: then nobody has changed
    /// anything in between. Where that does not come about, the copy is not consistent.
    void repeat_until_alike(reading look) {
        constexpr int most_readings = 20;
        // Long enough for a change to go on that was interrupted during the reading before.
        constexpr std::chrono::milliseconds between_readings{5};
        for (int readings = 1; readings < most_readings; ++readings) {
            std::this_thread::sleep_for(between_readings);
            const area_copy before = std::exchange(_copy, area_copy{});
            (this->*look)();
            if (same_bytes(*_copy, *before)) {
                return;
            }
        }
        _copy.consistent = false;
    }

    const shared_area_t& area() const { return *_copy; }
    bool is_consistent() const { return _copy.consistent; }
    area_copy take() { return std::move(_copy); }

  private:
    void read_chunk(int32_t index) {
        if (index >= 0 && index < chunk_capacity) {
            constexpr size_t bytes = sizeof(dma_chunk_t);
            read(offsetof(shared_area_t, chunks) + static_cast<size_t>(index) * bytes, bytes);
        }
    }

    void read(size_t first, size_t bytes) {
        auto* const to = reinterpret_cast<char*>(&*_copy);
        for (size_t offset = first; offset < first + bytes;) {
            const ssize_t count = ::pread(_file.get(), to + offset, first + bytes - offset,
                                          static_cast<off_t>(offset));
            if (count < 0) {
                fail_to_open(_path, errno);
            }
            if (count == 0) {
                require_whole(_file, _path);
            }
            offset += static_cast<size_t>(count);
        }
    }

    std::string _path;
    unique_fd _file;
    area_copy _copy;
};

cross_process_lock lock_of(const site& here, const area_source& source) {
    return {here.locks_to_take(), source.timeout,
            source.lock == lock_use::offered
                ? fmt::format("{}, --no-lock reads without it", wait_longer)
                : wait_longer};
}

/// Reads the live area as `read` does: once before the lock is taken, so that nobody waits for a
/// disk or for memory while it is held, and then for good.
area_reader read_live(const area_source& source, area_reader::reading read) {
    const site here = find_site();
    area_reader reader{here.area};
    (reader.*read)();
    if (source.lock == lock_use::none) {
        reader.repeat_until_alike(read);
    } else {
        const cross_process_lock lock = lock_of(here, source);
        (reader.*read)();
    }
    return reader;
}

/// A copy that is compressed, or comes through a pipe. To the end of it where it is no longer than
/// it should be, as only there shows whether a compressed one is whole.
area_copy read_stream(unique_fd file, const std::string& name) {
    gzip_reader reader{std::move(file), name};
    area_copy copied;
    const std::span bytes{reinterpret_cast<char*>(&*copied), sizeof(shared_area_t)};
    const size_t count = reader.read(bytes);
    if (count < bytes.size()) {
        fail_length(name, static_cast<off_t>(count));
    }
    std::array<char, 4096> rest_of_page{};
    static_cast<void>(reader.read(rest_of_page));
    return copied;
}

bool is_pipe(const std::string& path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISFIFO(found.st_mode);
}

/// Waits for those who write to the pipe now, but not for one who may come.
unique_fd open_pipe(const std::string& path) {
    unique_fd pipe{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    if (!pipe || ::fcntl(pipe.get(), F_SETFL, 0) != 0) {
        fail_to_open(path, errno);
    }
    return pipe;
}

area_copy read_copy(const std::string& path) {
    if (path == standard_stream) {
        return read_stream(unique_fd{::dup(STDIN_FILENO)}, "standard input");
    }
    if (is_pipe(path)) {
        return read_stream(open_pipe(path), path);
    }
    unique_fd file = open_regular_file(path, O_RDONLY);
    if (!file) {
        fail_to_open(path, errno);
    }
    return is_gzipped(file) ? read_stream(std::move(file), path) : read_area_file(path);
}

void remark_on(bool consistent) {
    if (!consistent) {
        fmt::print(stderr, "tarvoctl: the area changed during every reading without its lock: what "
                           "is printed may be half changed\n");
    }
}

} // namespace

area_copy::area_copy() {
    void* const start = ::mmap(nullptr, sizeof(shared_area_t), PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start == MAP_FAILED) {
        throw std::bad_alloc{};
    }
    _area.reset(static_cast<shared_area_t*>(start));
    // To be given 17,000 small pages, one by one, takes longer than to copy the area into them.
    ::madvise(start, sizeof(shared_area_t), MADV_HUGEPAGE);
}

void area_copy::release::operator()(shared_area_t* area) const {
    ::munmap(area, sizeof(shared_area_t));
}

void require_region(const site& here) {
    if (here.simulation || here.driver) {
        return;
    }
    throw failure{
        exit_status::unreadable,
        fmt::format("there is no region: /proc/tarvo is missing or does not describe one, and {}. "
                    "Load the kernel driver, or run with SIMULATION_VMID set",
                    here.reason)};
}

void require_whole(const unique_fd& file, const std::string& path) {
    struct stat found {};
    if (::fstat(file.get(), &found) != 0) {
        fail_to_open(path, errno);
    }
    if (found.st_size < static_cast<off_t>(sizeof(shared_area_t))) {
        fail_length(path, found.st_size);
    }
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
    if (area.initialized == 0) {
        fail_unbuilt(path);
    }
}

check_options options_here(const site& here) {
    check_options made;
    made.page_bytes = static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    made.cma = here.is_cma();
    if (const auto region = here.region()) {
        made.region = expected_region{region->first_pa, region->end_pa - region->first_pa};
    }
    return made;
}

check_options options_for(const area_source& source, bool cma) {
    check_options made = options_here(find_site());
    if (!source.is_live()) {
        made.cma = false;
        made.region.reset();
    }
    made.cma = made.cma || cma;
    return made;
}

void require_changeable(const std::string& path) {
    if (path == standard_stream) {
        throw failure{exit_status::usage,
                      "standard input cannot be changed; name a file to repair"};
    }
    const unique_fd file = open_regular_file(path, O_RDONLY);
    if (file && is_gzipped(file)) {
        throw failure{exit_status::usage,
                      fmt::format("{0} is compressed, and cannot be changed as it is; 'zcat <{0}' "
                                  "gives the bytes for a file that can",
                                  path)};
    }
}

mapped_area::mapped_area(const std::string& path) {
    const unique_fd file = open_regular_file(path, O_RDWR);
    if (!file) {
        fail_to_open(path, errno);
    }
    require_whole(file, path);
    constexpr size_t bytes = sizeof(shared_area_t);
    // Where a hole has no room on the disk, the first store into it would end the process.
    if (::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, bytes) != 0 && errno == ENOSPC) {
        const site here = find_site();
        if (path == here.area) {
            refuse_shortage(area_without_room(here), exit_status::unreadable);
        }
        fail_to_open(path, ENOSPC);
    }
    void* const start = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (start == MAP_FAILED) {
        fail_to_open(path, errno);
    }
    _area = static_cast<shared_area_t*>(start);
}

mapped_area::~mapped_area() {
    ::munmap(_area, sizeof(shared_area_t));
}

void mapped_area::touch() const {
    // Only an advice: without it the copy takes longer, nothing else.
    ::madvise(_area, sizeof(shared_area_t), MADV_POPULATE_READ);
}

picture look_at_records(const area_source& source) {
    if (source.is_live()) {
        const area_reader reader = read_live(source, &area_reader::read_lists);
        check_built(reader.area(), find_site().area);
        picture made = picture_of(reader.area());
        made.consistent = reader.is_consistent();
        return made;
    }
    const area_copy area = read_copy(source.file);
    check_built(*area, source.file);
    return picture_of(*area);
}

void remark_on_region(const dma_window& in_area) {
    const site here = find_site();
    const auto expected = here.region();
    const bool is_known = expected && in_area.first_pa < in_area.end_pa;
    if (is_known &&
        (in_area.first_pa != expected->first_pa || in_area.end_pa != expected->end_pa)) {
        fmt::print(stderr,
                   "tarvoctl: {} is left over from another region, {}; this machine's is {}; "
                   "'tarvoctl doctor' shows what helps\n",
                   here.area, pa_range(in_area.first_pa, in_area.end_pa),
                   pa_range(expected->first_pa, expected->end_pa));
    }
}

picture read_picture(const area_source& source) {
    picture records = look_at_records(source);
    if (source.is_live()) {
        remark_on_region(records.region);
    }
    remark_on(records.consistent);
    return records;
}

area_copy read_area(const area_source& source) {
    if (!source.is_live()) {
        return read_copy(source.file);
    }
    area_copy copied = read_live(source, &area_reader::read_all).take();
    remark_on(copied.consistent);
    return copied;
}

area_copy read_area_file(const std::string& path) {
    area_reader reader{path};
    reader.read_all();
    return reader.take();
}

} // namespace tarvoctl
