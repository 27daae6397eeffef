#include "platform/vestra_api.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "platform/fault.h"
#include "platform/guarded.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VESTRA_CLANG_TSAN
#endif
#endif

namespace {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC
using std::chrono::milliseconds;

constexpr char kDefaultName[] = "/vestra_api";
constexpr uint32_t kMagic = 0x33415356;                   // the private part is initialised
constexpr int32_t kReady = 1;                             // value that the daemon's main writes into the marker
constexpr milliseconds kRequestWait{1000};                // of the daemon, so that its thread can end
constexpr milliseconds kLookForDaemon{100};               // how often a waiting client checks for the daemon
constexpr milliseconds kLookForTurn{20};                  // how often it tries again, because a holder may have died
constexpr std::chrono::microseconds kLooksAreFresh{100};  // how long a check is valid while a request is answered
constexpr std::chrono::minutes kComplainAgain{1};         // least time between two equal messages of the daemon
constexpr size_t kServedAddresses = 4;
constexpr int kPublishTries = 1000;  // an obstacle would have to change between two system calls each time

// Values of Segment::stage; the header says who changes it.
enum Stage : uint32_t { kFree = 0, kPosted = 1, kTaken = 2 };

// The whole segment: the daemon's record, then the library's private part.
struct Segment {
    vestra_shm_record record;
    uint32_t magic;    // kMagic once everything is initialised
    uint32_t stage;    // both sides sleep on it while they have nothing to do
    uint32_t knock;    // not 0: a client has found the daemon not ready
    uint32_t waiting;  // not 0: a client may sleep on it until the turn is free
};
static_assert(offsetof(Segment, magic) == 912, "the private part begins after the record");
static_assert(sizeof(Segment) == 928, "32-bit and 64-bit processes share it");

/* ------------------------------ Mappings that can be lost ------------------------------ */

// Whoever may write to the segment may also truncate it. The kernel then answers an access with SIGBUS, which ends the
// process. The handler below puts a private page of zeros at the address, and the access is repeated there.
struct Mapping {
    std::atomic<uintptr_t> address{0};  // of the segment; 0: nothing is mapped
    std::atomic<bool> lost{false};      // the private page is at the address
    bool used = false;                  // guarded by mappings_lock
    Mapping *next = nullptr;            // constant once the node is in the list
};
std::mutex mappings_lock;
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
    } else {
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
        sigaction(SIGBUS, &action, &previous_handler);
    });
    const std::lock_guard<std::mutex> hold(mappings_lock);
    Mapping *mapping = mappings;
    while (mapping != nullptr && mapping->used) mapping = mapping->next;
    if (mapping == nullptr) {
        mapping = new (std::nothrow) Mapping;
        if (mapping == nullptr) return nullptr;
        mapping->next = mappings;
        mappings = mapping;
    }
    mapping->used = true;
    return mapping;
}

// A mapped segment and the file that it maps. No destructor: the daemon's mappings must outlive static objects.
struct Mapped {
    Segment *segment;
    Mapping *mapping;
    dev_t device;
    ino_t inode;
    uid_t owner;
    int fd;          // of that file
    bool was_ready;  // daemon only: the marker has been set

    bool is_lost() const { return mapping->lost; }
    bool is_whole(const struct stat &info) const {
        return !is_lost() && info.st_size == static_cast<off_t>(sizeof(Segment));
    }
    bool is_file(const struct stat &info) const {
        return segment != nullptr && info.st_dev == device && info.st_ino == inode && is_whole(info);
    }
    // Fast path of is_file without looking up the name: a file that was replaced or removed has no name any more. It has
    // one if somebody made a hard link, so whoever is not served must look up the name.
    bool seems_current() const {
        struct stat info;
        return segment != nullptr && fstat(fd, &info) == 0 && info.st_nlink == 1 && is_whole(info);
    }
};

// Maps the segment `fd` over the old mapping in *mapped, or anywhere if there is none. On success *mapped owns the
// descriptor.
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
    if (mapped->mapping == nullptr) return;
    mapped->mapping->address = 0;
    if (mapped->segment != nullptr) {
        munmap(mapped->segment, sizeof(Segment));
        close(mapped->fd);
    }
    const std::lock_guard<std::mutex> hold(mappings_lock);
    mapped->mapping->used = false;
    *mapped = {};
}

/* ------------------------------ The two files ------------------------------ */

const char *segment_name() {
    const char *name = secure_getenv("VESTRA_API_SHM");
    return name != nullptr && *name == '/' && strchr(name + 1, '/') == nullptr ? name : kDefaultName;
}

// Paths of the segment and of the lock file. Everyone may create files in their directory. A name that is too long is
// cut, and then not found.
struct Path {
    char text[NAME_MAX];
    explicit Path(const char *suffix) { snprintf(text, sizeof(text), "/dev/shm%s%s", segment_name(), suffix); }
};
Path segment_path() {
    return Path("");
}
Path lock_path() {
    return Path(".daemon");
}

bool stat_file(const Path &path, struct stat *info) {
    return lstat(path.text, info) == 0;
}

// Opens one of the files. Neither follows a link nor waits for the other end of a pipe.
int open_file(const Path &path, int mode) {
    return open(path.text, mode | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
}

// The group that may use the segment, besides its owner.
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

struct flock first_byte(short type) {
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

// True if a process holds the lock file's write lock. It must be able to open the file for writing, so it is a daemon.
// Asking for a read lock finds no read locks, which the group could hold.
bool write_locked(int fd) {
    struct flock range = first_byte(F_RDLCK);
    return fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type == F_WRLCK;
}

int32_t marker_of(const Segment *segment) {
    return __atomic_load_n(&segment->record.marker, __ATOMIC_ACQUIRE);
}

bool is_initialised(const Segment *segment) {
    return __atomic_load_n(&segment->magic, __ATOMIC_ACQUIRE) == kMagic;
}

uint32_t stage_of(const Segment *segment) {
    return __atomic_load_n(&segment->stage, __ATOMIC_ACQUIRE);
}

bool move_stage(Segment *segment, uint32_t from, uint32_t to) {
    return __atomic_compare_exchange_n(&segment->stage, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

timespec to_timespec(Clock::duration duration) {
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

// Sleeps while the word is `value`: until woken, or until the deadline. Returns false at the deadline.
bool sleep_on(const uint32_t *word, uint32_t value, Clock::time_point deadline) {
    const timespec left = to_timespec(std::max(deadline - Clock::now(), Clock::duration::zero()));
    return syscall(kFutex, word, FUTEX_WAIT, value, &left, nullptr, 0) == 0 || errno != ETIMEDOUT;
}

void wake(const uint32_t *word, int sleepers = INT_MAX) {
    syscall(kFutex, word, FUTEX_WAKE, sleepers, nullptr, nullptr, 0);
}

// Locks until a deadline. Returns 0 or an error number.
int lock_until(pthread_mutex_t *mutex, Clock::time_point deadline) {
#if defined(__SANITIZE_THREAD__) || defined(VESTRA_CLANG_TSAN)
    // ThreadSanitizer does not know pthread_mutex_clocklock and would take what follows for unlocked.
    int result;
    while ((result = pthread_mutex_trylock(mutex)) == EBUSY && Clock::now() < deadline) usleep(200);
    return result;
#else
    const timespec when = to_timespec(deadline.time_since_epoch());
    return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &when);
#endif
}

/* ------------------------------ The daemon's side ------------------------------ */

std::mutex server_lock;                         // guards what follows, up to end_service
std::array<Mapped, kServedAddresses> served{};  // used in turn, never unmapped: a thread may still use an old address
size_t current;                                 // index of the one that get_shm returns
int lock_fd = -1;                               // the lock file: its write lock says that this process serves
bool daemon_is_up;                              // the daemon's main has set the marker
bool service_ended;                             // the thread that answers has ended, and nobody answers any more

enum Problem { kNoSegment, kNotPublished, kObstacle, kOtherDaemon, kOverwritten, kNoGroup, kGroupRefused, kProblems };
constexpr const char *kProblemTexts[kProblems] = {
    "cannot be set up",
    "cannot be put in its place",
    "found an obstacle under its name, which was replaced or moved aside",
    "is served by another daemon",
    "was overwritten or truncated and is replaced",
    "stays closed to the group: no such group",
    "stays closed to the group",
};

// Logs a problem with the reason in errno, if it is not 0. get_shm may meet the same one several times a second.
void complain(Problem problem) {
    static Clock::time_point last[kProblems];
    static bool complained[kProblems];
    const auto now = Clock::now();
    if (complained[problem] && now - last[problem] < kComplainAgain) return;
    complained[problem] = true;
    last[problem] = now;
    if (errno == 0) {
        PLATFORM_LOGW("segment %s %s", segment_name(), kProblemTexts[problem]);
    } else {
        PLATFORM_LOGW("segment %s %s (%d:%m)", segment_name(), kProblemTexts[problem], errno);
    }
}

void complain(Problem problem, int error) {
    errno = error;
    complain(problem);
}

void allow_group(int fd, mode_t mode) {
    gid_t group = 0;
    if (secure_getenv("VESTRA_API_GROUP") == nullptr) return;
    if (!group_from_environment(&group)) {
        complain(kNoGroup, 0);
    } else if (fchown(fd, static_cast<uid_t>(-1), group) != 0 || fchmod(fd, mode) != 0) {
        complain(kGroupRefused);
    }
}

// A new file next to the segment, with a name that nobody can guess. It is removed unless it was published.
class NewFile {
  public:
    explicit NewFile(Path place) : place_(place), path_(place) {
        const size_t length = strlen(path_.text);
        snprintf(path_.text + length, sizeof(path_.text) - length, ".XXXXXX");
        fd_ = mkostemp(path_.text, O_CLOEXEC);
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() {
        if (fd_ < 0) return;
        close(fd_);
        unlink(path_.text);
    }

    int fd() const { return fd_; }

    // Moves the file to its place. Another file there is replaced, and a directory changes places with it, so that
    // clients find either the old file or this one. Afterwards the caller owns the descriptor. False with a message.
    bool publish() {
        struct stat old = {};
        const bool obstacle = stat_file(place_, &old) && old.st_uid != geteuid();
        for (int i = 0; i < kPublishTries; ++i) {
            const bool moved = rename(path_.text, place_.text) == 0;
            if (moved ||
                (errno == EISDIR && renameat2(AT_FDCWD, path_.text, AT_FDCWD, place_.text, RENAME_EXCHANGE) == 0)) {
                if (!moved) rmdir(path_.text);
                if (obstacle || !moved) complain(kObstacle, 0);
                fd_ = -1;
                return true;
            }
            if (errno != ENOENT && errno != EISDIR) break;  // a directory that came or went meanwhile
        }
        complain(kNotPublished);
        return false;
    }

  private:
    Path place_, path_;
    int fd_;
};

bool another_daemon_serves() {
    const int fd = open_file(lock_path(), O_RDONLY);
    if (fd < 0) return false;
    struct stat info;
    const bool trusted = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
                         (info.st_uid == geteuid() || info.st_uid == 0);
    const bool serves = trusted && write_locked(fd);
    close(fd);
    return serves;
}

// Makes this process the one that serves, unless another does.
bool hold_service() {
    struct stat held, named;
    if (lock_fd >= 0 && fstat(lock_fd, &held) == 0 && stat_file(lock_path(), &named) && held.st_dev == named.st_dev &&
        held.st_ino == named.st_ino) {
        return true;
    }
    if (another_daemon_serves()) {
        complain(kOtherDaemon, 0);
        return false;
    }
    NewFile file(lock_path());
    const int fd = file.fd();
    // Locked before anybody else can open it: nobody can hold a lock that is in the way.
    if (fd < 0 || !set_lock(fd, F_WRLCK)) {
        complain(kNoSegment);
        return false;
    }
    allow_group(fd, 0640);
    if (!file.publish()) return false;
    if (lock_fd >= 0) close(lock_fd);
    lock_fd = fd;
    return true;
}

// Overwrites the record's semaphore with a new one of that value.
void set_ready(vestra_shm_record *record, unsigned value) {
    sem_t fresh;
    sem_init(&fresh, 1, value);
    memcpy(&record->ready, &fresh, sizeof(fresh));
}

void initialise(Mapped *mapped) {
    vestra_shm_record &record = mapped->segment->record;
    set_ready(&record, 0);
    for (vestra_api_data &entry : record.request) entry.packet_type = kVestraUnused;
    record.marker = daemon_is_up ? kReady : 0;
    mapped->was_ready = daemon_is_up;
    __atomic_store_n(&mapped->segment->magic, kMagic, __ATOMIC_RELEASE);
}

// Creates a segment that this process serves, mapped at the address in *mapped if there is one. It gets its name when
// it is complete.
bool create_segment(Mapped *mapped) {
    if (!hold_service()) return false;
    NewFile file(segment_path());
    const int fd = file.fd();
    struct stat info;
    // Allocates the pages too: a full file system is then an error here.
    if (fd < 0 || (errno = posix_fallocate(fd, 0, sizeof(Segment))) != 0 || fstat(fd, &info) != 0 ||
        !map_segment(fd, info, mapped)) {
        complain(kNoSegment);
        return false;
    }
    initialise(mapped);
    allow_group(fd, 0660);
    return file.publish();
}

// Keeps the marker of the current segment set. The daemon's main sets it once. A segment that replaces another gets
// it here, even if main has just written it into the old one: the daemon is already up. A marker that a client
// overwrote is repaired: at once if it is not a valid value, and after a client's knock if it is 0 ("not ready").
void keep_marker() {
    Mapped &mapped = served[current];
    const bool knocked = __atomic_exchange_n(&mapped.segment->knock, 0U, __ATOMIC_ACQ_REL) != 0;
    const int32_t marker = marker_of(mapped.segment);
    if (!daemon_is_up || (marker == 0 && mapped.was_ready && !knocked)) return;
    mapped.was_ready = true;
    if (marker != kReady) __atomic_store_n(&mapped.segment->record.marker, kReady, __ATOMIC_RELEASE);
}

// State of the current segment, as clients see it.
enum class Service { kGone, kDamaged, kGood };

Service look_at_service() {
    struct stat info;
    const Mapped &mapped = served[current];
    if (mapped.segment == nullptr || !stat_file(segment_path(), &info)) return Service::kGone;
    if (info.st_dev != mapped.device || info.st_ino != mapped.inode) return Service::kGone;
    return mapped.is_whole(info) && is_initialised(mapped.segment) ? Service::kGood : Service::kDamaged;
}

Segment *served_segment() {
    const std::lock_guard<std::mutex> hold(server_lock);
    return served[current].segment;
}

// Ends the service with the thread that answers: a daemon that hangs in its last join must not seem to serve.
void end_service() {
    const std::lock_guard<std::mutex> hold(server_lock);
    service_ended = true;
    if (lock_fd >= 0) close(lock_fd);
    lock_fd = -1;
}

// Begins it again if another thread waits for requests: get_shm then creates a new segment. Returns false if so.
bool service_goes_on() {
    const std::lock_guard<std::mutex> hold(server_lock);
    if (service_ended) served[current].inode = 0;
    return !service_ended;
}

struct ServiceThread {
    bool serves = false;
    ~ServiceThread() {
        if (serves) end_service();
    }
};
thread_local ServiceThread this_thread;

// Frees the stage: the daemon is not working on a request now. Invalid values are damage; clients would wait for ever.
void settle(Segment *segment) {
    const uint32_t stage = stage_of(segment);
    if (stage != kFree && stage != kPosted && move_stage(segment, stage, kFree)) wake(&segment->stage);
}

}  // namespace

void *get_shm(void) {
    if (platform_fault(FAULT_GET_SHM)) return nullptr;
    return guarded(static_cast<void *>(nullptr), []() -> void * {
        const std::lock_guard<std::mutex> hold(server_lock);
        this_thread.serves = true;
        daemon_is_up = daemon_is_up || std::any_of(served.begin(), served.end(), [](const Mapped &any) {
                           return any.segment != nullptr && marker_of(any.segment) == kReady;
                       });
        const Service service = look_at_service();
        if (service == Service::kDamaged) complain(kOverwritten, 0);
        if (service != Service::kGood) {
            const size_t next = (current + 1) % served.size();
            if (!create_segment(&served[next])) return nullptr;
            if (served[current].segment != nullptr) close(served[current].fd);
            current = next;
            service_ended = false;
        }
        keep_marker();
        return served[current].segment;
    });
}

int check_if_valid_shm(void **shm) {
    if (shm == nullptr || *shm == nullptr || platform_fault(FAULT_CHECK_SHM)) return 0;
    const std::lock_guard<std::mutex> hold(server_lock);
    if (*shm != served[current].segment) return 0;
    // Called some forty times for one answer. A system call each time would take half the time of the answer.
    static Clock::time_point last_good;  // guarded by server_lock
    const auto now = Clock::now();
    if (stage_of(served[current].segment) == kTaken && now - last_good < kLooksAreFresh) return 1;
    if (!served[current].seems_current() || !is_initialised(served[current].segment)) return 0;
    last_good = now;
    return 1;
}

int vestra_request_sem_lock_func(const char * /*caller*/, int /*n*/) {
    Segment *segment = served_segment();
    if (segment == nullptr || platform_fault(FAULT_REQUEST_WAIT) || !service_goes_on()) return -1;
    settle(segment);  // the previous request is over, answered or not
    for (const auto deadline = Clock::now() + kRequestWait;;) {
        if (move_stage(segment, kPosted, kTaken)) return 0;
        // Return, so that get_shm repairs what a client has found wrong.
        const bool wrong = __atomic_load_n(&segment->knock, __ATOMIC_ACQUIRE) != 0 || !is_initialised(segment);
        if (wrong || Clock::now() >= deadline) return -1;
        const uint32_t stage = stage_of(segment);
        if (stage != kPosted) sleep_on(&segment->stage, stage, deadline);
    }
}

int vestra_ready_sem_unlock_func(const char * /*caller*/) {
    Segment *segment = served_segment();
    if (segment == nullptr || platform_fault(FAULT_READY_POST)) return -1;
    int value = 0;
    sem_getvalue(&segment->record.ready, &value);
    set_ready(&segment->record, value >= 0 && value < SEM_VALUE_MAX ? static_cast<unsigned>(value) + 1 : 1);
    settle(segment);  // last, because the record then belongs to the client
    return 0;
}

/* ------------------------------ The clients' side ------------------------------ */

struct vestra_api_client {
    vestra_api_client() = default;
    vestra_api_client(const vestra_api_client &) = delete;
    vestra_api_client &operator=(const vestra_api_client &) = delete;
    ~vestra_api_client() { drop(); }

    void drop() {
        unmap_segment(&mapped);
        if (daemon_fd >= 0) close(daemon_fd);
        daemon_fd = -1;
    }

    std::mutex lock;     // one question at a time for each handle
    Mapped mapped{};     // the segment that was used last
    int daemon_fd = -1;  // its daemon's lock file
    pid_t process = 0;   // that opened them: a child would share the locks of its parent
};

namespace {

bool is_trusted(const struct stat &info) {
    gid_t group = 0;
    if (!S_ISREG(info.st_mode)) return false;
    if (info.st_uid == geteuid() || info.st_uid == 0) return true;
    return group_from_environment(&group) && info.st_gid == group;
}

// True if the owner of the segment runs a daemon.
bool daemon_lives(vestra_api_client *client) {
    if (client->daemon_fd >= 0) {
        if (write_locked(client->daemon_fd)) return true;
        close(client->daemon_fd);
    }
    client->daemon_fd = open_file(lock_path(), O_RDONLY);  // there may be a new one
    struct stat info;
    return client->daemon_fd >= 0 && fstat(client->daemon_fd, &info) == 0 && S_ISREG(info.st_mode) &&
           info.st_uid == client->mapped.owner && write_locked(client->daemon_fd);
}

// True if the mapped segment is still the one that a daemon serves.
bool is_served(vestra_api_client *client) {
    struct stat info;
    return stat_file(segment_path(), &info) && client->mapped.is_file(info) && daemon_lives(client);
}

// kNotReady: a daemon is running, but it has not set the marker yet, or it still has to repair what a client did to the
// marker, the magic number or the size.
enum class Found { kNothing, kNotReady, kDaemon };

// Opens and maps the current segment. Logs why it cannot be used.
Found map_current(vestra_api_client *client) {
    client->drop();
    client->process = getpid();
    const int fd = open_file(segment_path(), O_RDWR);
    if (fd < 0) {
        if (errno != ENOENT) PLATFORM_LOGW("cannot open segment %s (%d:%m)", segment_name(), errno);
        return Found::kNothing;
    }
    struct stat info = {};
    const bool trusted = fstat(fd, &info) == 0 && is_trusted(info);
    client->mapped.owner = info.st_uid;
    const bool lives = trusted && daemon_lives(client);
    const bool whole = info.st_size == static_cast<off_t>(sizeof(Segment));
    if (lives && whole && map_segment(fd, info, &client->mapped)) return Found::kDaemon;
    close(fd);
    if (lives && !whole) return Found::kNotReady;
    if (!trusted || !whole) PLATFORM_LOGW("segment %s is refused: wrong size or another user's", segment_name());
    return Found::kNothing;
}

// Maps the current segment into the handle and reports its state.
Found connect(vestra_api_client *client) {
    if (!client->mapped.seems_current() || client->process != getpid()) {
        const Found found = map_current(client);
        if (found != Found::kDaemon) return found;
    } else if (!daemon_lives(client)) {
        return Found::kNothing;
    }
    const Segment *segment = client->mapped.segment;
    return is_initialised(segment) && marker_of(segment) == kReady ? Found::kDaemon : Found::kNotReady;
}

// Connects to a daemon that is ready. Returns false if none is running, or none is ready before the deadline.
bool connect_until(vestra_api_client *client, Clock::time_point deadline) {
    for (;;) {
        const Found found = connect(client);
        const auto now = Clock::now();
        if (found == Found::kDaemon) return true;
        if (found == Found::kNothing || now >= deadline) return false;
        if (Segment *segment = client->mapped.segment; segment != nullptr) {
            __atomic_store_n(&segment->knock, 1U, __ATOMIC_RELEASE);
            wake(&segment->stage);
        }
        std::this_thread::sleep_until(std::min(deadline, now + Clock::duration(kLookForDaemon)));
        if (!is_served(client)) client->drop();
    }
}

bool valid(const vestra_api_data *requests, int count) {
    if (requests == nullptr || count < 1 || count > kVestraVitals) return false;
    return std::all_of(requests, requests + count, [](const vestra_api_data &request) {
        return request.packet_type >= 0 && request.packet_type < kVestraVitals && request.window >= 0 &&
               request.window <= kVestraWindowMax;
    });
}

// A result besides those of vestra_api_ask: the segment was replaced, or its daemon has ended. Look for a daemon again.
constexpr int kNotServed = 1;

// Holds the turn while it exists: a lock on the segment's first byte, which ends with its holder.
class Turn {
  public:
    Turn(vestra_api_client *client, Clock::time_point deadline) : client_(client) {
        uint32_t *waiting = &client->mapped.segment->waiting;
        taken_ = set_lock(client->mapped.fd, F_WRLCK);
        for (auto look = Clock::now() + Clock::duration(kLookForDaemon); !taken_;) {
            __atomic_store_n(waiting, 1U, __ATOMIC_SEQ_CST);
            taken_ = set_lock(client->mapped.fd, F_WRLCK);
            const auto now = Clock::now();
            if (taken_ || now >= deadline) break;
            if (now >= look && !is_served(client)) break;
            if (now >= look) look = now + Clock::duration(kLookForDaemon);
            sleep_on(waiting, 1, std::min(deadline, now + Clock::duration(kLookForTurn)));
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
    ~Turn() {
        if (!taken_) return;
        uint32_t *waiting = &client_->mapped.segment->waiting;
        set_lock(client_->mapped.fd, F_UNLCK);
        // One that still sleeps sets the word again when it is woken; nobody sleeps longer than kLookForTurn.
        if (__atomic_exchange_n(waiting, 0U, __ATOMIC_SEQ_CST) != 0) wake(waiting, 1);
    }
    bool taken() const { return taken_; }

  private:
    vestra_api_client *client_;
    bool taken_ = false;
};

// Waits until no request is posted or taken.
int wait_until_free(vestra_api_client *client, Clock::time_point deadline) {
    const Segment *segment = client->mapped.segment;
    for (;;) {
        const uint32_t stage = stage_of(segment);
        if (stage == kFree) return client->mapped.is_lost() ? kNotServed : VESTRA_API_OK;
        const auto now = Clock::now();
        const bool late = now >= deadline;
        const auto look = std::min(deadline, now + Clock::duration(kLookForDaemon));
        if ((late || !sleep_on(&segment->stage, stage, look)) && !is_served(client)) return kNotServed;
        if (late) return VESTRA_API_TIMEOUT;
    }
}

// Writes the entries and posts the request. The daemon is idle and has no other request to take.
void post(Segment *segment, const vestra_api_data *requests, int count) {
    set_ready(&segment->record, 0);
    for (int i = 0; i < kVestraVitals; ++i) {
        vestra_api_data entry = {};
        entry.packet_type = i < count ? requests[i].packet_type : kVestraUnused;
        entry.window = i < count ? requests[i].window : 0;
        entry.answer_type = kVestraUnused;
        segment->record.request[i] = entry;
    }
    __atomic_store_n(&segment->record.state, static_cast<int32_t>(VESTRA_REQUEST_POSTED), __ATOMIC_RELEASE);
    move_stage(segment, kFree, kPosted);
    wake(&segment->stage);
}

// Copies the answers out of the record. If one is missing, the requests stay untouched.
int fetch(const Mapped &mapped, vestra_api_data *requests, int count) {
    const Segment *segment = mapped.segment;
    if (__atomic_load_n(&segment->record.state, __ATOMIC_ACQUIRE) != VESTRA_REQUEST_ANSWERED) return VESTRA_API_TIMEOUT;
    std::array<vestra_api_data, kVestraVitals> answers;
    for (int i = 0; i < count; ++i) {
        const auto index = static_cast<size_t>(i);
        answers[index] = segment->record.request[i];
        if (answers[index].answer_type != requests[i].packet_type) return VESTRA_API_REFUSED;
    }
    if (mapped.is_lost()) return kNotServed;
    for (int i = 0; i < count; ++i) {
        const vestra_api_data &answer = answers[static_cast<size_t>(i)];
        requests[i].maximum = answer.maximum;
        requests[i].minimum = answer.minimum;
        requests[i].average = answer.average;
        requests[i].variance = answer.variance;
        requests[i].answer_type = answer.answer_type;
    }
    return VESTRA_API_OK;
}

// Asks in the mapped segment.
int ask_once(vestra_api_client *client, vestra_api_data *requests, int count, Clock::time_point deadline) {
    const Mapped &mapped = client->mapped;
    const Turn turn(client, deadline);
    if (!turn.taken()) return is_served(client) ? VESTRA_API_TIMEOUT : kNotServed;

    move_stage(mapped.segment, kPosted, kFree);  // withdraws the request of a client that has gone
    int result = wait_until_free(client, deadline);
    if (result != VESTRA_API_OK) return result;
    post(mapped.segment, requests, count);
    result = wait_until_free(client, deadline);
    if (result == VESTRA_API_OK) return fetch(mapped, requests, count);
    move_stage(mapped.segment, kPosted, kFree);
    return result;
}

int ask(vestra_api_client *client, vestra_api_data *requests, int count, int timeout_ms) {
    const auto deadline = Clock::now() + milliseconds(std::max(timeout_ms, 0));
    if (lock_until(client->lock.native_handle(), deadline) != 0) return VESTRA_API_TIMEOUT;
    const std::lock_guard<std::mutex> hold(client->lock, std::adopt_lock);
    do {
        if (!connect_until(client, deadline)) return VESTRA_API_NO_DAEMON;
        const int result = ask_once(client, requests, count, deadline);
        if (result != kNotServed) return result;
        client->drop();
    } while (Clock::now() < deadline);
    return VESTRA_API_NO_DAEMON;
}

}  // namespace

vestra_api_h vestra_api_open(void) {
    if (platform_fault(FAULT_API_OPEN)) return nullptr;
    return new (std::nothrow) vestra_api_client;
}

int vestra_api_ask(vestra_api_h client, vestra_api_data *requests, int count, int timeout_ms) {
    if (client == nullptr || !valid(requests, count)) return VESTRA_API_REFUSED;
    if (platform_fault(FAULT_API_ASK)) return VESTRA_API_NO_DAEMON;
    return guarded<int>(VESTRA_API_NO_MEMORY, [&] { return ask(client, requests, count, timeout_ms); });
}

void vestra_api_close(vestra_api_h client) {
    delete client;
}

const char *vestra_api_result_text(int result) {
    switch (result) {
        case VESTRA_API_OK:
            return "answered";
        case VESTRA_API_NO_DAEMON:
            return "no daemon is running";
        case VESTRA_API_TIMEOUT:
            return "the daemon did not answer in time";
        case VESTRA_API_REFUSED:
            return "a request is out of range";
        case VESTRA_API_NO_MEMORY:
            return "out of memory";
        default:
            return "unknown result";
    }
}
