#pragma once

#include <unistd.h>

#include <utility>

// Owns one file descriptor; -1 is none.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_{fd} {}
    unique_fd(unique_fd&& other) noexcept : fd_{other.release()} {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0)
            ::close(old);
    }

  private:
    int fd_ = -1;
};
