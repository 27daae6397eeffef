#include "tools/dump/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace vestra_dump {

std::unique_ptr<Output> Output::open(const std::string &path, std::string *error) {
    std::unique_ptr<Output> out(new Output);
    struct stat status {};
    const bool exists = path != "-" && stat(path.c_str(), &status) == 0;
    if (path == "-") {
        out->fd_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    } else if (exists && !S_ISREG(status.st_mode)) {
        out->fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    } else if (!exists || access(path.c_str(), W_OK) == 0) {
        // A link stays a link, even one to a file that does not exist yet.
        std::error_code failed;
        std::filesystem::path full = path;
        if (!exists && std::filesystem::is_symlink(full, failed)) {
            full = full.parent_path() / std::filesystem::read_symlink(full, failed);
        }
        full = std::filesystem::weakly_canonical(full, failed);
        out->target_ = failed ? path : full.string();
        // Hidden, because an engine that reads a directory must not read what is not complete.
        const std::filesystem::path target = out->target_;
        out->temporary_ = (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
        out->fd_ = mkostemp(out->temporary_.data(), O_CLOEXEC);
        if (out->fd_ < 0) {
            out->temporary_.clear();
        } else {
            const mode_t mask = umask(0);
            umask(mask);
            // The owner first, because that clears bits of the mode. Only root may give a file away.
            const bool same_owner = exists && fchown(out->fd_, status.st_uid, status.st_gid) == 0;
            const mode_t kept = same_owner ? 07777 : 0777;
            fchmod(out->fd_, exists ? status.st_mode & kept : 0666 & ~mask);
        }
    }
    if (out->fd_ >= 0) return out;
    *error = std::strerror(errno);
    return nullptr;
}

Output::~Output() {
    if (fd_ >= 0) ::close(fd_);
    if (!temporary_.empty()) unlink(temporary_.c_str());
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

bool Output::complete(std::string *error) {
    flush();
    if (fd_ >= 0 && ::close(fd_) != 0 && error_ == 0) error_ = errno;
    fd_ = -1;
    if (error_ != 0) *error = std::strerror(error_);
    return error_ == 0;
}

bool Output::close(std::string *error) {
    if (complete(error) && !temporary_.empty()) {
        if (rename(temporary_.c_str(), target_.c_str()) == 0) {
            temporary_.clear();
        } else {
            error_ = errno;
        }
    }
    if (error_ == 0) return true;
    *error = std::strerror(error_);
    return false;
}

}  // namespace vestra_dump
