// speaker MODE FILE [TEXT...]: opens FILE as fopen(3) would for MODE (r, w or r+), writes each TEXT
// with one write(2), or reads all where there is none, closes, and prints what each call answered.
// With the environment variable SPEAKER_LOG, the name of a file, it also prints after each call how
// many lines that file has.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

void print_log_lines() {
    const char* const path = std::getenv("SPEAKER_LOG");
    if (path == nullptr) {
        return;
    }
    std::ifstream log{path};
    const auto lines = std::count(std::istreambuf_iterator<char>{log}, {}, '\n');
    std::printf("%td logged\n", lines);
}

int flags_of(std::string_view mode) {
    if (mode == "w") {
        return O_WRONLY | O_CREAT | O_TRUNC;
    }
    return mode == "r+" ? O_RDWR : O_RDONLY;
}

void report(const char* call, ssize_t result) {
    if (result < 0) {
        std::printf("%s %s\n", call, ::strerrorname_np(errno));
    } else if (std::string_view{call} == "write") {
        std::printf("write %zd\n", result);
    } else {
        std::printf("%s ok\n", call);
    }
    print_log_lines();
}

void print_all(int file) {
    std::array<char, 4096> bytes{};
    for (;;) {
        const ssize_t length = ::read(file, bytes.data(), bytes.size());
        if (length <= 0) {
            return;
        }
        std::fwrite(bytes.data(), 1, static_cast<size_t>(length), stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    const int file = ::open(argv[2], flags_of(argv[1]), 0600);
    report("open", file);
    if (file < 0) {
        return 0;
    }
    for (int i = 3; i < argc; ++i) {
        report("write", ::write(file, argv[i], std::strlen(argv[i])));
    }
    if (argc == 3) {
        print_all(file);
    }
    report("close", ::close(file));
    return 0;
}
