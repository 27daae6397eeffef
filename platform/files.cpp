#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/platform_log.h"

namespace {
struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0) close(fd);
    }
};
}  // namespace

std::optional<std::string> read_state_file(const std::string &path, size_t limit, bool quiet_when_missing) {
    // O_NONBLOCK: do not wait if someone put a pipe in the file's place.
    const Descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (file.fd < 0) {
        if (!(quiet_when_missing && errno == ENOENT)) PLATFORM_LOGW("cannot open %s (%d:%m)", path.c_str(), errno);
        return std::nullopt;
    }
    struct stat info;
    if (fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        PLATFORM_LOGW("not a file: %s", path.c_str());
        return std::nullopt;
    }
    std::string contents(limit + 1, '\0');
    size_t used = 0;
    while (used < contents.size()) {
        const ssize_t count = read(file.fd, &contents[used], contents.size() - used);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            PLATFORM_LOGW("cannot read %s (%d:%m)", path.c_str(), errno);
            return std::nullopt;
        }
        if (count == 0) break;
        used += static_cast<size_t>(count);
    }
    if (used > limit) {
        PLATFORM_LOGW("%s holds more than %zu bytes", path.c_str(), limit);
        return std::nullopt;
    }
    contents.resize(used);
    return contents;
}

// Does not use the standard library's directory iterator, which ends the process when memory runs out.
std::optional<std::vector<std::string>> list_directory(const std::string &path) {
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(path.c_str()), closedir);
    if (directory == nullptr) {
        PLATFORM_LOGW("cannot list %s (%d:%m)", path.c_str(), errno);
        return std::nullopt;
    }
    std::vector<std::string> names;
    while (const dirent *entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool replace_state_file(const std::string &path, std::string_view contents) {
    // Readers skip names that begin with a dot, and the random part avoids files that a killed process left.
    std::string temporary = path.substr(0, path.rfind('/') + 1) + ".new-XXXXXX";
    {
        const Descriptor file{mkostemp(temporary.data(), O_CLOEXEC)};
        bool written = file.fd >= 0 && fchmod(file.fd, 0644) == 0;
        while (written && !contents.empty()) {
            const ssize_t count = write(file.fd, contents.data(), contents.size());
            if (count < 0 && errno == EINTR) continue;
            written = count >= 0;
            if (written) contents.remove_prefix(static_cast<size_t>(count));
        }
        if (!written) {
            const int error = errno;
            PLATFORM_LOGW("cannot write %s for %s (%d:%m)", temporary.c_str(), path.c_str(), error);
            if (file.fd >= 0) unlink(temporary.c_str());
            errno = error;
            return false;
        }
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        PLATFORM_LOGW("cannot replace %s (%d:%m)", path.c_str(), error);
        unlink(temporary.c_str());
        errno = error;
        return false;
    }
    return true;
}

std::string encode_name(std::string_view key) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string name;
    for (const char c : key) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '-' || (c == '.' && !name.empty());
        if (plain) {
            name += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            name += {'%', kHex[byte >> 4], kHex[byte & 15]};
        }
    }
    return name.empty() ? "%" : name;
}
