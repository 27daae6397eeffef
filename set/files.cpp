#include "set/files.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "set/fd.h"

namespace vestra_set {

std::optional<std::string> read_all(int fd, size_t limit) {
    std::string text;
    std::array<char, 16384> buffer;
    for (;;) {
        const ssize_t count = read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) return text;
        text.append(buffer.data(), static_cast<size_t>(count));
        if (text.size() > limit) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
}

std::optional<std::string> read_file(const std::string &path, size_t limit) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd.valid() ? read_all(fd.get(), limit) : std::nullopt;
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

bool write_file(const std::string &path, std::string_view text) {
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd.valid() && write_all(fd.get(), text);
}

bool make_directories(const std::string &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    errno = error.value();
    return !error;
}

}  // namespace vestra_set
