// The container's index() of every address in and around a small list: an element's number for each
// of its bytes, the end of the process for everything else. Compiled by its test at several levels
// of optimisation: what a compiler may assume of a pointer must not show.

#include "ArrayBackedList.hpp"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// 28 bytes, as a device's record has: no power of two.
struct element {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    int32_t payload[4];
};

constexpr int capacity = 3;
using list = ArrayBackedList<element, capacity>;

constexpr intptr_t array_bytes = sizeof(list::_arr);
constexpr intptr_t margin_bytes = 2 * sizeof(element);

list lists[3];

element* at(intptr_t offset) {
    return reinterpret_cast<element*>(reinterpret_cast<intptr_t>(&lists[1]) + offset);
}

/// Whether a process that asks for the index of `e` ends by the container's assertion.
bool ends_the_process(element* e) {
    int said[2];
    if (pipe(said) != 0) {
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(said[1], STDERR_FILENO);
        std::printf("index %d\n", lists[1].index(e));
        std::fflush(stdout);
        _exit(0);
    }
    close(said[1]);
    std::array<char, 1024> text{};
    const ssize_t length = read(said[0], text.data(), text.size());
    close(said[0]);
    int status = 0;
    waitpid(child, &status, 0);
    const std::string_view message(text.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT &&
           message.find(" ./ArrayBackedList.hpp:154: ") != std::string_view::npos &&
           message.find("Assertion `idx >= 0 && idx < MAX' failed.") != std::string_view::npos;
}

bool expect(bool holds, const char* what, intptr_t offset) {
    if (!holds) {
        std::printf("byte %lld: %s\n", static_cast<long long>(offset), what);
    }
    return holds;
}

bool is_right_at(intptr_t offset) {
    if (offset < 0 || offset >= array_bytes) {
        return expect(ends_the_process(at(offset)), "the process goes on", offset);
    }
    const auto number = static_cast<int>(offset / intptr_t{sizeof(element)});
    return expect(lists[1].index(at(offset)) == number, "another index", offset);
}

} // namespace

int main() {
    bool good = true;
    for (intptr_t offset = -margin_bytes; offset < array_bytes + margin_bytes; ++offset) {
        good &= is_right_at(offset);
    }
    good &= expect(ends_the_process(nullptr), "null goes on", 0);
    good &= expect(ends_the_process(reinterpret_cast<element*>(UINTPTR_MAX)), "the end goes on", 0);
    return good ? 0 : 1;
}
