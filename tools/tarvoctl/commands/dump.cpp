#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "host/area_source.hpp"
#include "library/library_call.hpp"
#include "library/ready_area.hpp"
#include "output/json.hpp"
#include "tarvo.h"

#include <array>
#include <fmt/format.h>
#include <memory>
#include <string>
#include <vector>

namespace tarvoctl {

namespace {

struct dump_options {
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool json = false;
};

/// All lines of one kind.
std::vector<std::string> lines_of(bool (*next)(char*, size_t)) {
    constexpr size_t line_bytes = 256; // always enough
    std::array<char, line_bytes> line{};
    std::vector<std::string> lines;
    while (next(line.data(), line.size())) {
        lines.emplace_back(line.data());
    }
    return lines;
}

exit_status call_dump(bool as_json) {
    if (!tarvo_dump_begin()) {
        throw failure{exit_status::unreadable, "the listing could not begin; the reason is above"};
    }
    const auto chunks = lines_of(tarvo_dump_next);
    const auto devices = lines_of(tarvo_dump_next_iommu_device);
    tarvo_dump_end();
    if (as_json) {
        json document = json_document("dump");
        document["chunks"] = chunks;
        document["devices"] = devices;
        print_json(document);
    } else {
        fmt::print("{}{}{}{}", fmt::join(chunks, "\n"), chunks.empty() ? "" : "\n",
                   fmt::join(devices, "\n"), devices.empty() ? "" : "\n");
    }
    return exit_status::good;
}

exit_status dump(const dump_options& options) {
    static_cast<void>(ready_area(options.timeout));
    return in_library(options.timeout, [&] { return call_dump(options.json); });
}

} // namespace

template <>
action set_up<entry_of("dump")>(command_words& words) {
    const auto options = std::make_shared<dump_options>();
    words.json(options->json);
    words.timeout(options->timeout);
    return [options] { return dump(*options); };
}

} // namespace tarvoctl
