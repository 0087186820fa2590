#include "process/channel.hpp"

#include <array>
#include <cstring>
#include <string>
#include <sys/socket.h>

namespace sandbox {

namespace {

/// Namespaces and the real /proc travel together; nothing sends more.
constexpr size_t most_fds = 4;

/// Room for some thousand rules.
constexpr size_t message_bytes = size_t{128} * 1024;

struct control_data {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * most_fds)> bytes{};
};

void attach(msghdr& header, control_data& control, const std::vector<int>& fds) {
    const size_t length = sizeof(int) * fds.size();
    header.msg_control = control.bytes.data();
    header.msg_controllen = CMSG_SPACE(length);
    cmsghdr* const part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(length);
    std::memcpy(CMSG_DATA(part), fds.data(), length);
}

std::vector<unique_fd> detach(const msghdr& header) {
    std::vector<unique_fd> fds;
    const cmsghdr* const part = CMSG_FIRSTHDR(&header);
    if (part == nullptr || part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
        return fds;
    }
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
        fds.emplace_back(fd);
    }
    return fds;
}

} // namespace

bool send_message(int socket, const nlohmann::json& body, const std::vector<int>& fds) {
    std::string text = body.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    iovec payload{text.data(), text.size()};
    control_data control;
    msghdr header{};
    header.msg_iov = &payload;
    header.msg_iovlen = 1;
    if (!fds.empty()) {
        attach(header, control, fds);
    }
    return ::sendmsg(socket, &header, MSG_NOSIGNAL) >= 0;
}

std::optional<message> receive_message(int socket) {
    std::string text(message_bytes, '\0');
    iovec payload{text.data(), text.size()};
    control_data control;
    msghdr header{};
    header.msg_iov = &payload;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes.data();
    header.msg_controllen = control.bytes.size();
    const ssize_t length = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    if (length <= 0) {
        return std::nullopt;
    }
    message received{{}, detach(header)};
    text.resize(static_cast<size_t>(length));
    received.body = nlohmann::json::parse(text, nullptr, false);
    if (!received.body.is_object()) {
        return std::nullopt;
    }
    return received;
}

} // namespace sandbox
