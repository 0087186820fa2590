#pragma once

#include "common/unique_fd.hpp"
#include "driver/driver.hpp"
#include "machine/proc_view.hpp"
#include "machine/sysfs_view.hpp"

#include <fuse_lowlevel.h>
#include <memory>

namespace sandbox {

/// Which of the driver's files there are.
struct shown_files {
    bool proc;
    bool sysfs;
};

/// The FUSE file system that is mounted over /proc: the real entries as links, the driver's
/// /proc/tarvo, and, in no listing, a folder with the driver's sysfs file and the real entries of
/// /sys/kernel, which is bound from here to its place. Not a tmpfs there: to make a file in sysfs
/// is refused with EACCES, to root as well.
class file_system {
  public:
    file_system(driver& answering, proc_view& real, const sysfs_view& real_sysfs,
                shown_files shown);
    ~file_system();
    file_system(const file_system&) = delete;
    file_system& operator=(const file_system&) = delete;

    /// Mounts over /proc. Throws trouble.
    void mount();

    /// To be polled for reading; then answer_request() answers one request.
    int fd() const { return fuse_session_fd(_session.get()); }
    void answer_request();

  private:
    struct session_end {
        void operator()(fuse_session* session) const { fuse_session_destroy(session); }
    };
    struct state;

    std::unique_ptr<state> _state;
    std::unique_ptr<fuse_session, session_end> _session;
    fuse_buf _buffer{};
};

} // namespace sandbox
