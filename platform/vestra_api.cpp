#include "platform/vestra_api.h"

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "platform/fault.h"
#include "platform/guarded.h"

namespace {

constexpr char kDefaultName[] = "/vestra_api";
constexpr uint32_t kMagic = 0x31415356;  // the library's part is initialised

// The whole segment: the daemon's record, then the library's own part.
struct Segment {
    vestra_shm_record record;
    sem_t request;             // posted by clients
    pthread_mutex_t turn;      // robust; held by the client whose turn it is
    uint32_t magic;            // kMagic once everything is initialised
    uint32_t posted_sequence;  // of the newest request; written by the client whose turn it is
    uint32_t taken_sequence;   // of the request that the daemon works on; written by the daemon
    uint32_t answered_sequence;
};
static_assert(offsetof(Segment, request) == 912, "the library's part begins behind the record");

const char *segment_name() {
    const char *name = getenv("VESTRA_API_SHM");
    return name != nullptr && *name == '/' ? name : kDefaultName;
}

// The file behind the segment's name, for a look that costs one system call.
bool stat_segment(struct stat *info) {
    char path[128];
    const int length = snprintf(path, sizeof(path), "/dev/shm%s", segment_name());
    return length > 0 && length < static_cast<int>(sizeof(path)) && stat(path, info) == 0;
}

// One mapping of a segment and the file that it is of.
class Mapping {
  public:
    Mapping() = default;
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    Mapping(Mapping &&other) noexcept { swap(other); }
    Mapping &operator=(Mapping &&other) noexcept {
        Mapping moved(std::move(other));
        swap(moved);
        return *this;
    }
    ~Mapping() {
        if (segment_ != nullptr) munmap(segment_, sizeof(Segment));
        if (fd_ >= 0) close(fd_);
    }

    // Takes the descriptor over. False when the file is not a whole segment of ours.
    bool map(int fd) {
        fd_ = fd;
        struct stat info;
        if (fstat(fd, &info) != 0 || info.st_size != static_cast<off_t>(sizeof(Segment))) return false;
        if (info.st_uid != geteuid() && info.st_uid != 0 && getenv("VESTRA_API_GROUP") == nullptr) return false;
        void *address = mmap(nullptr, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) return false;
        segment_ = static_cast<Segment *>(address);
        device_ = info.st_dev;
        inode_ = info.st_ino;
        return true;
    }

    bool is_file(const struct stat &info) const {
        return segment_ != nullptr && info.st_dev == device_ && info.st_ino == inode_;
    }
    Segment *segment() const { return segment_; }
    int fd() const { return fd_; }

  private:
    void swap(Mapping &other) noexcept {
        std::swap(fd_, other.fd_);
        std::swap(segment_, other.segment_);
        std::swap(device_, other.device_);
        std::swap(inode_, other.inode_);
    }

    int fd_ = -1;
    Segment *segment_ = nullptr;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// The daemon's lock on the segment's first byte: held as long as a daemon lives, also when it is killed.
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

/* ------------------------------ The daemon's side ------------------------------ */

std::mutex server_lock;  // guards the two below
Mapping serving;         // the segment that get_shm hands out
// Replaced segments, the newest last: another thread may still use their address.
std::array<Mapping, 4> replaced;

void set_group(int fd) {
    const char *name = getenv("VESTRA_API_GROUP");
    if (name == nullptr) return;
    const struct group *group = getgrnam(name);
    if (group == nullptr || fchown(fd, static_cast<uid_t>(-1), group->gr_gid) != 0 || fchmod(fd, 0660) != 0) {
        PLATFORM_LOGW("group %s does not get the segment (%d:%m)", name, errno);
    }
}

bool initialise(Segment *segment) {
    pthread_mutexattr_t attributes;
    if (sem_init(&segment->record.ready, 1, 0) != 0 || sem_init(&segment->request, 1, 0) != 0) return false;
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    bool done = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0;
    done = done && pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0;
    done = done && pthread_mutex_init(&segment->turn, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    for (vestra_api_data &entry : segment->record.request) entry.packet_type = kVestraUnused;
    if (done) __atomic_store_n(&segment->magic, kMagic, __ATOMIC_RELEASE);
    return done;
}

// Removes what an earlier daemon left under the name. False when a living daemon serves it or it is not ours to remove.
bool remove_old_segment() {
    const int fd = shm_open(segment_name(), O_RDWR, 0);
    if (fd < 0) return errno == ENOENT;
    struct stat info;
    const bool ours = fstat(fd, &info) == 0 && info.st_uid == geteuid();
    const bool served = daemon_lives(fd);
    close(fd);
    if (!ours || served) {
        PLATFORM_LOGW("segment %s %s", segment_name(),
                      served ? "is served by another daemon" : "belongs to another user");
        return false;
    }
    return shm_unlink(segment_name()) == 0;
}

// A new segment under the name, served by this process. Removed again when it cannot be completed.
bool create_segment(Mapping *mapping) {
    if (!remove_old_segment()) return false;
    const int fd = shm_open(segment_name(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) {
        PLATFORM_LOGW("cannot make segment %s (%d:%m)", segment_name(), errno);
        return false;
    }
    const bool sized = ftruncate(fd, sizeof(Segment)) == 0;
    if (!sized || !mapping->map(fd) || !take_daemon_lock(mapping->fd()) || !initialise(mapping->segment())) {
        PLATFORM_LOGW("cannot set up segment %s (%d:%m)", segment_name(), errno);
        if (!sized) close(fd);
        shm_unlink(segment_name());
        return false;
    }
    set_group(mapping->fd());
    return true;
}

Segment *serving_segment() {
    const std::lock_guard<std::mutex> hold(server_lock);
    return serving.segment();
}

}  // namespace

void *get_shm(void) {
    if (platform_fault(FAULT_GET_SHM)) return nullptr;
    return guarded(static_cast<void *>(nullptr), []() -> void * {
        const std::lock_guard<std::mutex> hold(server_lock);
        struct stat info;
        if (stat_segment(&info) && serving.is_file(info)) return serving.segment();
        Mapping fresh;
        if (!create_segment(&fresh)) return nullptr;
        // A segment that replaces one that was removed is served by a daemon that is up already.
        if (serving.segment() != nullptr) {
            const int32_t marker = __atomic_load_n(&serving.segment()->record.marker, __ATOMIC_ACQUIRE);
            __atomic_store_n(&fresh.segment()->record.marker, marker, __ATOMIC_RELEASE);
        }
        std::move(replaced.begin() + 1, replaced.end(), replaced.begin());
        replaced.back() = std::move(serving);
        serving = std::move(fresh);
        return serving.segment();
    });
}

int check_if_valid_shm(void **shm) {
    if (shm == nullptr || *shm == nullptr) return 0;
    const std::lock_guard<std::mutex> hold(server_lock);
    struct stat info;
    return *shm == serving.segment() && stat_segment(&info) && serving.is_file(info) ? 1 : 0;
}

static timespec monotonic_after_ms(int64_t milliseconds) {
    timespec when = {};
    clock_gettime(CLOCK_MONOTONIC, &when);
    when.tv_sec += static_cast<time_t>(milliseconds / 1000);
    when.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (when.tv_nsec >= 1000000000) {
        when.tv_nsec -= 1000000000;
        ++when.tv_sec;
    }
    return when;
}

int vestra_request_sem_lock_func(const char * /*caller*/, int /*n*/) {
    Segment *segment = serving_segment();
    if (segment == nullptr) return -1;
    const timespec deadline = monotonic_after_ms(1000);
    if (sem_clockwait(&segment->request, CLOCK_MONOTONIC, &deadline) != 0) return -1;
    const uint32_t sequence = __atomic_load_n(&segment->posted_sequence, __ATOMIC_ACQUIRE);
    __atomic_store_n(&segment->taken_sequence, sequence, __ATOMIC_RELEASE);
    return 0;
}

int vestra_ready_sem_unlock_func(const char * /*caller*/) {
    Segment *segment = serving_segment();
    if (segment == nullptr) return -1;
    const uint32_t sequence = __atomic_load_n(&segment->taken_sequence, __ATOMIC_ACQUIRE);
    __atomic_store_n(&segment->answered_sequence, sequence, __ATOMIC_RELEASE);
    return sem_post(&segment->record.ready);
}

/* ------------------------------ The clients' side ------------------------------ */

struct vestra_api_client {
    std::mutex lock;  // one question at a time with one handle
    Mapping mapping;
};

namespace {

// Makes the handle's mapping the segment that is there now, served and ready. False when there is none.
bool connect(vestra_api_client *client) {
    struct stat info;
    if (!stat_segment(&info)) return false;
    if (!client->mapping.is_file(info)) {
        client->mapping = Mapping();
        const int fd = shm_open(segment_name(), O_RDWR, 0);
        if (fd < 0) return false;
        Mapping found;
        if (!found.map(fd)) return false;
        client->mapping = std::move(found);
    }
    const Segment *segment = client->mapping.segment();
    return __atomic_load_n(&segment->magic, __ATOMIC_ACQUIRE) == kMagic &&
           __atomic_load_n(&segment->record.marker, __ATOMIC_ACQUIRE) == 1 && daemon_lives(client->mapping.fd());
}

bool valid(const vestra_api_data *requests, int count) {
    if (requests == nullptr || count < 1 || count > kVestraVitals) return false;
    for (int i = 0; i < count; ++i) {
        const vestra_api_data &request = requests[i];
        if (request.packet_type < 0 || request.packet_type >= kVestraVitals) return false;
        if (request.window < 0 || request.window > kVestraWindowMax) return false;
    }
    return true;
}

// The turn, for as long as it is held.
class Turn {
  public:
    Turn(Segment *segment, const timespec &deadline) : segment_(segment) {
        const int result = pthread_mutex_clocklock(&segment->turn, CLOCK_MONOTONIC, &deadline);
        // The holder before died: whatever it left behind is overwritten now.
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
    bool taken_;
};

void store_state(Segment *segment, int32_t state) {
    __atomic_store_n(&segment->record.state, state, __ATOMIC_RELEASE);
}

// Writes the entries and posts the request. Returns its sequence number.
uint32_t post(Segment *segment, const vestra_api_data *requests, int count) {
    while (sem_trywait(&segment->request) == 0) {
    }
    while (sem_trywait(&segment->record.ready) == 0) {
    }
    for (int i = 0; i < kVestraVitals; ++i) {
        vestra_api_data entry = {};
        entry.packet_type = i < count ? requests[i].packet_type : kVestraUnused;
        entry.window = i < count ? requests[i].window : 0;
        entry.answer_type = kVestraUnused;
        segment->record.request[i] = entry;
    }
    store_state(segment, VESTRA_REQUEST_POSTED);
    const uint32_t sequence = segment->posted_sequence + 1;
    __atomic_store_n(&segment->posted_sequence, sequence, __ATOMIC_RELEASE);
    sem_post(&segment->request);
    return sequence;
}

// Waits for the answer to request `sequence`.
int wait_for_answer(const Mapping &mapping, uint32_t sequence, const timespec &deadline) {
    Segment *segment = mapping.segment();
    for (;;) {
        if (sem_clockwait(&segment->record.ready, CLOCK_MONOTONIC, &deadline) != 0) {
            if (errno == EINTR) continue;
            return daemon_lives(mapping.fd()) ? VESTRA_API_TIMEOUT : VESTRA_API_NO_DAEMON;
        }
        const int32_t state = __atomic_load_n(&segment->record.state, __ATOMIC_ACQUIRE);
        if (__atomic_load_n(&segment->answered_sequence, __ATOMIC_ACQUIRE) == sequence) {
            return state == VESTRA_REQUEST_ANSWERED ? VESTRA_API_OK : VESTRA_API_TIMEOUT;
        }
        // The end of an answer to someone who has given up; it overwrote our state.
        store_state(segment, VESTRA_REQUEST_POSTED);
    }
}

int ask(vestra_api_client *client, vestra_api_data *requests, int count, int timeout_ms) {
    const timespec deadline = monotonic_after_ms(timeout_ms < 0 ? 0 : timeout_ms);
    const std::lock_guard<std::mutex> hold(client->lock);
    if (!connect(client)) return VESTRA_API_NO_DAEMON;
    Segment *segment = client->mapping.segment();
    const Turn turn(segment, deadline);
    if (!turn.taken()) return VESTRA_API_TIMEOUT;
    const uint32_t sequence = post(segment, requests, count);
    const int result = wait_for_answer(client->mapping, sequence, deadline);
    if (result != VESTRA_API_OK) return result;
    for (int i = 0; i < count; ++i) {
        const vestra_api_data answer = segment->record.request[i];
        requests[i].maximum = answer.maximum;
        requests[i].minimum = answer.minimum;
        requests[i].average = answer.average;
        requests[i].variance = answer.variance;
        requests[i].answer_type = answer.answer_type;
    }
    return VESTRA_API_OK;
}

}  // namespace

vestra_api_h vestra_api_open(void) {
    return new (std::nothrow) vestra_api_client;
}

int vestra_api_ask(vestra_api_h client, vestra_api_data *requests, int count, int timeout_ms) {
    if (client == nullptr || !valid(requests, count)) return VESTRA_API_REFUSED;
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
