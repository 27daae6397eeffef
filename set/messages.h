// Messages between the launcher, the set's first process and the remote control.
//
// One message is one packet of a SOCK_SEQPACKET socket: a JSON object, with up to eight descriptors beside it. All
// parties are the same program run by the same user; the sockets are reachable by nobody else.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "set/fd.h"

namespace vestra_set {

// The largest message in bytes: an argument list is what makes one long.
constexpr size_t kMessageLimit = 512 * 1024;

// A connected pair of message sockets, close-on-exec. False with errno set on failure.
bool message_pair(UniqueFd *one, UniqueFd *other);

// Sends `message` with copies of `fds`; false with errno set when it cannot be sent. Never raises SIGPIPE.
bool send_message(int socket, const nlohmann::json &message, const std::vector<int> &fds = {});

// Waits for the next message. Nothing when the other side has gone, or sent what is not a JSON object. Descriptors that
// came along are moved into `fds` (close-on-exec), or closed where it is null.
std::optional<nlohmann::json> receive_message(int socket, std::vector<UniqueFd> *fds = nullptr);

}  // namespace vestra_set
