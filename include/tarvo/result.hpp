/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

/// @file
/// What went wrong, as a value, and what a call returns: a value or that.

namespace tarvo {

/// Kinds of failure, for programs to tell apart. What to tell people is in error::message(). None
/// is 0, and the numbers stay; new kinds get the next ones.
enum class error_code {
    bad_name = 1,     ///< the name is empty, too long, reserved, or reads like another
    bad_creator,      ///< the creator is empty or holds a zero byte
    bad_size,         ///< no chunk, or no request, can have that size
    bad_window,       ///< the window does not lie in the chunk, or does not start on a page
    bad_address,      ///< the address does not lie in the region
    bad_device,       ///< no PCI device has that address
    not_started,      ///< the library found no region, or not its files; standard error says which
    not_locked,       ///< the lock could not be taken; standard error says why
    listing_open,     ///< this program has a tarvo::listing open, which holds the lock
    not_found,        ///< no chunk has that name, or holds that address
    changed,          ///< the name means another chunk by now
    size_mismatch,    ///< a chunk of that name exists with another size
    no_room,          ///< no gap, no record, or no memory of the kernel's allocator is left
    refused,          ///< the system or a kernel driver said no
    too_many_devices, ///< as many devices are registered as can be
    not_registered,   ///< the device is not registered
    damaged,          ///< a record of the shared bookkeeping makes no sense
};

/// A failure: its kind, and a sentence that names the value at fault and what to do. It owns its
/// text and needs no memory.
class error {
  public:
    /// The text is `format` and what follows, as printf has it, cut off after 255 bytes.
    [[gnu::format(printf, 3, 4)]] error(error_code code, const char* format, ...) noexcept
        : _code(code) {
        std::va_list values;
        va_start(values, format);
        std::vsnprintf(_text.data(), _text.size(), format, values);
        va_end(values);
    }

    error_code code() const noexcept { return _code; }
    /// Valid as long as this object.
    const char* message() const noexcept { return _text.data(); }

  private:
    error_code _code;
    std::array<char, 256> _text{};
};

namespace detail {

/// The end of a program that uses a value that does not exist.
[[noreturn]] inline void no_value(const error& why) noexcept {
    std::fprintf(stderr, "tarvo: the value of a failed result was used: %s\n", why.message());
    std::abort();
}

[[noreturn]] inline void no_error() noexcept {
    std::fprintf(stderr, "tarvo: the error of a good result was used\n");
    std::abort();
}

} // namespace detail

/// A T, or the error that there is instead. It converts to true when the T is there. Using the one
/// that does not exist ends the process, after a message; nothing is undefined, nothing is thrown.
template <typename T>
class [[nodiscard]] result {
  public:
    using value_type = T;

    /// Implicit, so that a function can return either.
    result(T value) noexcept : _content(std::in_place_index<0>, std::move(value)) {}
    result(const tarvo::error& why) noexcept : _content(std::in_place_index<1>, why) {}

    bool has_value() const noexcept { return _content.index() == 0; }
    explicit operator bool() const noexcept { return has_value(); }

    T& operator*() & noexcept { return *checked(std::get_if<0>(&_content)); }
    const T& operator*() const& noexcept { return *checked(std::get_if<0>(&_content)); }
    T&& operator*() && noexcept { return std::move(*checked(std::get_if<0>(&_content))); }
    T* operator->() noexcept { return checked(std::get_if<0>(&_content)); }
    const T* operator->() const noexcept { return checked(std::get_if<0>(&_content)); }

    /// The value, or `other` if there is none.
    T value_or(T other) && noexcept { return has_value() ? *std::move(*this) : std::move(other); }

    /// What went wrong.
    const tarvo::error& error() const noexcept {
        const tarvo::error* why = std::get_if<1>(&_content);
        if (why == nullptr) {
            detail::no_error();
        }
        return *why;
    }

    /// `next` of the value, which returns a result of its own; without a value, the error.
    template <typename Function>
    std::invoke_result_t<Function, T&&> and_then(Function&& next) && {
        if (!has_value()) {
            return error();
        }
        return std::invoke(std::forward<Function>(next), *std::move(*this));
    }

  private:
    template <typename Pointer>
    Pointer checked(Pointer value) const noexcept {
        if (value == nullptr) {
            detail::no_value(error());
        }
        return value;
    }

    std::variant<T, tarvo::error> _content;
};

/// Success, or an error.
template <>
class [[nodiscard]] result<void> {
  public:
    using value_type = void;

    result() noexcept = default;
    result(const tarvo::error& why) noexcept : _why(why) {}

    bool has_value() const noexcept { return !_why.has_value(); }
    explicit operator bool() const noexcept { return has_value(); }

    /// What went wrong.
    const tarvo::error& error() const noexcept {
        if (!_why.has_value()) {
            detail::no_error();
        }
        return *_why;
    }

  private:
    std::optional<tarvo::error> _why;
};

} // namespace tarvo
