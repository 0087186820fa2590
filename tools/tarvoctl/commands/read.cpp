#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/failure.hpp"
#include "host/area_source.hpp"
#include "library/arguments.hpp"
#include "library/chunk_window.hpp"
#include "library/library_call.hpp"
#include "library/ready_area.hpp"
#include "output/hex_dump.hpp"

#include <cerrno>
#include <memory>
#include <system_error>

namespace tarvoctl {

namespace {

struct read_options {
    std::string name;
    std::string offset;
    std::string size;
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool raw = false;
};

exit_status print_window(const chunk_window& window, bool raw) {
    const std::span<const std::byte> bytes = map_window(window, false);
    if (!raw) {
        print_hex_dump(bytes, window.offset);
    } else if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
        throw std::system_error{errno, std::generic_category(), "fwrite"};
    }
    return exit_status::good;
}

exit_status read_chunk(const read_options& options) {
    check_chunk_name(options.name);
    const picture records = ready_area(options.timeout);
    const chunk_window window =
        parse_window(*chunks_called(options.name, records).front(), options.offset, options.size);
    return in_library(options.timeout, [&] { return print_window(window, options.raw); });
}

} // namespace

template <>
action set_up<entry_of("read")>(command_words& words) {
    const auto options = std::make_shared<read_options>();
    words.word("NAME", options->name, "the lowest chunk of that name");
    words.option("--offset", "SIZE", options->offset, "first byte within the chunk");
    words.option("--size", "SIZE", options->size, "how many bytes; default: to the chunk's end");
    words.flag("--raw", options->raw, "the bytes themselves, for files and pipes");
    words.timeout(options->timeout);
    return [options] { return read_chunk(*options); };
}

} // namespace tarvoctl
