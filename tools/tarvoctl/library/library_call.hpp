#pragma once

#include "common/exit_status.hpp"
#include "host/ending_signals.hpp"

#include <chrono>
#include <functional>

namespace tarvoctl {

/// Does work that calls the library, in a process of its own: what the library answers by ending
/// its process then ends that one only, and is reported as a failure. Prints from there; failures
/// that the work throws are thrown here. What the library says itself goes to standard error as it
/// is.
///
/// The library waits for its lock without limit. So the lock is taken and released here first, and
/// a wait that lasts longer than `timeout` from the start all the same is interrupted; both are the
/// failure timed_out.
///
/// A signal that ends the tool ends the work, too, but not within a change_of_records. Of a tool
/// that was killed the work ends as well, and a change that waits for the lock is not made any
/// more.
exit_status in_library(std::chrono::milliseconds timeout, const std::function<exit_status()>& work);

/// A call of the library that changes the records, as long as it lives: ended halfway it would
/// leave them damaged, or a device with some of the chunks. It does not begin once the tool has
/// ended.
class change_of_records {
  public:
    change_of_records();

  private:
    held_back_signals _uninterrupted;
};

} // namespace tarvoctl
