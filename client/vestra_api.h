/* vestra_api.h -- asks the daemon for vitals through shared memory. C99, C++17.
 *
 *   cc -std=c99 ask.c $(pkg-config --cflags --libs vestra-api)
 *
 * Who links libvestra-api: the daemon (its side are four calls), and any program that wants to ask (the clients' side).
 *
 * ABI. What is called libvestra-api.so.1 keeps these calls, the 48-byte request and the 912-byte record as they are; all
 * of them are the same for 32-bit and for 64-bit processes of one machine. A library of another ABI uses another size of
 * the segment or another magic number, and each side then refuses the other's segment.
 *
 * The set promises: the daemon's four calls below, and the record's first 912 bytes.
 *
 * The stand-in: POSIX shared memory "/vestra_api" (environment VESTRA_API_SHM: another name), mode 0600, or 0660 with
 * the group that VESTRA_API_GROUP names. Next to it is the lock file "/vestra_api.daemon", which only the daemon's user
 * may write. The daemon creates a new segment at each start. Set-user-ID programs ignore both variables.
 *
 * Differs from the set: how the calls work inside, and everything from offset 912 on.
 *
 * Who can do what. Everyone may create files in /dev/shm, but nobody can keep root's daemon from its two names: both
 * files get their names when they are complete, in one step that replaces another file and moves a directory aside. A
 * client refuses a segment of the wrong size, and one that belongs neither to its own user nor to root nor to that
 * group.
 *
 * Users who may open the segment can make questions fail or answers wrong for as long as they write to it, and they
 * can keep the turn. They cannot end or take over another process: the segment holds no addresses, the library checks
 * what it reads, and it handles SIGBUS, which an access to a truncated segment raises.
 *
 * SIGBUS. The first segment that a process maps installs a handler for the whole process, which stays until the process
 * ends (so the library is never unloaded, either). Only an access to the segment is handled; every other SIGBUS goes to
 * the handler that was there before, or ends the process as it would have. A program that sets its own handler later
 * loses this protection, unless that handler passes on what it does not know. A question unblocks SIGBUS in its thread.
 *
 * Messages. Why a segment is refused, and what the daemon's side has to repair, goes to the set's log service with the
 * tag "PLATFORM"; the stand-in writes to standard error (environment VESTRA_DLOG_FILE: to that file; VESTRA_DLOG_LEVEL
 * "error": not at all).
 *
 * client/segment.h describes how the two sides find and await each other.
 */
#ifndef VESTRA_API_H
#define VESTRA_API_H

#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VESTRA_API_VITALS 17      /* packet types 0 to 16, and entries of the record */
#define VESTRA_API_WINDOW_MAX 180 /* seconds that a window may reach back */
#define VESTRA_API_UNUSED (-1)    /* packet type of an entry that asks nothing */

/* Packet types. The daemon computes 2 to 4, 9 and 10 from the cores' counters, and takes 5 to 8 as temperatures. It
 * passes on the others without knowing what they mean: their names and units are those of the simulated module. */
enum vestra_api_vital {
    VESTRA_API_CONTEXT_SWITCHES = 0,    /* per second, whole machine */
    VESTRA_API_RUNNING_PROCESSES = 1,   /* running or ready to run */
    VESTRA_API_CPU_TOTAL = 2,           /* percent of all cores together */
    VESTRA_API_CPU_SYSTEM = 3,          /* percent, part of it in the kernel */
    VESTRA_API_CPU_USER = 4,            /* percent, part of it in programs */
    VESTRA_API_TEMPERATURE_CORE0 = 5,   /* degrees Celsius */
    VESTRA_API_TEMPERATURE_CORE1 = 6,   /* degrees Celsius */
    VESTRA_API_TEMPERATURE_CORE2 = 7,   /* degrees Celsius */
    VESTRA_API_TEMPERATURE_CORE3 = 8,   /* degrees Celsius */
    VESTRA_API_TEMPERATURE_AVERAGE = 9, /* degrees Celsius, of the four cores */
    VESTRA_API_IO_WAIT = 10,            /* percent of the time of all cores together, below 80 */
    VESTRA_API_MEMORY_USED = 11,        /* percent */
    VESTRA_API_SWAP_USED = 12,          /* percent */
    VESTRA_API_LOAD = 13,               /* load average over one minute */
    VESTRA_API_MEMORY_FREE = 14,        /* KiB */
    VESTRA_API_PAGE_CACHE = 15,         /* KiB */
    VESTRA_API_MEMORY_AVAILABLE = 16    /* KiB */
};

/* One request with its answer, shared by the daemon and its clients: 48 bytes. */
typedef struct vestra_api_data {
    int32_t packet_type; /*  0  0..16, or -1: unused */
    int32_t window;      /*  4  seconds; 0: the current value */
    double maximum;      /*  8 */
    double minimum;      /* 16 */
    double average;      /* 24 */
    double variance;     /* 32 */
    int32_t answer_type; /* 40  packet type of the answer */
    int32_t padding;     /* 44 */
} vestra_api_data;

/* Values of vestra_shm_record.state. */
enum vestra_request_state {
    VESTRA_REQUEST_POSTED = 1,    /* client: waiting for the daemon */
    VESTRA_REQUEST_ANSWERED = 2,  /* daemon: the answers are written */
    VESTRA_REQUEST_ANSWERING = 5, /* daemon: working on it */
    VESTRA_REQUEST_GIVEN_UP = 6   /* daemon: no request came */
};

/* The segment up to the library's private part: 912 bytes. sem_t has 16 bytes on 32-bit ARM and 32 on x86-64. */
typedef struct vestra_shm_record {
    int32_t marker;            /*   0  0: not ready; the daemon's main writes 1 */
    uint8_t reserved_head[36]; /*   4 */
    union {
        sem_t semaphore; /*  40  incremented by the daemon */
        uint64_t reserved[6];
    } ready;
    int32_t state;                              /*  88  vestra_request_state */
    uint8_t reserved_state[4];                  /*  92 */
    vestra_api_data request[VESTRA_API_VITALS]; /*  96 */
} vestra_shm_record;

/* A compiler that lays them out otherwise stops here: an array cannot have a negative size. */
typedef char vestra_api_data_is_fixed[sizeof(vestra_api_data) == 48 && offsetof(vestra_api_data, maximum) == 8 &&
                                              offsetof(vestra_api_data, answer_type) == 40
                                          ? 1
                                          : -1];
typedef char vestra_shm_record_is_fixed[sizeof(vestra_shm_record) == 912 && offsetof(vestra_shm_record, ready) == 40 &&
                                                offsetof(vestra_shm_record, state) == 88 &&
                                                offsetof(vestra_shm_record, request) == 96
                                            ? 1
                                            : -1];

/* ------------------------------ The daemon's side ------------------------------ */

/* Returns the mapped segment, and creates it if there is none. Returns null if it cannot be created or if another
 * running daemon serves it. Costs one system call if nothing has changed. Each kind of failure, obstacle and damage is
 * logged at most once a minute.
 *
 * A segment that was removed or damaged is replaced; the new one gets the marker of the old. A returned address stays
 * mapped for good; after three other replacements it is reused. A marker of 1, once seen, is set again if a client
 * overwrites it. Any thread, but of one process only.
 *
 * The service ends with the first thread that has called this and ends: clients then find no daemon, and another daemon
 * may start. That is the thread that waits for requests; the daemon's main thread lasts as long as the process. */
void *get_shm(void);

/* Returns 1 if the segment at *shm is the one that clients find under the name, else 0. While a request is being
 * answered, the result may be up to 0.1 ms old. Any thread. */
int check_if_valid_shm(void **shm);

/* Waits up to 1 s for a client's request. Returns 0, or a negative value if none came; at once if there is no segment.
 * `caller` and `n` are not used. One thread. */
int vestra_request_sem_lock_func(const char *caller, int n);

/* Tells the client that the answers (or the give-up state) are in the record, which then belongs to the client again.
 * Returns 0 or a negative value. Same thread as the wait. */
int vestra_ready_sem_unlock_func(const char *caller);

/* ------------------------------ The clients' side ------------------------------ */

enum vestra_api_result {
    VESTRA_API_OK = 0,
    /* No usable segment, no daemon serves it, the daemon ended meanwhile, or it was not ready before the time-out. */
    VESTRA_API_NO_DAEMON = -1,
    VESTRA_API_TIMEOUT = -2, /* no answer in time, or the daemon gave up */
    VESTRA_API_REFUSED = -3, /* null, or count, type or window out of range; or the daemon left a type unanswered */
    VESTRA_API_NO_MEMORY = -4
};

typedef struct vestra_api_client *vestra_api_h;

/* Returns a handle, which the caller closes; null if memory runs out. No daemon is needed yet: each call of
 * vestra_api_ask looks for one. Any thread. */
vestra_api_h vestra_api_open(void);

/* Sends `count` (1 to 17) requests and stores the answers in them. In: packet_type 0..16 and window 0..180 s. Out: the
 * four figures, in the unit of the vital (the variance in its square), and answer_type. Window 0 is the current value:
 * maximum, minimum and average are equal, the variance is 0. A window without any sample has maximum and minimum 0;
 * average and variance are NaN. On failure the requests are untouched. Returns a vestra_api_result.
 *
 * Waits at most `timeout_ms` in all, including for other clients' turns; a negative value counts as 0. Any thread. Calls
 * with one handle are serialised, and so are processes: a client that is stopped during its turn makes the others time
 * out, until it goes on or ends. A child process may go on with a handle of its parent, whenever it was forked. A thread
 * that is cancelled during a question ends after it. */
int vestra_api_ask(vestra_api_h client, vestra_api_data *requests, int count, int timeout_ms);

/* Frees the handle. Null is allowed. No other thread may still use it. */
void vestra_api_close(vestra_api_h client);

/* A text for a result. Never null; the caller does not free it. Any thread. */
const char *vestra_api_result_text(int result);

#ifdef __cplusplus
}
#endif

#endif
