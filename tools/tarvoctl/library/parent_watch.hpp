#pragma once

#include "common/unique_fd.hpp"

namespace tarvoctl {

/// By which a child learns that its parent has ended, also if it was killed or ended before the
/// child could ask: a pipe that the parent alone can write to.
class parent_watch {
  public:
    parent_watch();

    /// In the child, once. From now on the parent's end is a SIGTERM to the child; and while that
    /// is held back, a wait for a file lock is interrupted again and again by the signal
    /// `interruption`, which has a handler.
    void follow_parent(int interruption);

  private:
    unique_fd _child_end;
    unique_fd _parent_end;
};

/// In a child that follows its parent: whether that has ended. False in any other process.
bool parent_has_ended();

} // namespace tarvoctl
