#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_source.hpp"
#include "library/arguments.hpp"
#include "library/library_call.hpp"
#include "library/ready_area.hpp"
#include "output/confirm.hpp"
#include "output/json.hpp"
#include "output/text.hpp"
#include "shared/layout.hpp"
#include "tarvo.h"
#include "tarvo/chunk.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct register_options {
    std::string device;
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool force = false; ///< of unregister alone
    bool json = false;
};

std::vector<const chunk_record*> chunks_seen_by(const device_record& device,
                                                const picture& records) {
    std::vector<const chunk_record*> seen;
    for (const auto& chunk : records.chunks) {
        if (chunk.is_mapped_for(device)) {
            seen.push_back(&chunk);
        }
    }
    return seen;
}

void check_room(const device_record& device, const picture& before) {
    if (before.registered(device) == nullptr && before.devices.size() >= device_capacity) {
        throw failure{exit_status::finding,
                      fmt::format("all {} device records are in use; unregister one before {}",
                                  device_capacity, device_text(device))};
    }
    for (const auto& chunk : before.chunks) {
        if (chunk.size > tarvo::largest_chunk.count()) {
            const auto [size, most] = size_texts<2>({chunk.size, tarvo::largest_chunk.count()});
            throw failure{exit_status::finding,
                          fmt::format("'{}' has {}, and chunks of more than {} cannot be "
                                      "mapped for a device; free it before {} is registered",
                                      shown(chunk.name), size, most, device_text(device))};
        }
    }
}

/// What became of it, whatever the call returned.
exit_status report_registered(const register_options& options, const device_record& wanted,
                              bool was_registered, bool accepted) {
    const picture records = read_picture({{}, options.timeout});
    const device_record* const device = records.registered(wanted);
    if (device == nullptr) {
        throw failure{
            exit_status::finding,
            fmt::format("{} was not registered; the reason is above", device_text(wanted))};
    }
    const auto seen = chunks_seen_by(*device, records);
    if (options.json) {
        json document = json_document("register");
        document["device"] = json_device(*device);
        document["was_registered"] = was_registered;
        document["all_mapped"] = accepted && device->online;
        document["chunks"] = json_names(seen);
        print_json(document);
    } else {
        fmt::print("{}: {}, {}, {} of {} mapped for it\n", device_text(*device),
                   was_registered ? "was registered already" : "registered",
                   device->online ? "online" : "offline", seen.size(),
                   counted(records.chunks.size(), "chunk"));
    }
    if (accepted && device->online) {
        return exit_status::good;
    }
    fmt::print(stderr, "tarvoctl: {}; the answers to the requests are above\n",
               accepted ? "the kernel driver does not know the device, so no chunk made later is "
                          "mapped for it"
                        : "some chunk could not be mapped, so the others were unmapped again");
    return exit_status::finding;
}

bool register_uninterrupted(const device_record& device) {
    const change_of_records uninterrupted;
    return tarvo_register_device(device.domain, device.bus, device.devfn) == 0;
}

exit_status register_device(const register_options& options) {
    const device_record device = parse_device(options.device);
    const picture before = ready_or_new_area(options.timeout);
    check_room(device, before);
    const bool was_registered = before.registered(device) != nullptr;
    return in_started_library(options.timeout, [&] {
        return report_registered(options, device, was_registered, register_uninterrupted(device));
    });
}

std::string names_of(const std::vector<const chunk_record*>& chunks) {
    constexpr size_t most_named = 10;
    return first_few(chunks, most_named,
                     [](const chunk_record* each) { return shown_name(each->name); });
}

std::vector<std::string> effects_of(const device_record& device,
                                    const std::vector<const chunk_record*>& seen) {
    if (seen.empty()) {
        return {};
    }
    if (!device.online) {
        return {fmt::format("{} is offline: nothing would be unmapped, and the next device in its "
                            "record would inherit {}: {}",
                            device_text(device), counted(seen.size(), "chunk"), names_of(seen))};
    }
    return {fmt::format("{} would lose {}: {}", device_text(device), counted(seen.size(), "chunk"),
                        names_of(seen))};
}

exit_status call_unregister(const device_record& device) {
    const change_of_records uninterrupted;
    if (tarvo_unregister_device(device.domain, device.bus, device.devfn) == 0) {
        return exit_status::good;
    }
    throw failure{exit_status::finding, fmt::format("{} could not be unregistered; the reason is "
                                                    "above",
                                                    device_text(device))};
}

exit_status unregister_device(const register_options& options) {
    const device_record wanted = parse_device(options.device);
    const picture records = ready_area(options.timeout, remedy::unregister_device);
    const device_record* const device = records.registered(wanted);
    if (device == nullptr) {
        throw failure{exit_status::usage,
                      fmt::format("{} is not registered; 'tarvoctl devices' shows those that are",
                                  device_text(wanted))};
    }
    const auto seen = chunks_seen_by(*device, records);
    const bool done =
        may_change(effects_of(*device, seen), options.force,
                   fmt::format("Unregister {}?", device_text(*device))) &&
        in_library(options.timeout, [&] { return call_unregister(*device); }) == exit_status::good;
    if (options.json) {
        json document = json_document("unregister");
        document["unregistered"] = done;
        document["device"] = json_device(*device);
        document["chunks"] = json_names(seen);
        print_json(document);
    } else if (done) {
        fmt::print("{}: unregistered\n", device_text(*device));
    }
    return done ? exit_status::good : exit_status::finding;
}

void registration_words(command_words& words, register_options& options) {
    words.word("DEVICE", options.device, "such as 0000:03:00.0 or 03:00.0");
    words.json(options.json);
    words.timeout(options.timeout);
}

} // namespace

template <>
action set_up<entry_of("register")>(command_words& words) {
    const auto options = std::make_shared<register_options>();
    registration_words(words, *options);
    return [options] { return register_device(*options); };
}

template <>
action set_up<entry_of("unregister")>(command_words& words) {
    const auto options = std::make_shared<register_options>();
    registration_words(words, *options);
    words.flag("--force", options->force, "do not ask");
    return [options] { return unregister_device(*options); };
}

} // namespace tarvoctl
