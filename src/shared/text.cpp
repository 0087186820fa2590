#include "shared/text.hpp"

#include "tarvo.h"

#include <cstdio>
#include <cstdlib>
#include <iostream> // the stream library is ready before anything of ours runs
#include <new>

std::shared_ptr<std::string> to_string_err =
    std::make_shared<std::string>("Error formatting string");

/// The same object by the name that g++ gives such a variable. It is weak because a linker that
/// moves a weak object into the program's own data takes along the strong name for it, by which the
/// library knows the object.
extern TARVO_API std::shared_ptr<std::string> to_string_err_of_cpp asm("_Z13to_string_errB5cxx11")
    __attribute__((weak, alias("to_string_err")));

std::shared_ptr<std::string> adopt_text(int length, char* text) {
    if (length < 0) {
        return to_string_err;
    }
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    try {
        return std::make_shared<std::string>(text);
    } catch (const std::bad_alloc&) {
        return to_string_err;
    }
}

std::shared_ptr<std::string> device_name(const iommu_dev_t& dev) {
    const auto domain = static_cast<unsigned>(dev.domain);
    const auto bus = static_cast<unsigned>(dev.bus);
    const auto devfn = static_cast<unsigned>(dev.devfn);
    char* text = nullptr;
    const int length =
        asprintf(&text, "%04x:%02x:%02x.%x", domain, bus, (devfn >> 3) & 0x1f, devfn & 7);
    return adopt_text(length, text);
}
