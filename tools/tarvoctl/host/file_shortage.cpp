#include "host/file_shortage.hpp"

#include "area/finding.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "common/unique_fd.hpp"
#include "host/area_source.hpp"
#include "host/mount.hpp"
#include "shared/layout.hpp"
#include "shared/paths.hpp"
#include "shared/simulated_region.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr const char* ends_programs = "a program that touches what is missing ends by SIGBUS";
constexpr const char* stops_starts = "every program fails to start the library ('failed to map "
                                     "shared memory'); before Linux 5.14 it "
                                     "ends by SIGBUS";
constexpr const char* ends_makers =
    "a program that makes a chunk beyond that ends by an assertion, after 'tarvo_alloc: mmap "
    "failed!'; before Linux 5.14 it ends by SIGBUS";

uint64_t area_bytes() {
    const auto page_bytes = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    return (sizeof(shared_area_t) + page_bytes - 1) / page_bytes * page_bytes;
}

/// Nothing where there is no such file.
std::optional<struct stat> state_of(const std::string& path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return std::nullopt;
    }
    return found;
}

/// A file that was cut short may miss any number of bytes.
std::string exact_size(const struct stat& file) {
    return counted(static_cast<uint64_t>(file.st_size), "byte");
}

/// What a file of that size has yet to take from its file system.
uint64_t missing_bytes(const std::string& path, uint64_t size) {
    constexpr uint64_t block_bytes = 512; // of st_blocks, whatever the file system's are
    const auto file = state_of(path);
    const uint64_t taken = file ? static_cast<uint64_t>(file->st_blocks) * block_bytes : 0;
    return size - std::min(size, taken);
}

/// Room on a file system, in bytes.
struct room {
    uint64_t total;
    uint64_t free; ///< for this user
};

/// Nothing where that is unknown, or without limit.
std::optional<room> room_for(const std::string& path) {
    const std::string there =
        state_of(path) ? path : std::filesystem::path{path}.parent_path().string();
    struct statvfs found {};
    if (::statvfs(there.c_str(), &found) != 0 || found.f_blocks == 0) {
        return std::nullopt;
    }
    const uint64_t free_blocks = ::geteuid() == 0 ? found.f_bfree : found.f_bavail;
    return room{uint64_t{found.f_blocks} * found.f_frsize, free_blocks * found.f_frsize};
}

std::string room_fix(const mount& where, const room& has, uint64_t lacking) {
    if (where.type != "tmpfs") {
        return fmt::format("free {} on {}", size_text(lacking), where.point);
    }
    constexpr unsigned mebibyte_shift = 20;
    const uint64_t mebibytes =
        std::max(((has.total + lacking - 1) >> mebibyte_shift) + 1, area_tmpfs_mebibytes);
    return fmt::format("mount -o remount,size={}m {}", mebibytes, where.point);
}

/// What files on one file system still take of it, in bytes.
struct demand {
    uint64_t needed;       ///< the file that is looked at
    uint64_t reserved = 0; ///< another one, before it
    uint64_t later = 0;    ///< another one, after it: what helps makes room for that as well
};

std::optional<file_shortage> without_room(const std::string& path, const demand& of,
                                          const char* meaning) {
    const auto has = room_for(path);
    const auto [needed, reserved, later] = of;
    if (!has || needed == 0 || needed + reserved <= has->free) {
        return std::nullopt;
    }
    const mount where = mount_of(path);
    return file_shortage{
        path,
        fmt::format("needs {} more{}, and the file system on {} has {} left", size_text(needed),
                    reserved == 0
                        ? ""
                        : fmt::format(", besides {} for the bookkeeping", size_text(reserved)),
                    where.point, size_text(has->free)),
        meaning, room_fix(where, *has, needed + reserved + later - has->free)};
}

/// What is to be taken of the file system when all these bytes are written.
uint64_t hole_bytes(const std::string& path, uint64_t first, uint64_t end) {
    const unique_fd file{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    if (!file) {
        return end - first;
    }
    uint64_t holes = 0;
    const auto last = static_cast<off_t>(end);
    for (auto at = static_cast<off_t>(first); at < last;) {
        const off_t data = ::lseek(file.get(), at, SEEK_DATA);
        const off_t hole_end = data < 0 ? last : std::min(data, last);
        holes += static_cast<uint64_t>(hole_end - at);
        const off_t hole = ::lseek(file.get(), hole_end, SEEK_HOLE);
        at = hole_end == last || hole < 0 ? last : hole;
    }
    return holes;
}

uint64_t missing_bytes_of_area(const site& here) {
    return missing_bytes(here.area, area_bytes());
}

/// In simulation.
uint64_t missing_bytes_of_memory(const site& here) {
    return missing_bytes(here.memory, simulated_region.end_pa - simulated_region.first_pa);
}

/// By the flag in its first byte.
bool is_built(const std::string& area) {
    const unique_fd file{::open(area.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    unsigned char initialized = 0;
    return file && ::pread(file.get(), &initialized, 1, 0) == 1 && initialized != 0;
}

bool is_missing(const std::string& path) {
    return ::access(path.c_str(), F_OK) != 0 && errno == ENOENT;
}

bool is_whole_and_readable(const std::string& area) {
    const auto file = state_of(area);
    return file && file->st_size >= static_cast<off_t>(sizeof(shared_area_t)) &&
           ::access(area.c_str(), R_OK) == 0;
}

} // namespace

std::string replacement_text(const std::string& area) {
    const bool may_have_devices = ::access(paths::iommu_driver, F_OK) == 0;
    const std::string remove = removal_text(area);
    return may_have_devices ? after_devices(remove) : remove;
}

std::optional<file_shortage> cut_short_area(const site& here) {
    const auto file = state_of(here.area);
    constexpr auto least_bytes = static_cast<off_t>(sizeof(shared_area_t));
    if (!file || file->st_size == 0 || file->st_size >= least_bytes) {
        return std::nullopt;
    }
    return file_shortage{here.area,
                         fmt::format("is cut short: {}, an area takes {}", exact_size(*file),
                                     counted(sizeof(shared_area_t), "byte")),
                         "the next program that starts fills it up with zeros",
                         replacement_text(here.area)};
}

std::optional<file_shortage> cut_short_memory(const site& here) {
    const auto area = state_of(here.area);
    const auto file = here.simulation ? state_of(here.memory) : std::nullopt;
    const auto whole = static_cast<off_t>(simulated_region.end_pa);
    const bool is_new = !area || area->st_size == 0;
    if (!file || file->st_size >= whole || (file->st_size == 0 && is_new)) {
        return std::nullopt;
    }
    return file_shortage{
        here.memory,
        fmt::format("is cut short: {}, the region takes {}", exact_size(*file),
                    counted(simulated_region.end_pa, "byte")),
        ends_programs,
        fmt::format("truncate -s {} {}; what chunks held there is lost", whole, here.memory)};
}

std::optional<file_shortage> lost_memory(const site& here) {
    if (!here.simulation || !is_missing(here.memory) || !is_whole_and_readable(here.area)) {
        return std::nullopt;
    }
    const area_copy area = read_area_file(here.area);
    const size_t chunks = picture_of(*area).chunks.size();
    if (chunks == 0) {
        return std::nullopt;
    }
    return file_shortage{
        here.memory,
        fmt::format("is missing, although the bookkeeping lists {}", counted(chunks, "chunk")),
        "what was in the chunks is lost, and the next program that starts makes a new file",
        after_devices_if_mapped(removal_text(here.area), *area)};
}

std::optional<file_shortage> area_without_room(const site& here) {
    return without_room(here.area,
                        {.needed = missing_bytes_of_area(here),
                         .later = here.simulation ? missing_bytes_of_memory(here) : 0},
                        is_built(here.area) ? ends_programs : stops_starts);
}

std::optional<file_shortage> memory_without_room(const site& here) {
    if (!here.simulation) {
        return std::nullopt;
    }
    return without_room(
        here.memory,
        {.needed = missing_bytes_of_memory(here), .reserved = missing_bytes_of_area(here)},
        ends_makers);
}

std::optional<file_shortage> chunk_without_room(const site& here, uint64_t pa, uint32_t size) {
    if (!here.simulation) {
        return std::nullopt;
    }
    return without_room(
        here.memory,
        {.needed = hole_bytes(here.memory, pa, pa + size), .reserved = missing_bytes_of_area(here)},
        ends_makers);
}

std::optional<file_shortage> shortage_in(const site& here) {
    for (const auto look :
         {cut_short_area, cut_short_memory, area_without_room, memory_without_room}) {
        if (auto found = look(here)) {
            return found;
        }
    }
    return std::nullopt;
}

void refuse_shortage(const std::optional<file_shortage>& lacking, exit_status status) {
    if (lacking) {
        throw failure{status,
                      fmt::format("{} {}; {}", lacking->path, lacking->full_text(), lacking->fix)};
    }
}

} // namespace tarvoctl
