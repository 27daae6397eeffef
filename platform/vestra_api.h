// vestra_api.h -- client API: asks the daemon for vitals through shared memory.
//
// The set promises: the daemon's four calls below, and the record's first 912 bytes.
//
// The stand-in: POSIX shared memory "/vestra_api" (environment VESTRA_API_SHM: another name), mode 0600, or 0660 with
// the group that VESTRA_API_GROUP names. Next to it is the lock file "/vestra_api.daemon", which only the daemon's user
// may write. The daemon creates a new segment at each start. Set-user-ID programs ignore both variables.
//
// Differs from the set: how the calls work inside, and everything from offset 912 on.
//
// Who can do what. Everyone may create files in /dev/shm, but nobody can keep root's daemon from its two names: both
// files get their names when they are complete, in one step that replaces another file and moves a directory aside. A
// client refuses a segment of the wrong size, and one that belongs neither to its own user nor to root nor to that
// group.
//
// Users who may open the segment can make questions fail or answers wrong for as long as they write to it, and they
// can keep the turn. They cannot end or take over another process: the segment holds no addresses, the library checks
// what it reads, and it handles SIGBUS, which an access to a truncated segment raises. Only an access to the segment
// is handled; other signals go to the handler that was there before. A program that sets its own SIGBUS handler later
// loses this protection. The daemon repairs the marker, and replaces a segment that was truncated or whose private
// part (after the record) is damaged.
//
// One request at a time. A client asks while it holds the turn, an open-file-description lock on the segment's first
// byte, which the kernel releases when the holder ends. (A child that was forked during a question and lives on keeps
// it.) The word `stage`, after the record, goes from free to posted (client), to taken (daemon, when its wait for a
// request succeeds), and back to free (daemon, when it signals ready or waits for the next request). The holder of the
// turn first withdraws a request that was posted but not taken, and waits while one is taken. Now the daemon is
// certainly idle. Only then does the client write its entries and state 1, and post. So a late write of the daemon
// never reaches another client's request, no matter when a client died or gave up.
//
// Both sides sleep on `stage`, and clients that wait for their turn on `waiting`. The semaphore in the record is kept
// up to date because the daemon reads its value, but it wakes nobody. A client that dies or gives up leaves the
// record's state unchanged, so the daemon finishes at once.
//
// Is a daemon running? A running daemon holds a write lock on the lock file, which no client can hold: clients may
// only read that file, and the daemon locks it before it gets its name. The kernel releases the lock however the
// daemon ends. A ready daemon has also set the marker. A waiting client checks again every 0.1 s. If it finds a daemon
// that is not ready, it sets the `knock` word and waits. If the segment was replaced, it asks again in the new one. So
// a question is answered even if it arrives between the creation of the segment and the end of the daemon's start, or
// after the marker was overwritten. Before that, and after a daemon has ended, there is no daemon, and a client does
// not wait for one.
#pragma once

#include <semaphore.h>

#include <cstddef>
#include <cstdint>

constexpr int kVestraVitals = 17;      // packet types 0 to 16, and entries of the record
constexpr int kVestraWindowMax = 180;  // seconds that a window may reach back
constexpr int32_t kVestraUnused = -1;  // packet type of an entry that asks nothing

// One request with its answer, shared by the daemon and its clients.
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
    VESTRA_REQUEST_ANSWERED = 2,   // daemon: the answers are written
    VESTRA_REQUEST_ANSWERING = 5,  // daemon: working on it
    VESTRA_REQUEST_GIVEN_UP = 6,   // daemon: no request came
};

// The segment up to the library's private part. sem_t has 16 bytes on 32-bit ARM and 32 on x86-64.
struct vestra_shm_record {
    int32_t marker;             //   0  0: not ready; the daemon's main writes 1
    uint8_t reserved_head[36];  //   4
    alignas(8) sem_t ready;     //  40  incremented by the daemon
    uint8_t reserved_ready[48 - sizeof(sem_t)];
    int32_t state;                           //  88  vestra_request_state
    uint8_t reserved_state[4];               //  92
    vestra_api_data request[kVestraVitals];  //  96
};
static_assert(offsetof(vestra_shm_record, marker) == 0, "the layout is fixed");
static_assert(offsetof(vestra_shm_record, ready) == 40, "the layout is fixed");
static_assert(offsetof(vestra_shm_record, state) == 88, "the layout is fixed");
static_assert(offsetof(vestra_shm_record, request) == 96, "the layout is fixed");
static_assert(sizeof(vestra_shm_record) == 912, "the library's private part begins at 912");

extern "C" {

/* ------------------------------ The daemon's side ------------------------------ */

// Returns the mapped segment, and creates it if there is none. Returns null if it cannot be created or if another
// running daemon serves it. Costs one system call if nothing has changed. Each kind of failure, obstacle and damage is
// logged at most once a minute.
//
// A segment that was removed or damaged is replaced; the new one gets the marker of the old. A returned address stays
// mapped for good; after three other replacements it is reused. A marker of 1, once seen, is set again if a client
// overwrites it. Any thread, but of one process only.
//
// The service ends with the first thread that has called this and ends: clients then find no daemon, and another daemon
// may start. That is the thread that waits for requests; the daemon's main thread lasts as long as the process.
void *get_shm(void);

// Returns 1 if the segment at *shm is the one that clients find under the name, else 0. While a request is being
// answered, the result may be up to 0.1 ms old. Any thread.
int check_if_valid_shm(void **shm);

// Waits up to 1 s for a client's request. Returns 0, or a negative value if none came; at once if there is no segment.
// `caller` and `n` are not used. One thread.
int vestra_request_sem_lock_func(const char *caller, int n);

// Tells the client that the answers (or the give-up state) are in the record, which then belongs to the client again.
// Returns 0 or a negative value. Same thread as the wait.
int vestra_ready_sem_unlock_func(const char *caller);

/* ------------------------------ The clients' side ------------------------------ */

enum vestra_api_result : int {
    VESTRA_API_OK = 0,
    // No usable segment, no daemon serves it, the daemon ended meanwhile, or it was not ready before the time-out.
    VESTRA_API_NO_DAEMON = -1,
    VESTRA_API_TIMEOUT = -2,  // no answer in time, or the daemon gave up
    VESTRA_API_REFUSED = -3,  // null, or count, type or window out of range; or the daemon left a type unanswered
    VESTRA_API_NO_MEMORY = -4,
};

typedef struct vestra_api_client *vestra_api_h;

// Returns a handle, which the caller closes; null if memory runs out. No daemon is needed yet: each call
// of vestra_api_ask looks for one.
vestra_api_h vestra_api_open(void);

// Sends `count` (1 to 17) requests and stores the answers in them. In: packet_type 0..16 and window
// 0..180 s. Out: the four figures and answer_type; average and variance are NaN for an empty window. On
// failure the requests are untouched.
//
// Waits at most `timeout_ms` in all, including for other clients' turns; a negative value counts as 0. Any
// thread. Calls with one handle are serialised, and so are processes: a client that is stopped during its
// turn makes the others time out. A child process may go on with a handle of its parent.
int vestra_api_ask(vestra_api_h client, vestra_api_data *requests, int count, int timeout_ms);

void vestra_api_close(vestra_api_h client);

// A text for a result. Never null; the caller does not free it.
const char *vestra_api_result_text(int result);

}  // extern "C"
