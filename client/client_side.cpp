// The clients' side: finds the daemon, waits for its turn, asks.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "client/segment.h"
#include "platform/guarded.h"

using namespace vestra_client;

constexpr milliseconds kLookForDaemon{100};  // how often a waiting client checks for the daemon
constexpr milliseconds kLookForTurn{20};     // how often it tries again, because a holder may have died

// One question at a time for each handle. Holds the id of the process whose thread holds it, or 0. Not a mutex: a child
// that was forked while another thread held that could never lock it.
class HandleLock {
  public:
    bool lock_until(Clock::time_point deadline) {
        const auto self = static_cast<uint32_t>(getpid());
        for (;;) {
            uint32_t holder = __atomic_load_n(&holder_, __ATOMIC_RELAXED);
            if (holder != self) {  // free, or the holder stayed in the parent
                if (__atomic_compare_exchange_n(&holder_, &holder, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
                    return true;
                }
            } else if (!sleep_on(&holder_, self, deadline)) {
                return false;
            }
        }
    }
    void unlock() {
        __atomic_store_n(&holder_, 0U, __ATOMIC_RELEASE);
        wake(&holder_, 1);
    }

  private:
    uint32_t holder_ = 0;
};

struct vestra_api_client {
    vestra_api_client() = default;
    vestra_api_client(const vestra_api_client &) = delete;
    vestra_api_client &operator=(const vestra_api_client &) = delete;
    ~vestra_api_client() { drop(); }

    void drop() {
        unmap_segment(&mapped);
        close_lock_file();
    }
    void close_lock_file() {
        const int old = std::exchange(daemon_fd, -1);
        if (old >= 0) close(old);
    }

    HandleLock lock;     // guards what follows
    Mapped mapped{};     // the segment that was used last
    int daemon_fd = -1;  // its daemon's lock file
    pid_t process = 0;   // that opened them: a child would share the locks of its parent
    int complaint = 0;   // what the last look for a segment has found wrong: logged once until it changes
};

namespace {

// Keeps the calling thread from being ended in the middle of a call: by cancellation, which would leave the handle
// locked, and by SIGBUS, which ends the process where it is blocked.
class Shelter {
  public:
    Shelter() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
        sigset_t bus_error;
        sigemptyset(&bus_error);
        sigaddset(&bus_error, SIGBUS);
        pthread_sigmask(SIG_UNBLOCK, &bus_error, &mask_);
    }
    Shelter(const Shelter &) = delete;
    Shelter &operator=(const Shelter &) = delete;
    ~Shelter() {
        if (sigismember(&mask_, SIGBUS) == 1) pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        pthread_setcancelstate(cancel_state_, nullptr);
    }

  private:
    int cancel_state_;
    sigset_t mask_;
};

bool is_trusted(const struct stat &info) {
    gid_t group = 0;
    if (!S_ISREG(info.st_mode)) return false;
    if (info.st_uid == geteuid() || info.st_uid == 0) return true;
    return group_from_environment(&group) && info.st_gid == group;
}

// True if the owner of the segment runs a daemon.
bool daemon_lives(vestra_api_client *client) {
    if (client->daemon_fd >= 0 && write_locked(client->daemon_fd)) return true;
    client->close_lock_file();
    client->daemon_fd = open_file(lock_path(), O_RDONLY);  // there may be a new one
    struct stat info;
    if (client->daemon_fd >= 0 && fstat(client->daemon_fd, &info) == 0 && S_ISREG(info.st_mode) &&
        info.st_uid == client->mapped.owner && write_locked(client->daemon_fd)) {
        return true;
    }
    client->close_lock_file();  // the next look must check the owner, too
    return false;
}

// True if the mapped segment is still the one that a daemon serves.
bool is_served(vestra_api_client *client) {
    struct stat info;
    return stat_file(segment_path(), &info) && client->mapped.is_file(info) && daemon_lives(client);
}

// kNotReady: a daemon is running, but it has not set the marker yet, or it still has to repair what a client did to the
// marker, the magic number or the size.
enum class Found { kNothing, kNotReady, kDaemon };

constexpr int kRefused = -1;  // a complaint besides the error numbers

// Logs why the segment cannot be used, unless that is as it was before. 0: it can be.
void complain(vestra_api_client *client, int reason) {
    if (reason == client->complaint) return;
    client->complaint = errno = reason;
    if (reason == kRefused) PLATFORM_LOGW("segment %s is refused: wrong size or another user's", segment_name());
    if (reason > 0) PLATFORM_LOGW("cannot open segment %s (%d:%m)", segment_name(), reason);
}

// Opens and maps the current segment.
Found map_current(vestra_api_client *client) {
    client->drop();
    client->process = getpid();
    const int fd = open_file(segment_path(), O_RDWR);
    if (fd < 0) {
        complain(client, errno == ENOENT ? 0 : errno);
        return Found::kNothing;
    }
    struct stat info = {};
    const bool trusted = fstat(fd, &info) == 0 && is_trusted(info);
    client->mapped.owner = info.st_uid;
    const bool lives = trusted && daemon_lives(client);
    const bool whole = info.st_size == static_cast<off_t>(sizeof(Segment));
    complain(client, trusted && whole ? 0 : kRefused);
    if (lives && whole && map_segment(fd, info, &client->mapped)) return Found::kDaemon;
    close(fd);
    return lives && !whole ? Found::kNotReady : Found::kNothing;
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
    if (requests == nullptr || count < 1 || count > VESTRA_API_VITALS) return false;
    return std::all_of(requests, requests + count, [](const vestra_api_data &request) {
        return request.packet_type >= 0 && request.packet_type < VESTRA_API_VITALS && request.window >= 0 &&
               request.window <= VESTRA_API_WINDOW_MAX;
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

void set_posted(Segment *segment) {
    __atomic_store_n(&segment->record.state, static_cast<int32_t>(VESTRA_REQUEST_POSTED), __ATOMIC_RELEASE);
}

// Writes the entries and posts the request. The daemon is idle and has no other request to take.
void post(Segment *segment, const vestra_api_data *requests, int count) {
    set_ready(&segment->record, 0);
    for (int i = 0; i < VESTRA_API_VITALS; ++i) {
        vestra_api_data entry = {};
        entry.packet_type = i < count ? requests[i].packet_type : VESTRA_API_UNUSED;
        entry.window = i < count ? requests[i].window : 0;
        entry.answer_type = VESTRA_API_UNUSED;
        segment->record.request[i] = entry;
    }
    set_posted(segment);
    move_stage(segment, kFree, kPosted);
    wake(&segment->stage);
}

// Copies the answers out of the record. If one is missing, the requests stay untouched.
int fetch(const Mapped &mapped, vestra_api_data *requests, int count) {
    const Segment *segment = mapped.segment;
    if (__atomic_load_n(&segment->record.state, __ATOMIC_ACQUIRE) != VESTRA_REQUEST_ANSWERED) return VESTRA_API_TIMEOUT;
    std::array<vestra_api_data, VESTRA_API_VITALS> answers;
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
    // If somebody has overwritten its state, the daemon would wait four seconds for it to be posted.
    if (stage_of(mapped.segment) == kTaken) set_posted(mapped.segment);
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
    if (!client->lock.lock_until(deadline)) return VESTRA_API_TIMEOUT;
    const std::lock_guard<HandleLock> hold(client->lock, std::adopt_lock);
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
    return new (std::nothrow) vestra_api_client;
}

int vestra_api_ask(vestra_api_h client, vestra_api_data *requests, int count, int timeout_ms) {
    if (client == nullptr || !valid(requests, count)) return VESTRA_API_REFUSED;
    const Shelter shelter;
    return guarded<int>(VESTRA_API_NO_MEMORY, [&] { return ask(client, requests, count, timeout_ms); });
}

void vestra_api_close(vestra_api_h client) {
    const Shelter shelter;
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
            return "a request is out of range or was left unanswered";
        case VESTRA_API_NO_MEMORY:
            return "out of memory";
        default:
            return "unknown result";
    }
}
