// segment.h -- what both sides of the library share: the segment and its lock file, how a side finds, checks, maps and
// locks them, and how it sleeps until the other has done something.
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
// record's state unchanged, so the daemon finishes at once; the next one repairs a state that somebody has overwritten.
//
// Is a daemon running? A running daemon holds a write lock on the lock file, which no client can hold: clients may
// only read that file, and the daemon locks it before it gets its name. The kernel releases the lock however the
// daemon ends. A ready daemon has also set the marker. A waiting client checks again every 0.1 s. If it finds a daemon
// that is not ready, it sets the `knock` word and waits. If the segment was replaced, it asks again in the new one. So
// a question is answered even if it arrives between the creation of the segment and the end of the daemon's start, or
// after the marker was overwritten. Before that, and after a daemon has ended, there is no daemon, and a client does
// not wait for one.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <climits>

#include "client/vestra_api.h"

namespace vestra_client {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC
using std::chrono::milliseconds;

constexpr uint32_t kMagic = 0x33415356;  // the private part is initialised
constexpr int32_t kReady = 1;            // value that the daemon's main writes into the marker

// Values of Segment::stage.
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

// The place of a mapped segment, for the handler of SIGBUS.
struct Mapping {
    std::atomic<uintptr_t> address{0};  // of the segment; 0: nothing is mapped
    std::atomic<bool> lost{false};      // the private page is at the address
    std::atomic<bool> used{true};       // belongs to a Mapped
    Mapping *next = nullptr;            // constant once the node is in the list
};

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
// descriptor; false if memory runs out.
bool map_segment(int fd, const struct stat &info, Mapped *mapped);
void unmap_segment(Mapped *mapped);

const char *segment_name();  // begins with its only '/'

// Paths of the segment and of the lock file. Everyone may create files in their directory. A name that is too long is
// cut, and then not found.
struct Path {
    char text[NAME_MAX];
    explicit Path(const char *suffix);
};
Path segment_path();
Path lock_path();

bool stat_file(const Path &path, struct stat *info);  // not of a link's target
// Opens one of the files. Neither follows a link nor waits for the other end of a pipe.
int open_file(const Path &path, int mode);

// Moves a descriptor away from 0 to 2. A program that has closed those would write its output into the segment.
int above_standard(int fd);

// The group that may use the segment, besides its owner. False if none is named, or there is no such group.
bool group_from_environment(gid_t *group);

// Locks or unlocks the first byte at once. False if another holds it.
bool set_lock(int fd, short type);

// True if a process holds the lock file's write lock. It must be able to open the file for writing, so it is a daemon.
bool write_locked(int fd);

inline int32_t marker_of(const Segment *segment) {
    return __atomic_load_n(&segment->record.marker, __ATOMIC_ACQUIRE);
}

inline bool is_initialised(const Segment *segment) {
    return __atomic_load_n(&segment->magic, __ATOMIC_ACQUIRE) == kMagic;
}

inline uint32_t stage_of(const Segment *segment) {
    return __atomic_load_n(&segment->stage, __ATOMIC_ACQUIRE);
}

inline bool move_stage(Segment *segment, uint32_t from, uint32_t to) {
    return __atomic_compare_exchange_n(&segment->stage, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Overwrites the record's semaphore with a new one of that value.
void set_ready(vestra_shm_record *record, unsigned value);

// Sleeps while the word is `value`: until woken, or until the deadline. Returns false at the deadline.
bool sleep_on(const uint32_t *word, uint32_t value, Clock::time_point deadline);
void wake(const uint32_t *word, int sleepers = INT_MAX);

}  // namespace vestra_client
