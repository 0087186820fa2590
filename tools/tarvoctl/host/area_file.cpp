#include "host/area_file.hpp"

#include "common/unique_fd.hpp"
#include "failure.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr std::size_t page_bytes = 4096;

[[noreturn]] void complain(const std::string& path, int number) {
    const char* const advice =
        number == EEXIST ? "; name another file, or --force replaces it" : "";
    throw failure{number == EEXIST ? exit_status::usage : exit_status::unreadable,
                  fmt::format("cannot write {}: {}{}", path, error_text(number), advice)};
}

bool is_zero(const char* first, std::size_t bytes) {
    static constexpr std::array<char, page_bytes> zeros{};
    return std::memcmp(first, zeros.data(), bytes) == 0;
}

void write_at(const unique_fd& file, const char* first, std::size_t bytes, std::size_t offset,
              const std::string& path) {
    while (bytes > 0) {
        const ssize_t written = ::pwrite(file.get(), first, bytes, static_cast<off_t>(offset));
        if (written < 0)
            complain(path, errno);
        first += written;
        bytes -= static_cast<std::size_t>(written);
        offset += static_cast<std::size_t>(written);
    }
}

} // namespace

void write_area(const std::string& path, const shared_area_t& area, existing_file existing) {
    constexpr mode_t owner_only = 0600;
    const int how = existing == existing_file::refused ? O_EXCL : O_TRUNC;
    const unique_fd file{::open(path.c_str(), O_WRONLY | O_CREAT | how | O_CLOEXEC, owner_only)};
    constexpr std::size_t whole_pages = (sizeof area + page_bytes - 1) / page_bytes * page_bytes;
    if (!file || ::ftruncate(file.get(), whole_pages) != 0)
        complain(path, errno);
    const auto* const bytes = reinterpret_cast<const char*>(&area);
    for (std::size_t offset = 0; offset < sizeof area; offset += page_bytes) {
        const std::size_t count = std::min(page_bytes, sizeof area - offset);
        if (!is_zero(bytes + offset, count))
            write_at(file, bytes + offset, count, offset, path);
    }
}

} // namespace tarvoctl
