#pragma once

#include <string>

namespace tarvoctl {

/// Why the memory device cannot be opened, and what helps.
struct memory_refusal {
    std::string text;
    std::string fix;
};

/// After an open for reading and writing that failed with that error.
memory_refusal refusal_of_memory(int error);

} // namespace tarvoctl
