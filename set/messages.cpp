#include "set/messages.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

namespace vestra_set {
namespace {

constexpr size_t kDescriptorLimit = 8;

}  // namespace

bool message_pair(UniqueFd *one, UniqueFd *other) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) return false;
    one->reset(fds[0]);
    other->reset(fds[1]);
    return true;
}

bool send_message(int socket, const nlohmann::json &message, const std::vector<int> &fds) {
    // An argument need not be UTF-8; what is not travels as a replacement character rather than not at all.
    std::string text = message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (text.size() > kMessageLimit || fds.size() > kDescriptorLimit) {
        errno = E2BIG;
        return false;
    }
    const int buffer_size = static_cast<int>(kMessageLimit);
    if (text.size() > 64 * 1024) setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &buffer_size, sizeof buffer_size);

    iovec piece{text.data(), text.size()};
    msghdr header{};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kDescriptorLimit)> control{};
    if (!fds.empty()) {
        header.msg_control = control.data();
        header.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr *entry = CMSG_FIRSTHDR(&header);
        entry->cmsg_level = SOL_SOCKET;
        entry->cmsg_type = SCM_RIGHTS;
        entry->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        std::memcpy(CMSG_DATA(entry), fds.data(), sizeof(int) * fds.size());
    }
    ssize_t sent;
    do {
        sent = sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(text.size());
}

std::optional<nlohmann::json> receive_message(int socket, std::vector<UniqueFd> *fds) {
    ssize_t size;
    do {
        size = recv(socket, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    } while (size < 0 && errno == EINTR);
    if (size <= 0 || static_cast<size_t>(size) > kMessageLimit) return std::nullopt;

    std::string text(static_cast<size_t>(size), '\0');
    iovec piece{text.data(), text.size()};
    msghdr header{};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kDescriptorLimit)> control{};
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    do {
        size = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    } while (size < 0 && errno == EINTR);
    if (size <= 0) return std::nullopt;
    for (cmsghdr *entry = CMSG_FIRSTHDR(&header); entry != nullptr; entry = CMSG_NXTHDR(&header, entry)) {
        if (entry->cmsg_level != SOL_SOCKET || entry->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (entry->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(entry) + i * sizeof(int), sizeof fd);
            UniqueFd owned(fd);
            if (fds != nullptr) fds->push_back(std::move(owned));
        }
    }
    auto message = nlohmann::json::parse(text.begin(), text.begin() + size, nullptr, false);
    if (!message.is_object()) return std::nullopt;
    return message;
}

}  // namespace vestra_set
