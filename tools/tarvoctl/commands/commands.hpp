#pragma once

#include "command_words.hpp"
#include "common/exit_status.hpp"

#include <cstddef>
#include <functional>
#include <string_view>

namespace tarvoctl {

struct command_entry {
    const char* name;
    const char* heading; ///< under which the help lists it
    const char* purpose;
};

inline constexpr const char* looking = "Looking";
inline constexpr const char* changing = "Changing";
inline constexpr const char* repairing = "Checking and repairing";

/// All commands, in the order in which the help lists them. A command that is not entered here does
/// not compile, and one that is entered but not written does not link.
inline constexpr command_entry all_commands[] = {
    {"list", looking, "the chunks, in ascending address"},
    {"show", looking, "one chunk in full, with its neighbours and its users"},
    {"devices", looking, "the registered devices and how many chunks each sees"},
    {"who", looking, "the processes that have chunks mapped, and what they see of them"},
    {"lock", looking, "who holds the cross-process lock, who waits for it"},
    {"leaks", looking, "chunks that nobody seems to need any more; frees nothing"},
    {"map", looking, "a picture of the region: chunks and gaps to scale"},
    {"snapshot", looking, "a consistent copy of the area, for later"},
    {"diff", looking, "what changed between two snapshots, or since one"},
    {"watch", looking, "changes of chunks and devices as they happen"},
    {"top", looking, "the region, its chunks and devices on the whole screen, as they change"},
    {"read", looking, "what is in a chunk, as a hex dump or raw"},
    {"find", looking, "the chunk that a DMA address lies in"},
    {"translate", looking, "the physical address of a DMA address, and back"},
    {"limits", looking, "where the region lies, for devices and for processors"},
    {"dump", looking, "the library's own listing, byte for byte"},
    {"alloc", changing, "get the chunk of a name: the existing one, or a new one"},
    {"free", changing, "free the chunk of a name, for everybody; asks first, with who has it"},
    {"write", changing, "copy standard input into a chunk"},
    {"fill", changing, "set all bytes of a chunk"},
    {"register", changing, "let a device see every chunk, or revive one that is offline"},
    {"unregister", changing, "unmap all chunks for a device; asks first, with what it sees"},
    {"iommu-map", changing, "map the whole region for a device, off the record"},
    {"iommu-unmap", changing, "undo iommu-map"},
    {"doctor", repairing, "what is wrong with files, drivers, area and users, each with the fix"},
    {"check", repairing, "every rule of the area, live or of a copy"},
    {"repair", repairing, "make the area whole after a process died in the middle of a change"},
};

/// The position of a command in the table.
consteval size_t entry_of(std::string_view name) {
    size_t entry = 0;
    while (all_commands[entry].name != name) { // beyond the end is not a constant expression
        ++entry;
    }
    return entry;
}

/// What a command does once its words are parsed.
using action = std::function<exit_status()>;

/// Adds the words that a command understands. Specialised in the file of each command.
template <size_t entry>
action set_up(command_words& words);

} // namespace tarvoctl
