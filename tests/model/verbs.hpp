#pragma once

#include "library_model.hpp"
#include "script.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace model {

/// When a call waits for the cross-process lock.
enum class lock_use { always, to_start, never };

/// What a verb works on.
struct verb_context {
    machine_state& machine;
    process_state& caller;
    library& tarvo;
    const step& what;
};

/// What a client can be ordered, and what it replies. Replies are those of tarvo-client, but where
/// those show addresses of the process: a mapping is shown by what is mapped there.
struct verb {
    const char* name;
    size_t words;
    lock_use uses;
    std::string (*carry_out)(const verb_context& context);
};

/// Null for a verb that is not known.
const verb* find_verb(const std::string& name);

/// Whether what the step names is there, and it leads where the text leads.
bool makes_sense(const machine_state& machine, const process_state& caller, const step& one);

} // namespace model
