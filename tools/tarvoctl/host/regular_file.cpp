#include "host/regular_file.hpp"

#include "common/failure.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tarvoctl {

unique_fd open_regular_file(const std::string& path, int access) {
    unique_fd file{::open(path.c_str(), access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    struct stat found {};
    if (file && ::fstat(file.get(), &found) == 0 && !S_ISREG(found.st_mode)) {
        throw failure{exit_status::unreadable, fmt::format("{} is not a regular file", path)};
    }
    return file;
}

} // namespace tarvoctl
