#include "commands/commands.hpp"
#include "failure.hpp"
#include "host/area_source.hpp"
#include "library/library_call.hpp"
#include "library/ready_area.hpp"
#include "program.hpp"
#include "tarvo.h"

#include <array>
#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct dump_options {
    std::chrono::milliseconds timeout = area_source{}.timeout;
};

/// All lines of one kind.
std::string lines_of(bool (*next)(char*, std::size_t)) {
    constexpr std::size_t line_bytes = 256; // always enough
    std::array<char, line_bytes> line{};
    std::string lines;
    while (next(line.data(), line.size())) {
        lines += line.data();
        lines += '\n';
    }
    return lines;
}

exit_status call_dump() {
    if (!tarvo_dump_begin())
        throw failure{exit_status::unreadable, "the listing could not begin; the reason is above"};
    std::string lines = lines_of(tarvo_dump_next);
    lines += lines_of(tarvo_dump_next_iommu_device);
    tarvo_dump_end();
    fmt::print("{}", lines);
    return exit_status::good;
}

exit_status dump(const dump_options& options) {
    static_cast<void>(ready_area(options.timeout));
    return in_library(options.timeout, call_dump);
}

} // namespace

void add_dump(program& to) {
    const auto options = std::make_shared<dump_options>();
    command_words command =
        to.add("dump", "the library's own listing, byte for byte", looking, options, dump);
    command.timeout(options->timeout);
}

} // namespace tarvoctl
