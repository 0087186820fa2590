#pragma once

#include "script.hpp"

#include <functional>

namespace model {

/// Whether a script still shows what is looked for.
using script_test = std::function<bool(const script& tried)>;

/// Leaves out what can be left out: first large parts, then single steps, until none can go or
/// `fails` was asked `most_tries` times.
script shrink(script failing, const script_test& fails, int most_tries);

} // namespace model
