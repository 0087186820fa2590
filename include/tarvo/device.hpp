/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo/chunk.hpp"
#include "tarvo/result.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string_view>

/// @file
/// The address of a PCI device. Nothing here calls the library.

namespace tarvo {

/// A PCI device by its address.
class device {
  public:
    device() noexcept = default;

    /// @return the device; bad_device when `slot` is above 31 or `function` above 7.
    static result<device> at(uint32_t domain, uint32_t bus, uint32_t slot,
                             uint32_t function) noexcept {
        if (slot > last_slot || function > last_function) {
            return error(error_code::bad_device,
                         "no PCI device has slot 0x%x, function 0x%x; they go up to 0x1f and 7",
                         slot, function);
        }
        return device(domain, bus, slot << 3 | function);
    }

    /// Reads an address such as 0000:03:00.0, in hexadecimal as lspci shows it. The domain is 0
    /// where it is left out.
    ///
    /// @return the device; bad_device for any other text.
    static result<device> parse(std::string_view text) noexcept {
        std::string_view rest = text;
        uint32_t domain = 0;
        uint32_t bus = 0;
        uint32_t slot = 0;
        uint32_t function = 0;
        const bool has_domain = std::count(text.begin(), text.end(), ':') > 1;
        if ((!has_domain || (number(rest, domain) && sign(rest, ':'))) && number(rest, bus) &&
            sign(rest, ':') && number(rest, slot) && sign(rest, '.') && number(rest, function) &&
            rest.empty()) {
            return at(domain, bus, slot, function);
        }
        return error(error_code::bad_device,
                     "'%.*s' is not a PCI address; write it as 0000:03:00.0 or 03:00.0",
                     detail::shown(text), text.data());
    }

    uint32_t domain() const noexcept { return _domain; }
    uint32_t bus() const noexcept { return _bus; }
    uint32_t slot() const noexcept { return _devfn >> 3; }
    uint32_t function() const noexcept { return _devfn & last_function; }
    /// Slot * 8 + function, as the C calls have it.
    uint32_t devfn() const noexcept { return _devfn; }

    /// The address as parse() reads it and the library writes it.
    short_text<32> text() const noexcept {
        char written[32];
        const int length = std::snprintf(written, sizeof written, "%04x:%02x:%02x.%x", _domain,
                                         _bus, slot(), function());
        return short_text<32>(std::string_view(written, static_cast<size_t>(length)));
    }

    friend bool operator==(const device&, const device&) noexcept = default;

  private:
    device(uint32_t domain, uint32_t bus, uint32_t devfn) noexcept
        : _domain(domain), _bus(bus), _devfn(devfn) {}

    /// Takes a hexadecimal number off the front of `text`.
    static bool number(std::string_view& text, uint32_t& value) noexcept {
        const char* end = text.data() + text.size();
        const std::from_chars_result read = std::from_chars(text.data(), end, value, 16);
        text.remove_prefix(static_cast<size_t>(read.ptr - text.data()));
        return read.ec == std::errc();
    }

    static bool sign(std::string_view& text, char wanted) noexcept {
        const bool there = text.starts_with(wanted);
        text.remove_prefix(there ? 1 : 0);
        return there;
    }

    static constexpr uint32_t last_slot = 31;
    static constexpr uint32_t last_function = 7;

    uint32_t _domain = 0;
    uint32_t _bus = 0;
    uint32_t _devfn = 0;
};

} // namespace tarvo
