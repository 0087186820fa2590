// Stand-ins for the C library's functions that the library under test calls. A program's own
// symbols come before the C library's, so the library need not know; each forwards to the real one
// unless it is ordered to fail. Parameters are called as in the C library's headers.

#include "watch.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

template <typename Function>
Function* real_one(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string shown(const char* text) {
    return text;
}

std::string shown(const void* pointer) {
    return pointer == nullptr ? "null" : pointer == MAP_FAILED ? "failed" : "pointer";
}

template <typename Number>
requires std::is_integral_v<Number> std::string shown(Number number) {
    return std::to_string(number);
}

std::string octal(unsigned mode) {
    std::ostringstream text;
    text << "0" << std::oct << mode;
    return text.str();
}

/// The flags of open by name.
std::string open_flags(int flags) {
    std::string text = (flags & O_ACCMODE) == O_RDWR ? "O_RDWR" : "O_RDONLY";
    for (const auto& [flag, name] : {std::pair{O_CREAT, "O_CREAT"},
                                     {O_CLOEXEC, "O_CLOEXEC"},
                                     {O_NONBLOCK, "O_NONBLOCK"},
                                     {O_NOCTTY, "O_NOCTTY"}}) {
        if ((flags & flag) != 0) {
            text += std::string("|") + name;
            flags &= ~flag;
        }
    }
    flags &= ~O_ACCMODE;
    return flags == 0 ? text : text + "|" + octal(static_cast<unsigned>(flags));
}

/// Makes a call unless it is to fail, and notes it.
template <typename Result, typename Call, typename... Shown>
Result watched(const char* name, Result refusal, Call call, const Shown&... arguments) {
    if (!watch::on()) {
        return call();
    }
    const Result result = watch::refuses(name) ? refusal : call();
    watch::record(name, {arguments...}, shown(result));
    return result;
}

/// The same for a call that gives up what it was given even when it fails.
template <typename Result, typename Call>
Result watched_release(const char* name, Result refusal, Call call, const std::string& argument) {
    if (!watch::on()) {
        return call();
    }
    Result result = call();
    if (watch::refuses(name)) {
        result = refusal;
    }
    watch::record(name, {argument}, shown(result));
    return result;
}

/// Formatting is refused like any other call, and not noted: it touches nothing outside.
bool refuses_to_format(const char* name) {
    return watch::on() && watch::refuses(name);
}

int print(FILE* stream, const char* format, std::va_list arguments) {
    return stream != stderr && refuses_to_format("fprintf") ? -1
                                                            : vfprintf(stream, format, arguments);
}

int print_anew(char** text, const char* format, std::va_list arguments) {
    return refuses_to_format("asprintf") ? -1 : vasprintf(text, format, arguments);
}

} // namespace

extern "C" {

long sysconf(int name) noexcept {
    static const auto real = real_one<long(int)>("sysconf");
    if (name == _SC_PAGESIZE && watch::on() && watch::pretended_page_bytes() != 0) {
        return watch::pretended_page_bytes();
    }
    return real(name);
}

mode_t umask(mode_t mask) noexcept {
    static const auto real = real_one<mode_t(mode_t)>("umask");
    const mode_t before = real(mask);
    if (watch::on()) {
        watch::record("umask", {octal(mask)}, octal(before));
    }
    return before;
}

int open(const char* file, int oflag, ...) {
    static const auto real = real_one<int(const char*, int, ...)>("open");
    std::va_list rest;
    va_start(rest, oflag);
    const mode_t mode = (oflag & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    const auto call = [=] { return real(file, oflag, mode); };
    return (oflag & O_CREAT) != 0
               ? watched("open", -1, call, shown(file), open_flags(oflag), octal(mode))
               : watched("open", -1, call, shown(file), open_flags(oflag));
}

int close(int fd) {
    static const auto real = real_one<int(int)>("close");
    return watched_release(
        "close", -1, [=] { return real(fd); }, shown(fd));
}

ssize_t write(int fd, const void* buf, size_t n) {
    static const auto real = real_one<ssize_t(int, const void*, size_t)>("write");
    return watched<ssize_t>(
        "write", -1, [=] { return real(fd, buf, n); }, shown(fd), shown(n));
}

int ftruncate(int fd, off_t length) noexcept {
    static const auto real = real_one<int(int, off_t)>("ftruncate");
    return watched(
        "ftruncate", -1, [=] { return real(fd, length); }, shown(fd), shown(length));
}

int flock(int fd, int operation) noexcept {
    static const auto real = real_one<int(int, int)>("flock");
    const std::string what = operation == LOCK_EX   ? "LOCK_EX"
                             : operation == LOCK_UN ? "LOCK_UN"
                                                    : shown(operation);
    return watched(
        "flock", -1, [=] { return real(fd, operation); }, shown(fd), what);
}

void* mmap64(void* addr, size_t len, int prot, int flags, int fd, off64_t offset) noexcept {
    static const auto real = real_one<void*(void*, size_t, int, int, int, off64_t)>("mmap64");
    return watched(
        "mmap64", MAP_FAILED, [=] { return real(addr, len, prot, flags, fd, offset); }, shown(addr),
        shown(len), shown(prot), shown(flags), shown(fd), shown(offset));
}

int munmap(void* addr, size_t len) noexcept {
    static const auto real = real_one<int(void*, size_t)>("munmap");
    return watched(
        "munmap", -1, [=] { return real(addr, len); }, shown(addr), shown(len));
}

/// Advice changes nothing that shows, and is not noted; the answer of the system can.
int madvise(void* addr, size_t len, int advice) noexcept {
    static const auto real = real_one<int(void*, size_t, int)>("madvise");
    return watch::on() && watch::refuses("madvise") ? -1 : real(addr, len, advice);
}

/// Noted where it makes a second descriptor of an open file.
int fcntl(int fd, int cmd, ...) {
    static const auto real = real_one<int(int, int, ...)>("fcntl");
    std::va_list rest;
    va_start(rest, cmd);
    const long argument = va_arg(rest, long);
    va_end(rest);
    const auto call = [=] { return real(fd, cmd, argument); };
    return cmd != F_DUPFD_CLOEXEC
               ? call()
               : watched("fcntl", -1, call, shown(fd), "F_DUPFD_CLOEXEC", shown(argument));
}

FILE* fdopen(int fd, const char* modes) noexcept {
    static const auto real = real_one<FILE*(int, const char*)>("fdopen");
    return watched<FILE*>(
        "fdopen", nullptr, [=] { return real(fd, modes); }, shown(fd), shown(modes));
}

FILE* fopen(const char* filename, const char* modes) {
    static const auto real = real_one<FILE*(const char*, const char*)>("fopen");
    return watched<FILE*>(
        "fopen", nullptr, [=] { return real(filename, modes); }, shown(filename), shown(modes));
}

char* fgets(char* s, int n, FILE* stream) {
    static const auto real = real_one<char*(char*, int, FILE*)>("fgets");
    return refuses_to_format("fgets") ? nullptr : real(s, n, stream);
}

int setvbuf(FILE* stream, char* buf, int modes, size_t n) noexcept {
    static const auto real = real_one<int(FILE*, char*, int, size_t)>("setvbuf");
    // Any value but 0 is a failure, though the C library never answers with a positive one.
    if (watch::on() && watch::refuses("positive_setvbuf")) {
        return 1;
    }
    return watched(
        "setvbuf", -1, [=] { return real(stream, buf, modes, n); }, shown(modes), shown(n));
}

int fclose(FILE* stream) {
    static const auto real = real_one<int(FILE*)>("fclose");
    return watched_release(
        "fclose", EOF, [=] { return real(stream); }, "stream");
}

int fprintf(FILE* stream, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int count = print(stream, format, arguments);
    va_end(arguments);
    return count;
}

int asprintf(char** ptr, const char* fmt, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, fmt);
    const int count = print_anew(ptr, fmt, arguments);
    va_end(arguments);
    return count;
}

// What the C library's headers make of the two where lengths are checked.

int checked_fprintf(FILE* stream, int flag, const char* format, ...) __asm__("__fprintf_chk");
int checked_fprintf(FILE* stream, int /*flag*/, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int count = print(stream, format, arguments);
    va_end(arguments);
    return count;
}

int checked_asprintf(char** ptr, int flag, const char* fmt, ...) noexcept __asm__("__asprintf_chk");
int checked_asprintf(char** ptr, int /*flag*/, const char* fmt, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, fmt);
    const int count = print_anew(ptr, fmt, arguments);
    va_end(arguments);
    return count;
}

} // extern "C"
