#include "platform/notice.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>

#include "platform/platform_log.h"
#include "platform/simulated/state_dir.h"

bool show_notice(const notification_s &notice) {
    using nlohmann::json;
    const json object = {{"time", static_cast<int64_t>(time(nullptr))},
                         {"type", notice.type},
                         {"text", notice.text},
                         {"hide_timeout", notice.hide_timeout},
                         {"auto_remove", notice.auto_remove},
                         {"applist", notice.applist}};
    const std::string line = object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    const std::string path = state_path("notifications.jsonl");
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
    const bool written = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (!written) PLATFORM_LOGW("cannot write %s (%d:%m)", path.c_str(), errno);
    if (fd >= 0) close(fd);
    return written;
}
