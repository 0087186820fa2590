#pragma once

#include <unistd.h>
#include <utility>

/// Owns one file descriptor; -1 is none.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : _fd{fd} {}
    unique_fd(unique_fd&& other) noexcept : _fd{other.release()} {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return _fd; }
    explicit operator bool() const { return _fd >= 0; }
    int release() { return std::exchange(_fd, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(_fd, fd);
        if (old >= 0) {
            ::close(old);
        }
    }

  private:
    int _fd = -1;
};
