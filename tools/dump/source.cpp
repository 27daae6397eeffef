#include "tools/dump/source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

constexpr uint64_t kLongFile = uint64_t{16} << 20;  // bytes; a shorter one is read at once

}  // namespace

int temporary_file() {
    const char *directory = std::getenv("TMPDIR");
    std::string path =
        std::string(directory != nullptr && *directory != '\0' ? directory : "/var/tmp") + "/vestra-dump-XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd >= 0) unlink(path.c_str());
    return fd;
}

int64_t MemorySource::read_at(uint64_t offset, uint8_t *out, size_t count) {
    if (offset >= bytes_.size()) return 0;
    const std::string_view there = bytes_.substr(static_cast<size_t>(offset), count);
    std::memcpy(out, there.data(), there.size());
    return static_cast<int64_t>(there.size());
}

std::unique_ptr<FileSource> FileSource::open(const std::string &path, std::string *error) {
    const int fd = path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || S_ISDIR(status.st_mode)) {
        *error = std::strerror(fd >= 0 && S_ISDIR(status.st_mode) ? EISDIR : errno);
        if (fd >= 0) ::close(fd);
        return nullptr;
    }
    std::unique_ptr<FileSource> source(new FileSource(fd, printable(path)));
    if (S_ISREG(status.st_mode)) {
        const off_t begin = path == "-" ? lseek(fd, 0, SEEK_CUR) : 0;
        source->begin_ = begin > 0 ? static_cast<uint64_t>(begin) : 0;
        source->size_ =
            static_cast<uint64_t>(status.st_size) - std::min(static_cast<uint64_t>(status.st_size), source->begin_);
        posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    } else if (!source->spool()) {
        *error = std::string("cannot be copied to a temporary file: ") + std::strerror(errno);
        return nullptr;
    }
    return source;
}

// Replaces the descriptor with one of a temporary file that has the same bytes. False with errno.
bool FileSource::spool() {
    const int copy = temporary_file();
    if (copy < 0) return false;
    const int pipe = fd_;
    fd_ = copy;
    std::vector<uint8_t> buffer(size_t{1} << 17);
    bool good = true;
    for (ssize_t got = 1; good && got != 0;) {
        got = ::read(pipe, buffer.data(), buffer.size());
        if (got < 0) good = errno == EINTR;
        for (ssize_t done = 0; good && done < got;) {
            const ssize_t written = ::write(copy, buffer.data() + done, static_cast<size_t>(got - done));
            if (written < 0) good = errno == EINTR;
            done += std::max<ssize_t>(written, 0);
        }
        size_ += static_cast<uint64_t>(std::max<ssize_t>(got, 0));
    }
    const int problem = errno;
    ::close(pipe);
    errno = problem;
    return good;
}

FileSource::~FileSource() {
    clear_progress();
    ::close(fd_);
}

int64_t FileSource::read_at(uint64_t offset, uint8_t *out, size_t count) {
    if (offset >= size_) {
        clear_progress();
        return 0;
    }
    count = static_cast<size_t>(std::min<uint64_t>(count, size_ - offset));
    ssize_t got = 0;
    do {
        got = ::pread(fd_, out, count, static_cast<off_t>(begin_ + offset));
    } while (got < 0 && errno == EINTR);
    if (got > 0 && progress_) report_progress(offset + static_cast<uint64_t>(got));
    return got;
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

void FileSource::report_progress(uint64_t done) {
    if (size_ < kLongFile) return;
    const int percent = static_cast<int>(done * 100 / size_);
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
