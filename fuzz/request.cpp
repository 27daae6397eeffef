// Arbitrary writes into the request segment, by a client or anybody else who may open it, while the daemon works.
//
// An input is a list of entries: two bytes of offset, one byte of length (0 to 63), and the bytes to write there. One
// entry is performed before each step of the daemon with the segment: each check, pause or wait for a request. Three
// lengths are special: 63 posts the request of a well-behaved client, 62 removes the segment, and 61 truncates it.
//
// If the input's size is odd, a second thread writes the input over the requests all the time, so that they change while
// they are answered. Such a run cannot be repeated exactly.
//
// Rules: the service ends when asked to, and its data does not change. The next client is answered, with the same
// figures for each vital as a direct call gives. No descriptor stays open.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

#include "client/vestra_api.h"
#include "fuzz/decoder_state.h"
#include "fuzz/fuzz_env.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestra_ipc.h"
#include "vestra-daemon/vestrad.h"

namespace {

constexpr char kName[] = "/vestra_fuzz";
constexpr char kFile[] = "/dev/shm/vestra_fuzz";
// The library's private part of the segment: the magic number, the stage, the knock, the word for the turn.
constexpr size_t kStage = sizeof(vestra_shm_record) + 4, kKnock = kStage + 4, kSegment = kKnock + 8;
constexpr uint32_t kPosted = 1;
constexpr int kMostSteps = 20000;  // after more steps the service counts as endless

const uint8_t *entries;
size_t left;
int steps;
bool last_request;  // the clean request after all entries was posted
vestra_shm_record *record;
_SYSDATA_ ring[kSlotCount];
vestra_api_data expected[VESTRA_API_VITALS];

// Writes the input over the requests until it is stopped. Not through the mapping: the compiler may assume that no other
// thread writes there.
class SecondThread {
  public:
    void start(const uint8_t *data, size_t size) {
        stop_ = false;
        thread_ = std::thread([this, data, size] {
            for (size_t offset = 0; !stop_; offset = (offset + 4) % (sizeof(record->request) - sizeof(int32_t))) {
                const int fd = open(kFile, O_RDWR | O_CLOEXEC);
                if (fd < 0) continue;
                const size_t count = std::min(size, sizeof(record->request) - offset);
                if (pwrite(fd, data, count, static_cast<off_t>(offsetof(vestra_shm_record, request) + offset)) < 0)
                    abort();
                close(fd);
            }
        });
    }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
} second_thread;

uint8_t *bytes() {
    return reinterpret_cast<uint8_t *>(record);
}

// Posts the request of a well-behaved client.
void post() {
    for (int i = 0; i < VESTRA_API_VITALS; ++i)
        record->request[i] = {i, 10 * (i % 3), 0, 0, 0, 0, VESTRA_API_UNUSED, 0};
    record->state = VESTRA_REQUEST_POSTED;
    memcpy(bytes() + kStage, &kPosted, sizeof(kPosted));
}

void do_entry() {
    FUZZ_RULE(++steps < kMostSteps, "the service ends");
    if (record == nullptr || left < 3) return;
    const size_t offset = (entries[0] + 256U * entries[1]) % kSegment;
    const size_t length = entries[2] % 64U;
    entries += 3;
    left -= 3;
    if (length == 61) {
        FUZZ_RULE(truncate(kFile, 0) == 0 || errno == ENOENT, "the segment can be truncated");
    } else if (length == 62) {
        shm_unlink(kName);
    } else if (length == 63) {
        post();
    } else {
        const size_t count = std::min({length, left, kSegment - offset});
        memcpy(bytes() + offset, entries, count);
        entries += count;
        left -= count;
    }
}

// Compares the figures only, not the padding.
bool same_figures(const vestra_api_data &a, const vestra_api_data &b) {
    return memcmp(&a.maximum, &b.maximum, 4 * sizeof(double)) == 0;
}

}  // namespace

extern "C" {

void *__real_get_shm();
void *__wrap_get_shm() {
    do_entry();
    record = static_cast<vestra_shm_record *>(__real_get_shm());
    if (record != nullptr) do_entry();
    return record;
}

int __real_check_if_valid_shm(void **shm);
int __wrap_check_if_valid_shm(void **shm) {
    do_entry();
    return __real_check_if_valid_shm(shm);
}

int __wrap_nanosleep(const timespec *, timespec *) {
    do_entry();
    // If the marker says "not ready", the daemon repairs it only after a client's knock.
    if (record != nullptr) bytes()[kKnock] = 1;
    return 0;
}

int __real_vestra_request_sem_lock_func(const char *caller, int n);
int __wrap_vestra_request_sem_lock_func(const char *caller, int n) {
    do_entry();
    if (last_request) exit_flag = 1;
    if (left < 3 && !last_request) {
        // A client uses the current segment. Nobody asks through one that was removed.
        const uint32_t nobody_at_work = 0;
        memcpy(bytes() + kStage, &nobody_at_work, sizeof(nobody_at_work));
        void *segment = record;
        if (__real_check_if_valid_shm(&segment) == 0) return -1;
        second_thread.stop();
        last_request = true;
        post();
        exit_flag = 0;
    }
    // Set to posted, otherwise the call waits for a second.
    memcpy(bytes() + kStage, &kPosted, sizeof(kPosted));
    return __real_vestra_request_sem_lock_func(caller, n);
}

}  // extern "C"

void vestra_fuzz::prepare() {
    setenv("VESTRA_API_SHM", kName, 1);
    reset_decoder();
    _SYSDATA_ sample = {};
    for (int second = 1; second <= 200; ++second) {
        sample.timestamp = sample.switch_timestamp = second * int64_t{1'000'000'000};
        sample.element10 = second;
        sample.element11 = second % 7;
        for (int core = 0; core < kCoreCount; ++core) {
            sample.utime[core] = second * 50 + core;
            sample.stime[core] = second * 20;
            sample.temperature[core] = 40 + core;
            sample.iowaittime[core] = second;
        }
        groupData(&sample, trace::kSwitchFrame, 1);
        for (double &figure : sample.meminfo) figure = second + 0.5;
        groupData(&sample, trace::kMeminfoFrame, 1);
    }
    memcpy(ring, collectedData, sizeof(ring));
    for (int i = 0; i < VESTRA_API_VITALS; ++i) {
        expected[i] = {i, 10 * (i % 3), 0, 0, 0, 0, 0, 0};
        process_request(&expected[i], 1);
    }
    record = static_cast<vestra_shm_record *>(__real_get_shm());
    if (record == nullptr) abort();
    record->marker = 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A new segment, whatever was written into the last one.
    shm_unlink(kName);
    entries = nullptr;
    left = 0;
    record = static_cast<vestra_shm_record *>(__real_get_shm());
    if (record == nullptr) abort();
    record->marker = 1;
    const int descriptors = vestra_fuzz::open_descriptors();
    entries = data;
    left = size;
    steps = 0;
    last_request = false;
    exit_flag = 0;
    if (size % 2 != 0) second_thread.start(data, size);
    client_request_process(nullptr);
    second_thread.stop();
    FUZZ_RULE(vestra_fuzz::open_descriptors() == descriptors, "no descriptor stays open");
    FUZZ_RULE(memcmp(ring, collectedData, sizeof(ring)) == 0, "a request changes nothing in the ring");
    for (int i = 0; i < VESTRA_API_VITALS; ++i) {
        FUZZ_RULE(record->request[i].answer_type == i, "the next client is answered");
        FUZZ_RULE(same_figures(record->request[i], expected[i]), "with the ring's figures");
    }
    return 0;
}
