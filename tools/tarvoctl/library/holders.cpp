#include "library/holders.hpp"

#include "output/confirm.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

std::vector<pid_t> holders_of(const chunk_record& chunk, const mapped_memory& memory) {
    std::vector<pid_t> found;
    for (const auto& mapping : memory.mappings) {
        if (shown_of(mapping, chunk.pa, chunk.end_pa()))
            found.push_back(mapping.pid);
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

bool may_change(const std::vector<std::string>& effects, bool force, const std::string& question) {
    for (const auto& effect : effects)
        fmt::print(stderr, "tarvoctl: {}\n", effect);
    if (force || (effects.empty() && ::isatty(STDIN_FILENO) == 0))
        return true;
    if (confirmed(question))
        return true;
    fmt::print(stderr, "tarvoctl: nothing was changed; --force does it without asking\n");
    return false;
}

} // namespace tarvoctl
