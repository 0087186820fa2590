#include "driver_files.hpp"

#include "clause.hpp"
#include "common/failure.hpp"
#include "common/shown.hpp"
#include "shared/paths.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace driver_check {

namespace {

/// "EINVAL", "success", "4 of 44 bytes".
std::string shown_answer(const answer& given, std::string_view line) {
    if (given.error != 0) {
        return error_name(given.error);
    }
    if (given.accepted_bytes != line.size()) {
        return fmt::format("{} of {} bytes", given.accepted_bytes, line.size());
    }
    return given.close_error == 0
               ? "success"
               : fmt::format("success, and {} at the close", error_name(given.close_error));
}

} // namespace

bool is_accepted(const answer& given, std::string_view line) {
    return given.error == 0 && given.accepted_bytes == line.size() && given.close_error == 0;
}

std::string answer_text(std::string_view line, const answer& given) {
    constexpr size_t longest_shown_bytes = 120;
    const bool cut = line.size() > longest_shown_bytes;
    const auto text = line.substr(0, std::min(line.find('\n'), longest_shown_bytes));
    return fmt::format("\"{}{}\" was answered by {}", shown(text), cut ? "..." : "",
                       shown_answer(given, line));
}

unique_fd open_for_requests(const char* path) {
    unique_fd opened{::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
    if (!opened) {
        throw breach{fmt::format("{} cannot be opened for writing: {}", path, error_text(errno))};
    }
    return opened;
}

answer send(const char* path, std::string_view bytes) {
    unique_fd driver = open_for_requests(path);
    answer given;
    const ssize_t written = ::write(driver.get(), bytes.data(), bytes.size());
    given.error = written < 0 ? errno : 0;
    given.accepted_bytes = written < 0 ? 0 : static_cast<size_t>(written);
    given.close_error = ::close(driver.release()) == 0 ? 0 : errno;
    return given;
}

void send_unasked(const char* path, std::string_view bytes) noexcept {
    try {
        send(path, bytes);
    } catch (const breach&) {
        return; // a file that cannot be opened is reported by the checks that open it
    }
}

answer send_unacceptable(const std::string& line) {
    const answer given = send(paths::iommu_driver, line);
    if (given.error == 0 && line.starts_with("map")) {
        send_unasked(paths::iommu_driver, "un" + line);
    }
    return given;
}

std::string read_listing() {
    const unique_fd driver{::open(paths::region_driver, O_RDONLY | O_CLOEXEC)};
    if (!driver) {
        throw breach{
            fmt::format("{} cannot be opened: {}", paths::region_driver, error_text(errno))};
    }
    std::string all;
    std::array<char, 4096> part{};
    for (;;) {
        const ssize_t length = ::read(driver.get(), part.data(), part.size());
        if (length < 0) {
            throw breach{
                fmt::format("{} cannot be read: {}", paths::region_driver, error_text(errno))};
        }
        if (length == 0) {
            return all;
        }
        all.append(part.data(), static_cast<size_t>(length));
    }
}

std::string first_line_of(const std::string& listing) {
    return listing.substr(0, listing.find('\n'));
}

} // namespace driver_check
