#pragma once

#include "image.hpp"
#include "prediction.hpp"
#include "script.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace model {

/// Where the library and the model part.
struct difference {
    size_t step;      ///< position among the steps, from 0
    std::string text; ///< what was expected and what was seen
};

/// What differs in what a step brought about; nothing if all is alike.
std::optional<std::string> difference_of(const outcome& expected, const outcome& seen);

/// What differs in the shared area. All of it, or only what steps can have changed?
enum class area_part { all, what_changes };
std::optional<std::string> difference_of(const shared_area& expected, image& bytes,
                                         std::optional<std::span<const uint8_t>> seen,
                                         area_part part);

/// Gives the next step, or none at the end.
using step_source = std::function<std::optional<step>(const prediction& now)>;

/// What a comparison came to.
struct verdict {
    script played; ///< what was carried out: steps that meant nothing are left out
    std::optional<difference> found;
};

/// Plays the steps on a fresh machine and on a fresh model, up to the first difference.
verdict play(const playground& where, const step_source& source);

/// The steps of a script, one after the other.
step_source steps_of(const script& all);

} // namespace model
