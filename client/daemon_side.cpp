// The daemon's side: makes the segment, keeps it whole, and takes one request after the other.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "client/segment.h"
#include "platform/guarded.h"

namespace {

using namespace vestra_client;

constexpr milliseconds kRequestWait{1000};                // so that the daemon's thread can end
constexpr std::chrono::microseconds kLooksAreFresh{100};  // how long a check is valid while a request is answered
constexpr std::chrono::minutes kComplainAgain{1};         // least time between two equal messages
constexpr size_t kServedAddresses = 4;
constexpr int kPublishTries = 1000;  // an obstacle would have to change between two system calls each time

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
        fd_ = above_standard(mkostemp(path_.text, O_CLOEXEC));
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

void initialise(Mapped *mapped) {
    vestra_shm_record &record = mapped->segment->record;
    set_ready(&record, 0);
    for (vestra_api_data &entry : record.request) entry.packet_type = VESTRA_API_UNUSED;
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
    if (shm == nullptr || *shm == nullptr) return 0;
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
    if (segment == nullptr || !service_goes_on()) return -1;
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
    if (segment == nullptr) return -1;
    int value = 0;
    sem_getvalue(&segment->record.ready.semaphore, &value);
    set_ready(&segment->record, value >= 0 && value < SEM_VALUE_MAX ? static_cast<unsigned>(value) + 1 : 1);
    settle(segment);  // last, because the record then belongs to the client
    return 0;
}
