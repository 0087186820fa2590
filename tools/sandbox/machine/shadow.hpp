#pragma once

#include <set>
#include <string>

namespace sandbox {

/// Covers a folder with a tmpfs that shows the same entries, except those left out, so that entries
/// can be added without touching the machine. Folders are bound, links copied; anything else, a
/// device for instance, becomes a link into a hidden folder with the original: a bound /dev/ptmx
/// would not find its pts. Throws trouble.
void shadow_folder(const std::string& path, const std::set<std::string>& left_out);

/// Covers a folder with another one, which has a folder for each of its folders, to be bound there,
/// and a hidden one for all of the original. Throws trouble.
void substitute_folder(const std::string& path, const std::string& substitute);

/// Makes target, an empty file, show the file source. Throws trouble.
void bind_file(const std::string& source, const std::string& target);

/// Makes target, a new folder, show the folder source with all that is mounted in it.
void bind_folder(const std::string& source, const std::string& target);

/// A new folder with exactly that mode, whatever the umask. Throws trouble.
void make_folder(const std::string& path, unsigned mode);

} // namespace sandbox
