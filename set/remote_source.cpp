#include "set/remote_source.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vestra_set {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ModuleControl, tracing, disk_read, disk_write, temperature, names, pids)

namespace {

using nlohmann::json;

constexpr uint32_t kControlLimit = 64 * 1024;

bool receive_all(int socket, void *data, size_t size) {
    auto *bytes = static_cast<uint8_t *>(data);
    while (size > 0) {
        const ssize_t count = recv(socket, bytes, size, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

bool send_all(int socket, const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    while (size > 0) {
        const ssize_t count = send(socket, bytes, size, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

class RemoteSource : public TraceSource {
  public:
    explicit RemoteSource(UniqueFd socket) : socket_(std::move(socket)) {}

    size_t next_block(uint8_t *out, size_t capacity) override {
        if (!socket_.valid()) return 0;
        const uint32_t request[2] = {static_cast<uint32_t>(std::min<size_t>(capacity, kBlockMax)),
                                     static_cast<uint32_t>(control_.size())};
        uint32_t size = 0;
        if (!send_all(socket_.get(), request, sizeof request) ||
            !send_all(socket_.get(), control_.data(), control_.size()) ||
            !receive_all(socket_.get(), &size, sizeof size) || size > request[0] ||
            !receive_all(socket_.get(), out, size)) {
            socket_.reset();
            return 0;
        }
        control_.clear();
        return size;
    }

    void apply(const ModuleControl &control) override {
        control_ = json(control).dump(-1, ' ', false, json::error_handler_t::replace);
    }

  private:
    UniqueFd socket_;
    std::string control_;  // not told yet; empty when all is
};

}  // namespace

bool source_pair(UniqueFd *outside, UniqueFd *inside) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return false;
    outside->reset(fds[0]);
    inside->reset(fds[1]);
    return true;
}

void serve_source(int socket, TraceSource &source) {
    std::vector<uint8_t> block(kBlockMax);
    uint32_t request[2];
    while (receive_all(socket, request, sizeof request)) {
        if (request[0] > kBlockMax || request[1] > kControlLimit) return;
        std::string control(request[1], '\0');
        if (!receive_all(socket, control.data(), control.size())) return;
        if (!control.empty()) {
            const json parsed = json::parse(control, nullptr, false);
            if (!parsed.is_object()) return;
            source.apply(parsed.get<ModuleControl>());
        }
        const auto size = static_cast<uint32_t>(source.next_block(block.data(), request[0]));
        if (!send_all(socket, &size, sizeof size) || !send_all(socket, block.data(), size)) return;
    }
}

std::unique_ptr<TraceSource> remote_source(UniqueFd socket) {
    return std::make_unique<RemoteSource>(std::move(socket));
}

}  // namespace vestra_set
