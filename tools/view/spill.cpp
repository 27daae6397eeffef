#include "tools/view/spill.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/dump/source.h"

namespace vestra_view {

constexpr size_t kPiece = size_t{64} * 1024;  // bytes that are written at once

Bytes::~Bytes() {
    if (file_ >= 0) close(file_);
}

void Bytes::add(const void *bytes, size_t count) {
    const char *begin = static_cast<const char *>(bytes);
    kept_.insert(kept_.end(), begin, begin + count);
    if (kept_.size() >= limit_) move_to_file();
}

void Bytes::move_to_file() {
    if (file_ < 0) {
        file_ = vestra_dump::temporary_file();
        limit_ = kPiece;
    }
    for (size_t done = 0; done < kept_.size();) {
        const ssize_t now =
            file_ < 0 ? -1
                      : pwrite(file_, kept_.data() + done, kept_.size() - done, static_cast<off_t>(written_ + done));
        if (now < 0 && file_ >= 0 && errno == EINTR) continue;
        if (now <= 0) {
            if (problem_.empty()) problem_ = std::string("no temporary file for the index: ") + std::strerror(errno);
            break;
        }
        done += static_cast<size_t>(now);
    }
    written_ += kept_.size();
    kept_.clear();
    kept_.shrink_to_fit();
}

void Bytes::read(uint64_t offset, void *out, size_t count) const {
    char *to = static_cast<char *>(out);
    while (count > 0 && offset < written_) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(count, written_ - offset));
        const ssize_t got = pread(file_, to, wanted, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            if (problem_.empty()) problem_ = std::string("the index cannot be read: ") + std::strerror(errno);
            std::memset(to, 0, count);
            return;
        }
        to += got;
        offset += static_cast<uint64_t>(got);
        count -= static_cast<size_t>(got);
    }
    if (count > 0) std::memcpy(to, kept_.data() + (offset - written_), count);
}

}  // namespace vestra_view
