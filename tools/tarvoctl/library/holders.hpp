#pragma once

#include "area/records.hpp"
#include "host/mappings.hpp"

#include <string>
#include <sys/types.h>
#include <vector>

namespace tarvoctl {

/// The processes that have some of a chunk mapped, in ascending order.
std::vector<pid_t> holders_of(const chunk_record& chunk, const mapped_memory& memory);

/// Whether a change that `effects`, in sentences, speaks against may be made: --force says so, or
/// a person at the terminal. Where there is none, only a change that nothing speaks against. The
/// effects are told on standard error.
bool may_change(const std::vector<std::string>& effects, bool force, const std::string& question);

} // namespace tarvoctl
