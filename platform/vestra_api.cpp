#include "platform/vestra_api.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <thread>

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
constexpr uint32_t kMagic = 0x32415356;                   // the private part is initialised
constexpr int32_t kReady = 1;                             // value that the daemon's main writes into the marker
constexpr milliseconds kRequestWait{1000};                // of the daemon, so that its thread can end
constexpr milliseconds kLookForDaemon{100};               // how often a waiting client checks for the daemon
constexpr std::chrono::microseconds kLooksAreFresh{100};  // how long a check is valid while a request is answered
constexpr size_t kServedAddresses = 4;

// Values of Segment::stage; the header says who changes it.
enum Stage : uint32_t { kFree = 0, kPosted = 1, kTaken = 2 };

// The whole segment: the daemon's record, then the library's private part.
struct Segment {
    vestra_shm_record record;
    pthread_mutex_t turn;  // robust; held by the client that may ask
    uint32_t magic;        // kMagic once everything is initialised
    uint32_t stage;        // both sides sleep on it while they have nothing to do
    uint32_t knock;        // not 0: a client has found the daemon not ready
};
static_assert(offsetof(Segment, turn) == 912, "the private part begins after the record");

// A mapping of a segment, and the file that it maps. No destructor: the daemon's mappings must outlive static objects.
struct Mapped {
    Segment *segment;
    int fd;
    dev_t device;
    ino_t inode;
    bool was_ready;  // daemon only: the marker has been set

    bool is_file(const struct stat &info) const {
        return segment != nullptr && fd >= 0 && info.st_dev == device && info.st_ino == inode;
    }
};

const char *segment_name() {
    const char *name = getenv("VESTRA_API_SHM");
    return name != nullptr && *name == '/' ? name : kDefaultName;
}

// Looks up the segment's file by name. One system call.
bool stat_segment(struct stat *info) {
    char path[128];
    const int length = snprintf(path, sizeof(path), "/dev/shm%s", segment_name());
    return length > 0 && length < static_cast<int>(sizeof(path)) && lstat(path, info) == 0;
}

// Maps the segment `fd` over the old mapping in *mapped, or anywhere if there is none. On success *mapped owns the
// descriptor; on failure the caller still does.
bool map_segment(int fd, const struct stat &info, Mapped *mapped) {
    const int fixed = mapped->segment != nullptr ? MAP_FIXED : 0;
    void *address = mmap(mapped->segment, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_SHARED | fixed, fd, 0);
    if (address == MAP_FAILED) return false;
    *mapped = {static_cast<Segment *>(address), fd, info.st_dev, info.st_ino, false};
    return true;
}

// The group that may use the segment, besides its owner.
bool group_from_environment(gid_t *group) {
    const char *name = getenv("VESTRA_API_GROUP");
    const struct group *found = name == nullptr ? nullptr : getgrnam(name);
    if (found == nullptr) return false;
    *group = found->gr_gid;
    return true;
}

// The daemon's lock on the segment's first byte. The kernel releases it when the daemon ends, even if it is killed.
struct flock first_byte(short type) {
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    return range;
}

bool take_daemon_lock(int fd) {
    struct flock range = first_byte(F_WRLCK);
    return fcntl(fd, F_OFD_SETLK, &range) == 0;
}

bool daemon_lives(int fd) {
    struct flock range = first_byte(F_WRLCK);
    return fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
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

// Sleeps while the word is `value`: until woken, or until the deadline.
void sleep_on(const uint32_t *word, uint32_t value, Clock::time_point deadline) {
    const timespec left = to_timespec(std::max(deadline - Clock::now(), Clock::duration::zero()));
    syscall(kFutex, word, FUTEX_WAIT, value, &left, nullptr, 0);
}

void wake(const uint32_t *word) {
    syscall(kFutex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Overwrites the record's semaphore with a new one of that value.
void set_ready(vestra_shm_record *record, unsigned value) {
    sem_t fresh;
    sem_init(&fresh, 1, value);
    memcpy(&record->ready, &fresh, sizeof(fresh));
}

// Locks until a deadline. Returns 0, EOWNERDEAD (also locked), or another error number.
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

std::mutex server_lock;                         // guards the two below
std::array<Mapped, kServedAddresses> served{};  // used in turn, never unmapped: a thread may still use an old address
size_t current;                                 // index of the one that get_shm returns

void set_group(int fd) {
    gid_t group = 0;
    if (getenv("VESTRA_API_GROUP") == nullptr) return;
    if (!group_from_environment(&group)) {
        PLATFORM_LOGW("there is no group %s", getenv("VESTRA_API_GROUP"));
    } else if (fchown(fd, static_cast<uid_t>(-1), group) != 0 || fchmod(fd, 0660) != 0) {
        PLATFORM_LOGW("cannot give segment %s to the group (%d:%m)", segment_name(), errno);
    }
}

bool initialise(Segment *segment) {
    pthread_mutexattr_t attributes;
    set_ready(&segment->record, 0);
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    bool done = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0;
    done = done && pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0;
    done = done && pthread_mutex_init(&segment->turn, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    for (vestra_api_data &entry : segment->record.request) entry.packet_type = kVestraUnused;
    if (done) __atomic_store_n(&segment->magic, kMagic, __ATOMIC_RELEASE);
    return done;
}

// Removes a segment that an earlier daemon left under the name. Returns false if a running daemon serves it, or if we
// may not remove it.
bool remove_old_segment() {
    // Everyone may create files in the directory. A file of another user under the name must not keep root's daemon
    // from its clients.
    struct stat planted;
    if (geteuid() == 0 && stat_segment(&planted) && planted.st_uid != 0) return shm_unlink(segment_name()) == 0;
    const int fd = shm_open(segment_name(), O_RDWR, 0);
    if (fd < 0) {
        if (errno == ENOENT) return true;
        PLATFORM_LOGW("cannot open segment %s (%d:%m)", segment_name(), errno);
        return false;
    }
    struct stat info;
    struct stat named;
    bool removed = false;
    if (fstat(fd, &info) != 0 || info.st_uid != geteuid()) {
        PLATFORM_LOGW("segment %s belongs to another user", segment_name());
    } else if (!take_daemon_lock(fd)) {
        PLATFORM_LOGW("segment %s is served by another daemon", segment_name());
    } else if (stat_segment(&named) && named.st_dev == info.st_dev && named.st_ino == info.st_ino) {
        removed = shm_unlink(segment_name()) == 0;
    }
    close(fd);
    return removed;
}

// Creates a segment that this process serves, mapped at the address in *mapped if there is one. If a step fails, the
// segment is removed again.
bool create_segment(Mapped *mapped) {
    if (!remove_old_segment()) return false;
    const int fd = shm_open(segment_name(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) {
        PLATFORM_LOGW("cannot create segment %s (%d:%m)", segment_name(), errno);
        return false;
    }
    struct stat info;
    // Allocates the pages too: a full file system is then an error here, not a SIGBUS at the first store.
    if (!take_daemon_lock(fd) || (errno = posix_fallocate(fd, 0, sizeof(Segment))) != 0 || fstat(fd, &info) != 0 ||
        !map_segment(fd, info, mapped) || !initialise(mapped->segment)) {
        PLATFORM_LOGW("cannot set up segment %s (%d:%m)", segment_name(), errno);
        mapped->fd = -1;
        close(fd);
        shm_unlink(segment_name());
        return false;
    }
    set_group(fd);
    return true;
}

// Keeps the marker of the current segment set. The daemon's main sets it once. A segment that replaces another gets
// it here, even if main has just written it into the old one: the daemon is already up. A marker that a client
// overwrote is repaired: at once if it is not a valid value, and after a client's knock if it is 0 ("not ready").
void keep_marker() {
    static bool daemon_is_up = false;  // guarded by server_lock
    Mapped &mapped = served[current];
    daemon_is_up = daemon_is_up || std::any_of(served.begin(), served.end(), [](const Mapped &any) {
                       return any.segment != nullptr && marker_of(any.segment) == kReady;
                   });
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
    if (!stat_segment(&info) || !mapped.is_file(info)) return Service::kGone;
    return is_initialised(mapped.segment) ? Service::kGood : Service::kDamaged;
}

Segment *served_segment() {
    const std::lock_guard<std::mutex> hold(server_lock);
    return served[current].segment;
}

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
        const Service service = look_at_service();
        if (service == Service::kDamaged) {
            PLATFORM_LOGW("segment %s was overwritten and is replaced", segment_name());
            shm_unlink(segment_name());
        }
        if (service != Service::kGood) {
            const size_t next = (current + 1) % served.size();
            if (!create_segment(&served[next])) return nullptr;
            if (served[current].segment != nullptr && served[current].fd >= 0) {
                close(served[current].fd);  // releases the lock, so clients that still wait there see the end
                served[current].fd = -1;
            }
            current = next;
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
    if (look_at_service() != Service::kGood) return 0;
    last_good = now;
    return 1;
}

int vestra_request_sem_lock_func(const char * /*caller*/, int /*n*/) {
    Segment *segment = served_segment();
    if (segment == nullptr || platform_fault(FAULT_REQUEST_WAIT)) return -1;
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
        if (mapped.segment == nullptr) return;
        munmap(mapped.segment, sizeof(Segment));
        close(mapped.fd);
        mapped = {};
    }

    std::mutex lock;  // one question at a time for each handle
    Mapped mapped{};  // the segment that was used last
};

namespace {

bool may_use(const struct stat &info) {
    gid_t group = 0;
    if (!S_ISREG(info.st_mode) || info.st_size != static_cast<off_t>(sizeof(Segment))) return false;
    if (info.st_uid == geteuid() || info.st_uid == 0) return true;
    return group_from_environment(&group) && info.st_gid == group;
}

enum class Found { kNothing, kNotReady, kDaemon };

// Maps the current segment into the handle and reports its state. kNotReady: a daemon is running, but it is still
// setting up the segment, or the marker or magic number was overwritten and will be repaired.
Found connect(vestra_api_client *client) {
    struct stat info;
    if (!stat_segment(&info)) return Found::kNothing;
    if (!client->mapped.is_file(info)) {
        client->drop();
        const int fd = shm_open(segment_name(), O_RDWR, 0);
        if (fd < 0) {
            PLATFORM_LOGW("cannot open segment %s (%d:%m)", segment_name(), errno);
            return Found::kNothing;
        }
        const bool known = fstat(fd, &info) == 0;
        if (known && info.st_size != 0 && !may_use(info)) {
            PLATFORM_LOGW("segment %s is refused: wrong size or another user's", segment_name());
        }
        if (!known || !may_use(info) || !map_segment(fd, info, &client->mapped)) {
            close(fd);
            return Found::kNothing;
        }
    }
    const Segment *segment = client->mapped.segment;
    if (!daemon_lives(client->mapped.fd)) return Found::kNothing;
    return is_initialised(segment) && marker_of(segment) == kReady ? Found::kDaemon : Found::kNotReady;
}

// Connects to a daemon that is ready. Returns false if none is running, or none is ready before the deadline.
bool connect_until(vestra_api_client *client, Clock::time_point deadline) {
    for (;;) {
        const Found found = connect(client);
        const auto now = Clock::now();
        if (found == Found::kDaemon) return true;
        if (found == Found::kNothing || now >= deadline) return false;
        __atomic_store_n(&client->mapped.segment->knock, 1U, __ATOMIC_RELEASE);
        wake(&client->mapped.segment->stage);
        std::this_thread::sleep_until(std::min(deadline, now + Clock::duration(kLookForDaemon)));
    }
}

bool valid(const vestra_api_data *requests, int count) {
    if (requests == nullptr || count < 1 || count > kVestraVitals) return false;
    return std::all_of(requests, requests + count, [](const vestra_api_data &request) {
        return request.packet_type >= 0 && request.packet_type < kVestraVitals && request.window >= 0 &&
               request.window <= kVestraWindowMax;
    });
}

// Holds the turn while it exists.
class Turn {
  public:
    Turn(Segment *segment, Clock::time_point deadline) : segment_(segment) {
        const int result = lock_until(&segment->turn, deadline);
        // The last holder died. Nothing else to repair: each turn begins by clearing what the one before left.
        if (result == EOWNERDEAD) pthread_mutex_consistent(&segment->turn);
        taken_ = result == 0 || result == EOWNERDEAD;
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
    ~Turn() {
        if (taken_) pthread_mutex_unlock(&segment_->turn);
    }
    bool taken() const { return taken_; }

  private:
    Segment *segment_;
    bool taken_ = false;
};

// Waits until no request is posted or taken.
int wait_until_free(const Mapped &mapped, Clock::time_point deadline) {
    for (;;) {
        const uint32_t stage = stage_of(mapped.segment);
        if (stage == kFree) return VESTRA_API_OK;
        if (!daemon_lives(mapped.fd)) return VESTRA_API_NO_DAEMON;
        const auto now = Clock::now();
        if (now >= deadline) return VESTRA_API_TIMEOUT;
        sleep_on(&mapped.segment->stage, stage, std::min(deadline, now + Clock::duration(kLookForDaemon)));
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
int fetch(const Segment *segment, vestra_api_data *requests, int count) {
    if (__atomic_load_n(&segment->record.state, __ATOMIC_ACQUIRE) != VESTRA_REQUEST_ANSWERED) return VESTRA_API_TIMEOUT;
    std::array<vestra_api_data, kVestraVitals> answers;
    for (int i = 0; i < count; ++i) {
        const auto index = static_cast<size_t>(i);
        answers[index] = segment->record.request[i];
        if (answers[index].answer_type != requests[i].packet_type) return VESTRA_API_REFUSED;
    }
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

int ask(vestra_api_client *client, vestra_api_data *requests, int count, int timeout_ms) {
    const auto deadline = Clock::now() + milliseconds(std::max(timeout_ms, 0));
    if (lock_until(client->lock.native_handle(), deadline) != 0) return VESTRA_API_TIMEOUT;
    const std::lock_guard<std::mutex> hold(client->lock, std::adopt_lock);
    if (!connect_until(client, deadline)) return VESTRA_API_NO_DAEMON;
    const Mapped &mapped = client->mapped;
    const Turn turn(mapped.segment, deadline);
    if (!turn.taken()) return daemon_lives(mapped.fd) ? VESTRA_API_TIMEOUT : VESTRA_API_NO_DAEMON;

    move_stage(mapped.segment, kPosted, kFree);  // withdraws the request of a client that has gone
    int result = wait_until_free(mapped, deadline);
    if (result != VESTRA_API_OK) return result;
    post(mapped.segment, requests, count);
    result = wait_until_free(mapped, deadline);
    if (result == VESTRA_API_OK) return fetch(mapped.segment, requests, count);
    move_stage(mapped.segment, kPosted, kFree);
    return result;
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
