#include "host/mappings.hpp"

#include "host/file_identity.hpp"
#include "host/maps.hpp"
#include "host/processes.hpp"

#include <algorithm>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace tarvoctl {

namespace {

bool is_device(const std::string& path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISCHR(found.st_mode);
}

class map_reader {
  public:
    explicit map_reader(const site& here)
        : _memory_path{here.memory}, _removed_memory_path{here.memory + removed_mark},
          _removed_area_path{here.area + removed_mark}, _memory{mapped_identity_of(here.memory)},
          _area{mapped_identity_of(here.area)}, _memory_is_device{is_device(here.memory)} {}

    void read(pid_t pid) {
        const proc_text maps = read_proc(pid, "maps");
        if (maps.error != 0) {
            if (!maps.is_gone()) {
                _found.unseen.push_back(pid);
            }
            return;
        }
        bool uses_area = false;
        bool uses_removed = false;
        for_each_file_mapping(maps.text, [&](const maps_line& line) {
            uses_area = uses_area || line.file == _area;
            uses_removed = uses_removed || line.path == _removed_area_path;
            if (shows_memory(line)) {
                add(pid, line, false);
            } else if (line.path == _removed_memory_path && shares_our_mounts(pid)) {
                add(pid, line, true);
            }
        });
        if (uses_area) {
            _found.users.push_back(pid);
        }
        if (uses_removed && shares_our_mounts(pid)) {
            _found.users_of_removed.push_back(pid);
        }
        if ((uses_area || uses_removed) && has_removed_memory(pid)) {
            _found.users_of_removed_memory.push_back(pid);
        }
    }

    mapped_memory take() {
        std::ranges::sort(_found.mappings, {}, [](const region_mapping& each) {
            return std::tie(each.pa, each.pid, each.va);
        });
        return std::move(_found);
    }

  private:
    /// A container may have a device node of its own, another inode, for the same memory. So may a
    /// node that was made anew.
    bool shows_memory(const maps_line& line) const {
        return line.file == _memory || (_memory_is_device && (line.path == _memory_path ||
                                                              line.path == _removed_memory_path));
    }

    /// The library keeps it open, whether anything is mapped or not.
    bool has_removed_memory(pid_t pid) const {
        const auto descriptors = descriptors_of(pid).value_or(std::vector<int>{});
        return !_memory_is_device && shares_our_mounts(pid) &&
               std::ranges::any_of(descriptors, [&](int descriptor) {
                   return file_of(pid, descriptor) == _removed_memory_path;
               });
    }

    void add(pid_t pid, const maps_line& line, bool removed) {
        const auto has = [&line](char letter) {
            return line.permissions.find(letter) != std::string::npos;
        };
        _found.mappings.push_back({pid, line.start, line.file_offset, line.end - line.start,
                                   has('r'), has('w'), has('s'), removed});
    }

    std::string _memory_path;
    std::string _removed_memory_path;
    std::string _removed_area_path;
    std::optional<file_identity> _memory;
    std::optional<file_identity> _area;
    bool _memory_is_device;
    mapped_memory _found;
};

} // namespace

bool mapped_memory::root_would_see_more() const {
    return !is_complete() && ::geteuid() != 0;
}

mapped_memory mappings_of(const site& here) {
    map_reader reader{here};
    for (const pid_t pid : all_processes()) {
        if (pid != ::getpid()) {
            reader.read(pid);
        }
    }
    mapped_memory found = reader.take();
    constexpr pid_t first_process = 1;
    found.others_hidden = read_proc(first_process, "stat").is_gone();
    return found;
}

std::optional<pa_window> shown_of(const region_mapping& mapping, uint64_t pa, uint64_t end_pa) {
    const pa_window both{std::max(mapping.pa, pa), std::min(mapping.end_pa(), end_pa)};
    return both.pa < both.end_pa ? std::optional{both} : std::nullopt;
}

std::vector<pid_t> holders_of(const chunk_record& chunk, const mapped_memory& memory) {
    std::vector<pid_t> found;
    for (const auto& mapping : memory.mappings) {
        if (shown_of(mapping, chunk.pa, chunk.end_pa())) {
            found.push_back(mapping.pid);
        }
    }
    std::ranges::sort(found);
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

bool shows_all_of(const region_mapping& mapping, const dma_window& region) {
    return mapping.pa <= region.first_pa && region.end_pa <= mapping.end_pa();
}

} // namespace tarvoctl
