#pragma once

#include "common/unique_fd.hpp"
#include "driver/rule.hpp"

#include <cstdint>
#include <string_view>
#include <sys/types.h>

namespace sandbox {

/// One system call on a driver file and what the driver answered.
struct log_entry {
    pid_t pid = 0;
    bool truncates = false;
    std::string_view bytes;
    int error = 0;
    /// How many bytes of a write were taken.
    size_t accepted_bytes = 0;
};

/// JSON lines, appended to a file. Each line is one write(2), so it is in the file on return.
class event_log {
  public:
    /// Without a file nothing is written.
    explicit event_log(unique_fd file) : _file{std::move(file)} {}

    void add(const event& seen, const log_entry& entry);

  private:
    unique_fd _file;
    uint64_t _seq = 0;
};

} // namespace sandbox
