#include "tools/dump/source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/dump/text.h"

namespace vestra_dump {

constexpr uint64_t kLongFile = uint64_t{16} << 20;  // bytes; a shorter one is read at once

int64_t MemorySource::read(uint8_t *out, size_t count) {
    count = std::min(count, left_.size());
    if (count > 0) std::memcpy(out, left_.data(), count);
    left_.remove_prefix(count);
    return static_cast<int64_t>(count);
}

std::unique_ptr<FileSource> FileSource::open(const std::string &path, std::string *error) {
    const int fd = path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || S_ISDIR(status.st_mode)) {
        *error = std::strerror(fd >= 0 && S_ISDIR(status.st_mode) ? EISDIR : errno);
        if (fd >= 0) ::close(fd);
        return nullptr;
    }
    std::optional<uint64_t> size;
    if (S_ISREG(status.st_mode) && path != "-") size = static_cast<uint64_t>(status.st_size);
    if (size) posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return std::unique_ptr<FileSource>(new FileSource(fd, printable(path), size));
}

FileSource::FileSource(int fd, std::string path, std::optional<uint64_t> size)
    : fd_(fd), path_(std::move(path)), size_(size) {}

FileSource::~FileSource() {
    clear_progress();
    ::close(fd_);
}

int64_t FileSource::read(uint8_t *out, size_t count) {
    for (;;) {
        const ssize_t got = ::read(fd_, out, count);
        if (got < 0 && errno == EINTR) continue;
        if (got > 0) done_ += static_cast<uint64_t>(got);
        if (progress_ && got > 0) report_progress();
        if (got <= 0) clear_progress();
        return got;
    }
}

bool FileSource::seek(uint64_t offset) {
    done_ = offset;
    return lseek(fd_, static_cast<off_t>(offset), SEEK_SET) >= 0;
}

bool FileSource::is_same_file(const std::string &path) const {
    struct stat mine {
    }, other{};
    return fstat(fd_, &mine) == 0 && stat(path.c_str(), &other) == 0 && S_ISREG(mine.st_mode) &&
           mine.st_dev == other.st_dev && mine.st_ino == other.st_ino;
}

void FileSource::clear_progress() {
    if (shown_percent_ >= 0) std::fprintf(stderr, "\r\033[K");
    shown_percent_ = -1;
}

void FileSource::report_progress() {
    if (!size_ || *size_ < kLongFile) return;
    const int percent = static_cast<int>(std::min<uint64_t>(100, done_ * 100 / *size_));
    if (percent == shown_percent_) return;
    if (shown_percent_ < 0 && isatty(STDERR_FILENO) == 0) {
        progress_ = false;
        return;
    }
    shown_percent_ = percent;
    std::fprintf(stderr, "\r%s: %3d %%", path_.c_str(), percent);
    std::fflush(stderr);
}

}  // namespace vestra_dump
