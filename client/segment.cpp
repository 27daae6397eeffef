#include "client/segment.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

namespace vestra_client {

namespace {

constexpr char kDefaultName[] = "/vestra_api";

/* ------------------------------ Mappings that can be lost ------------------------------ */

// Whoever may write to the segment may also truncate it. The kernel then answers an access with SIGBUS, which ends the
// process. The handler below puts a private page of zeros at the address, and the access is repeated there.
// No lock guards the list: a child may be forked at any moment, and another thread of the parent would hold it.
std::atomic<Mapping *> mappings{nullptr};  // nodes are reused and never freed, because the handler reads them
struct sigaction previous_handler;         // constant once ours is installed

bool replace_lost_page(const siginfo_t *info) {
    if (info->si_code <= 0) return false;  // sent by a process
    const auto fault = reinterpret_cast<uintptr_t>(info->si_addr);
    for (Mapping *mapping = mappings; mapping != nullptr; mapping = mapping->next) {
        const uintptr_t address = mapping->address;
        if (address == 0 || fault - address >= sizeof(Segment)) continue;
        constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
        mapping->lost = true;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the handler needs an atomic number
        return mmap(reinterpret_cast<void *>(address), sizeof(Segment), PROT_READ | PROT_WRITE, kFlags, -1, 0) !=
               MAP_FAILED;
    }
    return false;
}

void on_bus_error(int signal, siginfo_t *info, void *context) {
    const int saved = errno;
    if (replace_lost_page(info)) {
        errno = saved;
    } else if ((previous_handler.sa_flags & SA_SIGINFO) != 0) {
        previous_handler.sa_sigaction(signal, info, context);
    } else if (previous_handler.sa_handler != SIG_DFL && previous_handler.sa_handler != SIG_IGN) {
        previous_handler.sa_handler(signal);
    } else if (previous_handler.sa_handler == SIG_DFL || info->si_code > 0) {  // the kernel lets nobody ignore its own
        sigaction(SIGBUS, &previous_handler, nullptr);  // the access is repeated and ends the process
        if (info->si_code <= 0) raise(signal);
    }
}

// An unused node; null if memory runs out.
Mapping *new_mapping() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        struct sigaction action = {};
        action.sa_sigaction = on_bus_error;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
        sigaction(SIGBUS, nullptr, &previous_handler);  // known before ours may run
        sigaction(SIGBUS, &action, nullptr);
    });
    for (Mapping *mapping = mappings; mapping != nullptr; mapping = mapping->next) {
        if (!mapping->used.exchange(true)) return mapping;
    }
    auto *mapping = new (std::nothrow) Mapping;
    if (mapping == nullptr) return nullptr;
    mapping->next = mappings;
    while (!mappings.compare_exchange_weak(mapping->next, mapping)) continue;
    return mapping;
}

}  // namespace

bool map_segment(int fd, const struct stat &info, Mapped *mapped) {
    Mapping *mapping = mapped->mapping != nullptr ? mapped->mapping : new_mapping();
    if (mapping == nullptr) return false;
    const int fixed = mapped->segment != nullptr ? MAP_FIXED : 0;
    void *address = mmap(mapped->segment, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_SHARED | fixed, fd, 0);
    mapped->mapping = mapping;
    if (address == MAP_FAILED) return false;
    *mapped = {static_cast<Segment *>(address), mapping, info.st_dev, info.st_ino, info.st_uid, fd, false};
    mapping->lost = false;
    mapping->address = reinterpret_cast<uintptr_t>(address);
    return true;
}

void unmap_segment(Mapped *mapped) {
    const Mapped old = *mapped;
    *mapped = {};  // first: a child that is forked meanwhile must not close the descriptor again
    if (old.mapping == nullptr) return;
    old.mapping->address = 0;
    if (old.segment != nullptr) {
        munmap(old.segment, sizeof(Segment));
        close(old.fd);
    }
    old.mapping->used = false;
}

/* ------------------------------ The two files ------------------------------ */

const char *segment_name() {
    const char *name = secure_getenv("VESTRA_API_SHM");
    return name != nullptr && *name == '/' && strchr(name + 1, '/') == nullptr ? name : kDefaultName;
}

Path::Path(const char *suffix) {
    snprintf(text, sizeof(text), "/dev/shm%s%s", segment_name(), suffix);
}
Path segment_path() {
    return Path("");
}
Path lock_path() {
    return Path(".daemon");
}

bool stat_file(const Path &path, struct stat *info) {
    return lstat(path.text, info) == 0;
}

int open_file(const Path &path, int mode) {
    return above_standard(open(path.text, mode | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

int above_standard(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int higher = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return higher;
}

bool group_from_environment(gid_t *group) {
    const char *name = secure_getenv("VESTRA_API_GROUP");
    if (name == nullptr) return false;
    struct group entry;
    struct group *found = nullptr;
    std::vector<char> buffer(1024);  // for the list of the group's members
    while (getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE) buffer.resize(2 * buffer.size());
    if (found == nullptr) return false;
    *group = found->gr_gid;
    return true;
}

static struct flock first_byte(short type) {
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    return range;
}

bool set_lock(int fd, short type) {
    struct flock range = first_byte(type);
    return fcntl(fd, F_OFD_SETLK, &range) == 0;
}

// Asking for a read lock finds no read locks, which the group could hold.
bool write_locked(int fd) {
    struct flock range = first_byte(F_RDLCK);
    return fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type == F_WRLCK;
}

static timespec to_timespec(Clock::duration duration) {
    const int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
    timespec when = {};
    when.tv_sec = static_cast<time_t>(ns / 1000000000);
    when.tv_nsec = static_cast<decltype(when.tv_nsec)>(ns % 1000000000);
    return when;
}

// Neither side waits on a semaphore: the C library ends a process that finds an invalid one, and any client may have
// overwritten the segment. The futex calls below fail at worst, and the caller checks again.
#ifdef SYS_futex_time64
constexpr long kFutex = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long kFutex = SYS_futex;
#endif

bool sleep_on(const uint32_t *word, uint32_t value, Clock::time_point deadline) {
    const timespec left = to_timespec(std::max(deadline - Clock::now(), Clock::duration::zero()));
    return syscall(kFutex, word, FUTEX_WAIT, value, &left, nullptr, 0) == 0 || errno != ETIMEDOUT;
}

void wake(const uint32_t *word, int sleepers) {
    syscall(kFutex, word, FUTEX_WAKE, sleepers, nullptr, nullptr, 0);
}

void set_ready(vestra_shm_record *record, unsigned value) {
    sem_t fresh;
    sem_init(&fresh, 1, value);
    memcpy(&record->ready.semaphore, &fresh, sizeof(fresh));
}

}  // namespace vestra_client
