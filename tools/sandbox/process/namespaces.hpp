#pragma once

#include "common/unique_fd.hpp"
#include "process/channel.hpp"

#include <string>
#include <vector>

namespace sandbox {

/// The namespaces of one sandbox, and how to get into them.
class namespaces {
  public:
    /// Moves this process into new ones: a mount namespace, with a user namespace where mounting
    /// needs one. Throws trouble, saying what the kernel refuses.
    static namespaces create();

    /// The ones that came with a message made by to_message.
    static namespaces from_message(message& received);

    /// Moves this process, which must have one thread, into them. Throws trouble.
    void enter() const;

    /// The mount namespace as /proc/PID/ns/mnt names it.
    std::string mount_name() const;

    /// Descriptors for send_message, the mount namespace first. The body's "user" says whether
    /// there are two.
    std::vector<int> fds() const;
    bool has_user() const { return static_cast<bool>(_user); }

  private:
    unique_fd _mount;
    unique_fd _user;
};

} // namespace sandbox
