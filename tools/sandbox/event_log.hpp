#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>

#include "common/unique_fd.hpp"
#include "rule.hpp"

namespace sandbox {

// One system call on a driver file and what the driver answered.
struct log_entry {
    pid_t pid = 0;
    bool truncates = false;
    std::string_view bytes;
    int error = 0;
    // How many bytes of a write were taken.
    std::size_t accepted_bytes = 0;
};

// JSON lines, appended to a file. Each line is one write(2), so it is in the file on return.
class event_log {
  public:
    // Without a file nothing is written.
    explicit event_log(unique_fd file) : file_{std::move(file)} {}

    void add(const event& seen, const log_entry& entry);

  private:
    unique_fd file_;
    std::uint64_t seq_ = 0;
};

} // namespace sandbox
