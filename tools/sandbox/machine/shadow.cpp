#include "machine/shadow.hpp"

#include "common/trouble.hpp"
#include "common/unique_fd.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>

namespace sandbox {

namespace {

constexpr const char* hidden_name = ".host";

void bind_mount(const std::string& source, const std::string& target, unsigned long flags) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | flags, nullptr) != 0) {
        throw failed_call("cannot bind " + source + " to " + target);
    }
}

unique_fd clone_folder(const std::string& path) {
    unique_fd original{
        ::open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE)};
    if (!original) {
        throw failed_call("cannot clone the mount of " + path);
    }
    return original;
}

void move_into_hidden_folder(const unique_fd& original, const std::string& path) {
    const std::string hidden = path + "/" + hidden_name;
    if (::move_mount(original.get(), "", AT_FDCWD, hidden.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0) {
        throw failed_call("cannot mount the original of " + path);
    }
}

void copy_link(const std::string& source, const std::string& target) {
    std::string text(PATH_MAX, '\0');
    const ssize_t length = ::readlink(source.c_str(), text.data(), text.size());
    if (length < 0) {
        return;
    }
    text.resize(static_cast<size_t>(length));
    if (::symlink(text.c_str(), target.c_str()) != 0) {
        throw failed_call("cannot make " + target);
    }
}

/// An entry that vanished since it was listed is left out.
void show_entry(const std::string& path, const std::string& name) {
    const std::string source = path + "/" + hidden_name + "/" + name;
    const std::string target = path + "/" + name;
    struct stat found {};
    if (::lstat(source.c_str(), &found) != 0) {
        return;
    }
    if (S_ISDIR(found.st_mode)) {
        bind_folder(source, target);
    } else if (S_ISLNK(found.st_mode)) {
        copy_link(source, target);
    } else if (::symlink((std::string{hidden_name} + "/" + name).c_str(), target.c_str()) != 0) {
        throw failed_call("cannot make " + target);
    }
}

void show_entries(const std::string& path, const std::set<std::string>& left_out) {
    const std::string hidden = path + "/" + hidden_name;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream{::opendir(hidden.c_str()), &::closedir};
    if (!stream) {
        throw failed_call("cannot list " + path);
    }
    while (const dirent* const entry = ::readdir(stream.get())) {
        const std::string name{&entry->d_name[0]};
        if (name != "." && name != ".." && name != hidden_name && !left_out.contains(name)) {
            show_entry(path, name);
        }
    }
}

} // namespace

void make_folder(const std::string& path, unsigned mode) {
    if (::mkdir(path.c_str(), mode) != 0 || ::chmod(path.c_str(), mode) != 0) {
        throw failed_call("cannot make the folder " + path);
    }
}

void bind_folder(const std::string& source, const std::string& target) {
    make_folder(target, 0755);
    // Recursively, because a user namespace may not look below what is mounted there.
    bind_mount(source, target, MS_REC);
}

void bind_file(const std::string& source, const std::string& target) {
    const unique_fd placed{::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    if (!placed) {
        throw failed_call("cannot make " + target);
    }
    bind_mount(source, target, 0);
}

void shadow_folder(const std::string& path, const std::set<std::string>& left_out) {
    const unique_fd original = clone_folder(path);
    if (::mount("tarvo-sandbox", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        throw failed_call("cannot mount a tmpfs over " + path);
    }
    make_folder(path + "/" + hidden_name, 0755);
    move_into_hidden_folder(original, path);
    show_entries(path, left_out);
}

void substitute_folder(const std::string& path, const std::string& substitute) {
    const unique_fd original = clone_folder(path);
    bind_mount(substitute, path, 0);
    move_into_hidden_folder(original, path);
    const auto hidden = std::filesystem::path(path) / hidden_name;
    for (const auto& shown : std::filesystem::directory_iterator(path)) {
        if (shown.symlink_status().type() == std::filesystem::file_type::directory) {
            bind_mount(hidden / shown.path().filename(), shown.path(), MS_REC);
        }
    }
}

} // namespace sandbox
