#pragma once

#include "common/unique_fd.hpp"

#include <string>
#include <vector>

namespace sandbox {

/// The Unix socket through which others join the sandbox and change its rules.
class control_socket {
  public:
    /// None: nobody can connect.
    control_socket() = default;

    /// A socket file without a listener is replaced. Throws trouble.
    explicit control_socket(const std::string& path);

    int fd() const { return _listener.get(); }

    /// Removes the socket file; works from any namespace.
    void remove();

    /// For a process that only needs remove().
    void stop_listening() { _listener.reset(); }

    std::vector<int> fds() const { return {_listener.get(), _folder.get()}; }

  private:
    unique_fd _folder;
    std::string _name;
    unique_fd _listener;
};

/// Connects to a running sandbox. Throws trouble where there is none.
unique_fd connect_to(const std::string& path);

} // namespace sandbox
