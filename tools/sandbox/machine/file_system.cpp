#include "machine/file_system.hpp"

#include "common/trouble.hpp"
#include "machine/driver_files.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

namespace sandbox {

namespace {

/// Nodes from proc_view::first_number up are the real /proc's.
constexpr fuse_ino_t proc_file_node = 2;
constexpr fuse_ino_t iommu_file_node = 3;
constexpr fuse_ino_t hidden_folder_node = 4;
constexpr fuse_ino_t sysfs_folder_node = 5;
constexpr fuse_ino_t hidden_sysfs_node = 6;

/// Nothing here changes but the set of processes.
constexpr double for_ever_seconds = 1e6;

mode_t mode_of(fuse_ino_t node) {
    switch (node) {
    case FUSE_ROOT_ID:
    case hidden_folder_node:
        return S_IFDIR | 0555;
    case sysfs_folder_node:
    case hidden_sysfs_node:
        return S_IFDIR | 0755;
    case proc_file_node:
        return S_IFREG | 0644;
    case iommu_file_node:
        return S_IFREG | 0600;
    default:
        return S_IFLNK | 0777;
    }
}

/// Owner and group are 0, which is the caller itself in a user namespace: the kernel refuses every
/// open for writing of a file whose owner it cannot map there.
struct stat attributes(fuse_ino_t node, mode_t mode) {
    struct stat made {};
    made.st_ino = node;
    made.st_mode = mode;
    made.st_nlink = S_ISDIR(made.st_mode) ? 2 : 1;
    return made;
}

double validity_seconds(fuse_ino_t node) {
    return proc_view::is_process(node) && !sysfs_view::has(node) ? 0 : for_ever_seconds;
}

using listing_buffer = std::vector<char>;

/// What is open, by the number that FUSE carries for us.
template <typename Kept>
class open_files {
  public:
    uint64_t add(Kept added) {
        _kept.emplace(++_last_number, std::move(added));
        return _last_number;
    }
    Kept& at(const fuse_file_info* info) { return _kept.at(info->fh); }
    void remove(const fuse_file_info* info) { _kept.erase(info->fh); }

  private:
    std::map<uint64_t, Kept> _kept;
    uint64_t _last_number = 0;
};

template <typename Bytes>
void reply_part(fuse_req_t asked, const Bytes& bytes, size_t size, off_t offset) {
    const size_t start = std::min(bytes.size(), static_cast<size_t>(offset));
    fuse_reply_buf(asked, bytes.data() + start, std::min(size, bytes.size() - start));
}

void add_entry(fuse_req_t asked, listing_buffer& listing, const std::string& name) {
    // No type: the processes are links here, but those who look for folders are to follow them.
    struct stat untyped {};
    untyped.st_ino = proc_view::first_number;
    const size_t start = listing.size();
    listing.resize(start + fuse_add_direntry(asked, nullptr, 0, name.c_str(), nullptr, 0));
    fuse_add_direntry(asked, listing.data() + start, listing.size() - start, name.c_str(), &untyped,
                      static_cast<off_t>(listing.size()));
}

} // namespace

/// The operations that FUSE calls, each of which answers one request.
struct file_system::state {
    driver& answering;
    proc_view& real;
    const sysfs_view& real_sysfs;
    shown_files shown;
    open_files<driver_handle> files{};
    open_files<listing_buffer> folders{};

    static state& of(fuse_req_t asked) { return *static_cast<state*>(fuse_req_userdata(asked)); }

    pid_t caller(fuse_req_t asked) const {
        return real.process_of_thread(fuse_req_ctx(asked)->pid);
    }

    std::optional<fuse_ino_t> find_in_proc(std::string_view name) const {
        if (name == proc_file_name) {
            return shown.proc ? std::optional{proc_file_node} : std::nullopt;
        }
        if (name == sysfs_view::folder_in_proc) {
            return sysfs_folder_node;
        }
        if (name == proc_view::hidden_folder) {
            return hidden_folder_node;
        }
        return real.find(name);
    }

    std::optional<fuse_ino_t> find_in_sysfs(std::string_view name) const {
        if (name == sysfs_file_name) {
            return shown.sysfs ? std::optional{iommu_file_node} : std::nullopt;
        }
        if (name == sysfs_view::hidden_folder) {
            return hidden_sysfs_node;
        }
        return real_sysfs.find(name);
    }

    std::optional<fuse_ino_t> find(fuse_ino_t folder, std::string_view name) const {
        switch (folder) {
        case FUSE_ROOT_ID:
            return find_in_proc(name);
        case sysfs_folder_node:
            return find_in_sysfs(name);
        default:
            return std::nullopt;
        }
    }

    struct stat attributes_of(fuse_ino_t node) const {
        const bool is_real_folder = sysfs_view::has(node) && real_sysfs.is_folder(node);
        return attributes(node, is_real_folder ? S_IFDIR | 0755 : mode_of(node));
    }

    static void init(void* /*state*/, fuse_conn_info* connection) {
        // An open that truncates is to arrive as one request.
        connection->want |=
            connection->capable & (FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_CACHE_SYMLINKS);
    }

    static void lookup(fuse_req_t asked, fuse_ino_t parent, const char* name) {
        const auto node = of(asked).find(parent, name);
        if (!node) {
            fuse_reply_err(asked, ENOENT);
            return;
        }
        fuse_entry_param entry{};
        entry.ino = *node;
        entry.attr = of(asked).attributes_of(*node);
        entry.attr_timeout = for_ever_seconds;
        entry.entry_timeout = validity_seconds(*node);
        fuse_reply_entry(asked, &entry);
    }

    static void getattr(fuse_req_t asked, fuse_ino_t node, fuse_file_info* /*info*/) {
        const struct stat found = of(asked).attributes_of(node);
        fuse_reply_attr(asked, &found, for_ever_seconds);
    }

    /// Lengths and times may be set, as on the kernel's own files, and change nothing.
    static void setattr(fuse_req_t asked, fuse_ino_t node, struct stat* /*wanted*/, int what,
                        fuse_file_info* info) {
        if ((what & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0) {
            fuse_reply_err(asked, EPERM);
        } else {
            getattr(asked, node, info);
        }
    }

    static void readlink(fuse_req_t asked, fuse_ino_t node) {
        const state& self = of(asked);
        const std::string target =
            sysfs_view::has(node) ? self.real_sysfs.link_target(node) : self.real.link_target(node);
        fuse_reply_readlink(asked, target.c_str());
    }

    static driver_handle make_handle(fuse_ino_t node, int flags) {
        driver_handle handle;
        const int access = flags & O_ACCMODE;
        handle.file = node == proc_file_node ? driver_file::proc : driver_file::sysfs;
        handle.reads = access != O_WRONLY;
        handle.writes = access != O_RDONLY;
        handle.truncates = (flags & O_TRUNC) != 0;
        return handle;
    }

    static void open(fuse_req_t asked, fuse_ino_t node, fuse_file_info* info) {
        state& self = of(asked);
        driver_handle handle = make_handle(node, info->flags);
        const int error = self.answering.open(handle, self.caller(asked));
        if (error != 0) {
            fuse_reply_err(asked, error);
            return;
        }
        info->fh = self.files.add(std::move(handle));
        info->direct_io = 1;
        // The caller was killed in between: it never had the file, so no release will follow.
        if (fuse_reply_open(asked, info) == -ENOENT) {
            self.files.remove(info);
        }
    }

    static void read(fuse_req_t asked, fuse_ino_t /*node*/, size_t size, off_t offset,
                     fuse_file_info* info) {
        reply_part(asked, of(asked).files.at(info).listing, size, offset);
    }

    static void write(fuse_req_t asked, fuse_ino_t /*node*/, const char* bytes, size_t size,
                      off_t /*offset*/, fuse_file_info* info) {
        state& self = of(asked);
        const auto result =
            self.answering.write(self.files.at(info), self.caller(asked), {bytes, size});
        if (result.error == 0) {
            fuse_reply_write(asked, result.accepted_bytes);
        } else {
            fuse_reply_err(asked, result.error);
        }
    }

    /// The close: at once and with a result that the caller sees, unlike release.
    static void flush(fuse_req_t asked, fuse_ino_t /*node*/, fuse_file_info* info) {
        state& self = of(asked);
        fuse_reply_err(asked, self.answering.close(self.files.at(info), self.caller(asked)));
    }

    static void release(fuse_req_t asked, fuse_ino_t /*node*/, fuse_file_info* info) {
        of(asked).files.remove(info);
        fuse_reply_err(asked, 0);
    }

    static void opendir(fuse_req_t asked, fuse_ino_t node, fuse_file_info* info) {
        state& self = of(asked);
        listing_buffer listing;
        add_entry(asked, listing, ".");
        add_entry(asked, listing, "..");
        if (node == FUSE_ROOT_ID) {
            self.list_proc(asked, listing);
        }
        if (node == sysfs_folder_node) {
            self.list_sysfs(asked, listing);
        }
        info->fh = self.folders.add(std::move(listing));
        if (fuse_reply_open(asked, info) == -ENOENT) {
            self.folders.remove(info);
        }
    }

    void list_proc(fuse_req_t asked, listing_buffer& listing) const {
        for (const auto& name : real.names()) {
            if (name != proc_file_name) {
                add_entry(asked, listing, name);
            }
        }
        if (shown.proc) {
            add_entry(asked, listing, std::string{proc_file_name});
        }
    }

    void list_sysfs(fuse_req_t asked, listing_buffer& listing) const {
        for (const auto& name : real_sysfs.names()) {
            add_entry(asked, listing, name);
        }
        if (shown.sysfs) {
            add_entry(asked, listing, std::string{sysfs_file_name});
        }
    }

    static void readdir(fuse_req_t asked, fuse_ino_t /*node*/, size_t size, off_t offset,
                        fuse_file_info* info) {
        reply_part(asked, of(asked).folders.at(info), size, offset);
    }

    /// As the kernel's own answer, both to root; without this FUSE would say that it has no such
    /// call.
    static void create(fuse_req_t asked, fuse_ino_t folder, const char* /*name*/, mode_t /*mode*/,
                       fuse_file_info* /*info*/) {
        fuse_reply_err(asked, folder == sysfs_folder_node ? EACCES : ENOENT);
    }

    /// Entries that are no files cannot be made, and none can be removed.
    template <typename... Arguments>
    static void refuse(fuse_req_t asked, Arguments... /*what*/) {
        fuse_reply_err(asked, EPERM);
    }

    static void releasedir(fuse_req_t asked, fuse_ino_t /*node*/, fuse_file_info* info) {
        of(asked).folders.remove(info);
        fuse_reply_err(asked, 0);
    }

    static fuse_lowlevel_ops operations() {
        fuse_lowlevel_ops all{};
        all.init = init;
        all.lookup = lookup;
        all.getattr = getattr;
        all.setattr = setattr;
        all.readlink = readlink;
        all.create = create;
        all.mkdir = refuse;
        all.symlink = refuse;
        all.unlink = refuse;
        all.rmdir = refuse;
        all.rename = refuse;
        all.open = open;
        all.read = read;
        all.write = write;
        all.flush = flush;
        all.release = release;
        all.opendir = opendir;
        all.readdir = readdir;
        all.releasedir = releasedir;
        return all;
    }
};

namespace {

unique_fd open_fuse_device() {
    unique_fd device{::open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK)};
    if (!device) {
        throw failed_call("cannot open /dev/fuse; load the kernel's fuse module and let this user "
                          "read and write the device");
    }
    return device;
}

} // namespace

file_system::file_system(driver& answering, proc_view& real, const sysfs_view& real_sysfs,
                         shown_files shown)
    : _state{new state{answering, real, real_sysfs, shown}} {
    const auto operations = state::operations();
    std::string name = "tarvo-sandbox";
    char* arguments[] = {name.data(), nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, &arguments[0]);
    _session.reset(fuse_session_new(&args, &operations, sizeof operations, _state.get()));
    if (!_session) {
        throw trouble{"cannot start libfuse"};
    }
}

file_system::~file_system() {
    std::free(_buffer.mem);
}

void file_system::mount() {
    unique_fd device = open_fuse_device();
    const std::string number = std::to_string(device.get());
    const std::string options =
        "fd=" + number + ",rootmode=40000,user_id=0,group_id=0,allow_other,default_permissions";
    if (::mount("tarvo-sandbox", "/proc", "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        throw failed_call("cannot mount a FUSE file system over /proc");
    }
    // The mount exists already: the session takes over its descriptor and then owns it.
    if (fuse_session_mount(_session.get(), ("/dev/fd/" + number).c_str()) != 0) {
        throw trouble{"libfuse refuses the mount over /proc"};
    }
    static_cast<void>(device.release());
}

void file_system::answer_request() {
    const int length = fuse_session_receive_buf(_session.get(), &_buffer);
    // Nothing there after all, or the caller was killed in between.
    if (length <= 0) {
        return;
    }
    fuse_session_process_buf(_session.get(), &_buffer);
}

} // namespace sandbox
