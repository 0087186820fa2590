#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_source.hpp"
#include "library/arguments.hpp"
#include "library/chunk_window.hpp"
#include "library/library_call.hpp"
#include "library/ready_area.hpp"
#include "output/json.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

struct write_options {
    std::string name;
    std::string byte; ///< of fill alone
    std::string offset;
    std::string size; ///< of fill alone
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool json = false;
};

chunk_window window_of(const write_options& options) {
    check_chunk_name(options.name);
    const picture records = ready_area(options.timeout);
    return parse_window(*chunks_called(options.name, records).front(), options.offset,
                        options.size);
}

/// How many bytes standard input still has; nothing where that shows only as they come.
std::optional<uint64_t> input_bytes() {
    struct stat found {};
    const off_t position = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
    if (::fstat(STDIN_FILENO, &found) != 0 || !S_ISREG(found.st_mode) || position < 0) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(std::max<off_t>(0, found.st_size - position));
}

size_t read_some(std::byte* to, size_t room) {
    ssize_t count = 0;
    do {
        count = ::read(STDIN_FILENO, to, room);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        throw failure{exit_status::unreadable,
                      fmt::format("cannot read standard input: {}", error_text(errno))};
    }
    return static_cast<size_t>(count);
}

exit_status report_written(const char* command, const chunk_window& window, size_t bytes,
                           bool as_json) {
    if (as_json) {
        json document = json_document(command);
        add_text(document, "name", window.name);
        document["offset"] = window.offset;
        document["written"] = bytes;
        print_json(document);
    } else {
        fmt::print("{}: wrote {} at offset {:#x}\n", shown(window.name), size_text(bytes),
                   window.offset);
    }
    return exit_status::good;
}

/// Goes through a buffer: not every system reads from a file straight into device memory.
exit_status copy_input(const chunk_window& window, bool as_json) {
    constexpr size_t buffer_bytes = 65536;
    const std::span<std::byte> target = map_window(window, true);
    std::vector<std::byte> buffer(buffer_bytes);
    size_t written = 0;
    while (const size_t count = read_some(buffer.data(), buffer.size())) {
        const size_t fitting = std::min(count, target.size() - written);
        std::copy_n(buffer.begin(), fitting, target.begin() + static_cast<std::ptrdiff_t>(written));
        written += fitting;
        if (fitting < count) {
            throw failure{exit_status::usage,
                          fmt::format("stopped at the end of '{}': wrote {} at offset {:#x}, and "
                                      "standard input has more",
                                      shown(window.name), size_text(written), window.offset)};
        }
    }
    return report_written("write", window, written, as_json);
}

exit_status write_chunk(const write_options& options) {
    const chunk_window window = window_of(options);
    const auto bytes = input_bytes();
    if (bytes && *bytes > window.size) {
        const auto [input, room] = size_texts<2>({*bytes, window.size});
        throw failure{exit_status::usage,
                      fmt::format("standard input has {}, and '{}' has {} from offset {:#x} on; "
                                  "nothing was written",
                                  input, shown(window.name), room, window.offset)};
    }
    return in_library(options.timeout, [&] { return copy_input(window, options.json); });
}

exit_status fill_chunk(const write_options& options) {
    constexpr uint64_t most = 0xff;
    const auto value = static_cast<std::byte>(parse_number(options.byte, "BYTE", most));
    const chunk_window window = window_of(options);
    return in_library(options.timeout, [&] {
        const std::span<std::byte> target = map_window(window, true);
        std::fill(target.begin(), target.end(), value);
        return report_written("fill", window, target.size(), options.json);
    });
}

void writer_words(command_words& words, write_options& options) {
    words.word("NAME", options.name, "the lowest chunk of that name");
    words.option("--offset", "SIZE", options.offset, "first byte within the chunk");
    words.json(options.json);
    words.timeout(options.timeout);
}

} // namespace

template <>
action set_up<entry_of("write")>(command_words& words) {
    const auto options = std::make_shared<write_options>();
    writer_words(words, *options);
    return [options] { return write_chunk(*options); };
}

template <>
action set_up<entry_of("fill")>(command_words& words) {
    const auto options = std::make_shared<write_options>();
    writer_words(words, *options);
    words.word("BYTE", options->byte, "0 to 255, or 0x00 to 0xff");
    words.option("--size", "SIZE", options->size, "how many bytes; default: to the chunk's end");
    return [options] { return fill_chunk(*options); };
}

} // namespace tarvoctl
