#include "tools/dump/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vestra_dump {

std::unique_ptr<Output> Output::open(const std::string &path, std::string *error) {
    const int fd = path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                               : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        *error = std::strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<Output>(new Output(fd));
}

Output::~Output() {
    if (fd_ >= 0) ::close(fd_);
}

void Output::flush() {
    std::string_view left = buffer_;
    while (!left.empty() && error_ == 0) {
        const ssize_t written = ::write(fd_, left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
            error_ = errno;
        }
    }
    buffer_.clear();
}

bool Output::close(std::string *error) {
    flush();
    if (::close(fd_) != 0 && error_ == 0) error_ = errno;
    fd_ = -1;
    if (error_ == 0) return true;
    *error = std::strerror(error_);
    return false;
}

}  // namespace vestra_dump
