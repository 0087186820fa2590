#pragma once

#include "host/lock_state.hpp"
#include "output/process_text.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

enum class lock_role {
    holds,  ///< took the lock and has it
    shares, ///< has the holder's open file, by fork: the lock outlives the holder in it
    keeps,  ///< has it from a process that ended, by fork: nobody else can give it back
    waits,
};

struct lock_party {
    lock_role role;
    pid_t pid;
};

/// All that have to do with a lock, the ones that wait in their order.
std::vector<lock_party> parties_of(const lock_state& lock);

/// "nobody waits", "2 wait"
std::string waiting_text(const lock_state& lock);

/// Something wrong with who has the lock.
struct lock_trouble {
    std::string text; ///< a sentence, with what helps
    std::string fix;  ///< only that
};

std::vector<lock_trouble> lock_troubles(const lock_state& lock, process_table& processes);

} // namespace tarvoctl
