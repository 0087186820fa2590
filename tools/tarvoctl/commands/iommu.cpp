#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_source.hpp"
#include "library/arguments.hpp"
#include "library/ready_area.hpp"
#include "output/json.hpp"
#include "tarvo.h"
#include "tarvo/chunk.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct iommu_options {
    std::string device;
    std::string prot = "rw";
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool json = false;
};

/// A request for the whole region names its end, so it has less than the largest chunk. Its end
/// needs no look: a region of that size ends below 4 GiB as devices see it, whether it lies there
/// or is seen from 0x20000000 on.
void check_region(const dma_window& region) {
    const uint64_t bytes = region.end_pa - region.first_pa;
    if (bytes >= tarvo::largest_chunk.count()) {
        const auto [region_size, most] = size_texts<2>({bytes, tarvo::largest_chunk.count()});
        throw failure{exit_status::finding,
                      fmt::format("the region has {}; only one of less than {} can be mapped "
                                  "whole. 'tarvoctl register' maps each chunk",
                                  region_size, most)};
    }
}

/// `prot`: what the device may do now; empty: nothing any more.
exit_status report_request(const char* command, int result, const device_record& device,
                           const iommu_options& options, const std::string& prot) {
    if (result != 0) {
        throw failure{
            exit_status::finding,
            fmt::format("the request for {} failed; the reason is above", device_text(device))};
    }
    if (options.json) {
        json document = json_document(command);
        document["device"] = device_text(device);
        document["prot"] = prot.empty() ? json(nullptr) : json(prot);
        print_json(document);
    } else {
        fmt::print("{}: whole region {}\n", device_text(device),
                   prot.empty() ? "unmapped" : "mapped, " + prot);
    }
    return exit_status::good;
}

uint32_t prot_of(const std::string& letters) {
    constexpr uint32_t read = 1;
    constexpr uint32_t write = 2;
    return (letters.find('r') != std::string::npos ? read : 0) |
           (letters.find('w') != std::string::npos ? write : 0);
}

exit_status iommu_map(const iommu_options& options) {
    const device_record device = parse_device(options.device);
    check_region(ready_or_new_area(options.timeout).region);
    return in_started_library(options.timeout, [&] {
        const int result =
            tarvo_iommu_map(device.domain, device.bus, device.devfn, prot_of(options.prot));
        return report_request("iommu-map", result, device, options, options.prot);
    });
}

exit_status iommu_unmap(const iommu_options& options) {
    const device_record device = parse_device(options.device);
    const picture records = ready_or_new_area(options.timeout);
    check_region(records.region);
    if (records.registered(device) != nullptr) {
        throw failure{
            exit_status::usage,
            fmt::format("{0} is registered, and the library would unregister it and leave "
                        "the whole region mapped; do that first: tarvoctl unregister {0}",
                        device_text(device))};
    }
    return in_started_library(options.timeout, [&] {
        const int result = tarvo_iommu_unmap(device.domain, device.bus, device.devfn);
        return report_request("iommu-unmap", result, device, options, "");
    });
}

void request_words(command_words& words, iommu_options& options) {
    words.word("DEVICE", options.device, "such as 0000:03:00.0 or 03:00.0");
    words.json(options.json);
    words.timeout(options.timeout);
}

} // namespace

template <>
action set_up<entry_of("iommu-map")>(command_words& words) {
    const auto options = std::make_shared<iommu_options>();
    request_words(words, *options);
    words.choice("--prot", "PROT", {"r", "w", "rw"}, options->prot,
                 "what the device may do: r, w, or rw");
    return [options] { return iommu_map(*options); };
}

template <>
action set_up<entry_of("iommu-unmap")>(command_words& words) {
    const auto options = std::make_shared<iommu_options>();
    request_words(words, *options);
    return [options] { return iommu_unmap(*options); };
}

} // namespace tarvoctl
