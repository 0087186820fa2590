#include "host/file_identity.hpp"

#include "common/unique_fd.hpp"
#include "host/maps.hpp"
#include "host/processes.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace tarvoctl {

namespace {

/// The file that is mapped at an address of this process.
std::optional<file_identity> identity_at(const void* address) {
    std::optional<file_identity> found;
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    for_each_file_mapping(read_proc(::getpid(), "maps").text, [&](const maps_line& line) {
        if (line.start <= wanted && wanted < line.end) {
            found = line.file;
        }
    });
    return found;
}

} // namespace

std::optional<file_identity> identity_of(const std::string& path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
        return std::nullopt;
    }
    return file_identity{major(found.st_dev), minor(found.st_dev), found.st_ino};
}

std::optional<file_identity> mapped_identity_of(const std::string& path) {
    // A FIFO would be waited on.
    const unique_fd file{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    if (!file) {
        return identity_of(path);
    }
    const auto page_bytes = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void* const page = ::mmap(nullptr, page_bytes, PROT_NONE, MAP_SHARED, file.get(), 0);
    if (page == MAP_FAILED) {
        return identity_of(path);
    }
    const auto found = identity_at(page);
    ::munmap(page, page_bytes);
    return found ? found : identity_of(path);
}

} // namespace tarvoctl
