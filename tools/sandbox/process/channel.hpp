#pragma once

#include "common/unique_fd.hpp"

#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace sandbox {

/// A message between the tool's processes: one JSON object per packet of a Unix socket, with file
/// descriptors attached.
struct message {
    nlohmann::json body;
    std::vector<unique_fd> fds;
};

/// False when the other side is gone.
bool send_message(int socket, const nlohmann::json& body, const std::vector<int>& fds = {});

/// None when the other side is gone or sends anything else.
std::optional<message> receive_message(int socket);

} // namespace sandbox
