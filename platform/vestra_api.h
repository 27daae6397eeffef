// vestra_api.h -- the product's client API: asking the daemon for vitals through shared memory.
//
// The set promises the daemon's four calls below and the record's first 912 bytes. The stand-in: POSIX shared memory
// "/vestra_api" (environment VESTRA_API_SHM: another name), mode 0600, or 0660 with the group that VESTRA_API_GROUP
// names. The daemon makes it, new at every start. A client refuses a segment of a wrong size and one that belongs
// neither to its own user nor to root nor to that group. Who may open the segment is trusted not to cut it short and
// not to write into the turn. Whatever else it overwrites, the daemon lives on, and serves the next client: it mends
// the marker, and makes another segment for one whose part behind the record is not its own any more. Differs
// from the set: the calls' inner workings, and everything behind offset 912.
//
// Whose answer it is. A client asks while it has the turn, a robust mutex: a holder that dies does not lock others out.
// The word `stage` (behind the record) goes from free to posted (client), taken (daemon, when its wait for a request
// succeeds) and back to free (daemon, when it signals ready or waits for the next request). The turn's holder withdraws
// a request that was posted and not taken, waits while one is taken, and only then, when the daemon is certainly not at
// work and cannot begin, writes its entries and state 1, and posts. So nothing that the daemon writes late can meet
// another client's request, whenever a client died or gave up. Both sides sleep on that word; the semaphore in the
// record is kept as the daemon counts on it, but wakes nobody. A client that dies or gives up leaves its state as it
// is, so that the daemon is done with it at once.
//
// Whether a daemon is there: it holds a lock on the segment's first byte, which goes when it ends however it ends, and
// has set the marker. A client looks again every 0.1 s while it waits. One that finds a daemon which is not ready
// knocks and waits for it, so that a question asked while the daemon starts, or over an overwritten marker, is answered
// too.
#pragma once

#include <semaphore.h>

#include <cstddef>
#include <cstdint>

constexpr int kVestraVitals = 17;      // packet types 0 to 16, and entries of the record
constexpr int kVestraWindowMax = 180;  // seconds that a window may reach back
constexpr int32_t kVestraUnused = -1;  // packet type of an entry that asks nothing

// One request with its answer. The layout is the daemon's and the clients' both.
struct vestra_api_data {
    int32_t packet_type;  //  0  0..16, or -1: unused
    int32_t window;       //  4  seconds; 0: the current value
    double maximum;       //  8
    double minimum;       // 16
    double average;       // 24
    double variance;      // 32
    int32_t answer_type;  // 40  packet type of the answer
    int32_t padding;      // 44
};
static_assert(sizeof(vestra_api_data) == 48, "the layout is fixed");
static_assert(offsetof(vestra_api_data, packet_type) == 0, "the layout is fixed");
static_assert(offsetof(vestra_api_data, window) == 4, "the layout is fixed");
static_assert(offsetof(vestra_api_data, maximum) == 8, "the layout is fixed");
static_assert(offsetof(vestra_api_data, minimum) == 16, "the layout is fixed");
static_assert(offsetof(vestra_api_data, average) == 24, "the layout is fixed");
static_assert(offsetof(vestra_api_data, variance) == 32, "the layout is fixed");
static_assert(offsetof(vestra_api_data, answer_type) == 40, "the layout is fixed");

// Values of vestra_shm_record::state.
enum vestra_request_state : int32_t {
    VESTRA_REQUEST_POSTED = 1,     // client: waiting for the daemon
    VESTRA_REQUEST_ANSWERED = 2,   // daemon: the answers are in place
    VESTRA_REQUEST_ANSWERING = 5,  // daemon: at work
    VESTRA_REQUEST_GIVEN_UP = 6,   // daemon: no request came
};

// The segment up to where the library's own part begins. sem_t has 16 bytes on 32-bit ARM and 32 on x86-64.
struct vestra_shm_record {
    int32_t marker;             //   0  0: not ready; the daemon's main writes 1
    uint8_t reserved_head[36];  //   4
    alignas(8) sem_t ready;     //  40  counted up by the daemon
    uint8_t reserved_ready[48 - sizeof(sem_t)];
    int32_t state;                           //  88  vestra_request_state
    uint8_t reserved_state[4];               //  92
    vestra_api_data request[kVestraVitals];  //  96
};
static_assert(offsetof(vestra_shm_record, marker) == 0, "the layout is fixed");
static_assert(offsetof(vestra_shm_record, ready) == 40, "the layout is fixed");
static_assert(offsetof(vestra_shm_record, state) == 88, "the layout is fixed");
static_assert(offsetof(vestra_shm_record, request) == 96, "the layout is fixed");
static_assert(sizeof(vestra_shm_record) == 912, "the library's own part begins at 912");

extern "C" {

/* ------------------------------ The daemon's side ------------------------------ */

// The mapped segment, made where there is none; null when it cannot be had (log line), or when another living daemon
// serves it. One system call when nothing has changed. A segment that was removed or damaged is replaced, with the
// marker as it was; an address once handed out stays mapped for good (it is used again for a later replacement, after
// three others). A marker of 1, once seen, is set again when a client has overwritten it.
// Any thread of one process.
void *get_shm(void);

// 1 while the segment at *shm is the one that clients find under the name, else 0; while a request is answered, as of
// at most 0.1 ms ago. Any thread.
int check_if_valid_shm(void **shm);

// Waits until a client signals a request, at most 1 s. 0, or negative when none came; at once when there is no segment.
// `caller` and `n` are not used. One thread.
int vestra_request_sem_lock_func(const char *caller, int n);

// Signals the client that answers (or the give-up state) are there. 0 or negative. The same thread; the record is the
// client's again after it.
int vestra_ready_sem_unlock_func(const char *caller);

/* ------------------------------ The clients' side ------------------------------ */

enum vestra_api_result : int {
    VESTRA_API_OK = 0,
    // No segment that may be used, nobody serves it, its daemon ended meanwhile, or was not ready by the time-out.
    VESTRA_API_NO_DAEMON = -1,
    VESTRA_API_TIMEOUT = -2,  // no answer in time, or the daemon gave up
    VESTRA_API_REFUSED = -3,  // count, packet type or window out of range, null; or the daemon left a type unanswered
    VESTRA_API_NO_MEMORY = -4,
};

typedef struct vestra_api_client *vestra_api_h;

// A handle, to be closed; null without memory. Works without a daemon: each question looks for one.
vestra_api_h vestra_api_open(void);

// Answers `count` (1 to 17) requests in place: packet_type 0..16 and window 0..180 s in; the four figures and
// answer_type out. An empty window gives NaN for average and variance. Waits at most `timeout_ms` in all, turns
// included; below 0 counts as 0. The requests are untouched on failure. Any thread; calls with one handle take turns,
// and so do processes: a client that is stopped in its turn makes the others time out.
int vestra_api_ask(vestra_api_h client, vestra_api_data *requests, int count, int timeout_ms);

void vestra_api_close(vestra_api_h client);

// A text for a result. Never null, never freed.
const char *vestra_api_result_text(int result);

}  // extern "C"
