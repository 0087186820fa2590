#include "library/arguments.hpp"

#include "area/gaps.hpp"
#include "common/failure.hpp"
#include "common/numbers.hpp"
#include "common/quantities.hpp"
#include "output/text.hpp"
#include "tarvo/chunk.hpp"
#include "tarvo/device.hpp"

#include <charconv>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace tarvoctl {

namespace {

[[noreturn]] void refuse(const std::string& text) {
    throw failure{exit_status::usage, text};
}

/// A size's unit as a factor; 0 for anything else.
uint64_t factor_of(std::string_view unit) {
    constexpr uint64_t step = 1024;
    if (unit.empty()) {
        return 1;
    }
    if (unit == "K" || unit == "k" || unit == "KiB") {
        return step;
    }
    if (unit == "M" || unit == "m" || unit == "MiB") {
        return step * step;
    }
    return unit == "G" || unit == "g" || unit == "GiB" ? step * step * step : 0;
}

} // namespace

void check_chunk_name(const std::string& name) {
    if (name.size() > tarvo::longest_name) {
        refuse(fmt::format("the name '{}' has {} bytes; a chunk's name has 1 to {}", shown(name),
                           name.size(), tarvo::longest_name));
    }
    if (tarvo::is_reserved(name)) {
        refuse(fmt::format("'{}' is reserved: it marks an end of the region; choose another name",
                           name));
    }
}

void check_new_name(const std::string& name) {
    check_chunk_name(name);
    if (name.ends_with(' ')) {
        refuse(fmt::format("the name '{}' ends in a blank, which a listing cannot show; leave it "
                           "out",
                           shown(name)));
    }
}

void check_creator(const std::string& creator) {
    if (creator.size() > tarvo::longest_creator) {
        refuse(fmt::format("--creator '{}' has {} bytes; a creator has at most {}; shorten it",
                           shown(creator), creator.size(), tarvo::longest_creator));
    }
}

uint64_t parse_size(const std::string& text, const std::string& what) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* const first = text.data() + (hexadecimal ? 2 : 0);
    const char* const last = text.data() + text.size();
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(first, last, number, hexadecimal ? 16 : 10);
    const uint64_t factor = factor_of({end, static_cast<size_t>(last - end)});
    uint64_t bytes = 0;
    if (error != std::errc{} || factor == 0 || __builtin_mul_overflow(number, factor, &bytes)) {
        throw failure{
            exit_status::usage,
            fmt::format("invalid {} '{}'; write it as 4096, 64K, 2M, 1G or 0x1000", what, text)};
    }
    return bytes;
}

uint32_t parse_chunk_size(const std::string& text, const std::string& what) {
    const auto page_bytes = static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    constexpr uint64_t most = tarvo::largest_chunk.count();
    const uint64_t bytes = parse_size(text, what);
    if (bytes == 0 || bytes > most) {
        refuse(fmt::format("{} '{}' is {}; a chunk has 1 to {}", what, text, counted(bytes, "byte"),
                           counted(most, "byte")));
    }
    return rounded_size(bytes, page_bytes);
}

uint64_t parse_number(const std::string& text, const std::string& what, uint64_t most) {
    constexpr int decimal = 10;
    constexpr int sixteen = 16;
    const bool prefixed = text.starts_with("0x") || text.starts_with("0X");
    const auto number = number_in<uint64_t>(std::string_view{text}.substr(prefixed ? 2 : 0),
                                            prefixed ? sixteen : decimal);
    if (!number) {
        refuse(fmt::format("invalid {} '{}'; write it as 128 or 0x80", what, text));
    }
    if (*number > most) {
        refuse(fmt::format("{} {} is more than {:#x}", what, text, most));
    }
    return *number;
}

device_record parse_device(const std::string& text) {
    const auto device = tarvo::device::parse(text);
    if (!device) {
        refuse(fmt::format("invalid PCI device '{}'; write it as 0000:03:00.0 or 03:00.0 (lspci -D "
                           "lists them)",
                           text));
    }
    return {-1, device->domain(), device->bus(), device->devfn(), false};
}

} // namespace tarvoctl
