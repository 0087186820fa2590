#pragma once

#include "world.hpp"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace model {

/// Who does a step that no client does: the machine itself.
inline constexpr int the_machine = -1;

/// One thing that a client, or the machine, is ordered to do.
struct step {
    int who = the_machine; ///< number of the client, from 0
    std::string verb;
    std::vector<std::optional<std::string>> words; ///< nothing: a null pointer

    const std::string& word(size_t i) const { return words.at(i).value(); }
    uint64_t number(size_t i) const;
    uint32_t number_32(size_t i) const { return static_cast<uint32_t>(number(i)); }
    bool has_null() const;

    bool operator==(const step&) const = default;
};

/// Where steps are played.
struct playground {
    std::string world_name;
    std::string region; ///< "START-END" in hexadecimal, both included; empty: the world's own
    int processes = 1;

    /// Throws std::runtime_error for a world that does not exist.
    world place() const;
    /// What tarvo-sandbox is given beyond the world's name.
    std::vector<std::string> options() const;
};

/// A whole sequence, as it is printed for a failure and read for a replay.
struct script {
    playground where;
    std::vector<step> steps;
};

std::string shown(const step& one);
std::string shown(const script& all);

/// Both throw std::runtime_error with the line that is wrong.
step parse_step(const std::string& line);
script read_script(const std::filesystem::path& path);

} // namespace model
