// What the tests of the daemon's core see of its world and change in it, and what most of them include.
//
// The daemon's calls of some operations are redirected at link time (the wraps are listed in CMakeLists.txt): what it
// logs, waits for, sends to the node and registers is written into one transcript, and single calls can be made to
// fail. A test changes `world()` only while no thread of the daemon runs, or from a hook; `seen` is for any thread.
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <tuple>
#include <variant>

#include "client/vestra_api.h"
#include "gmock/gmock.h"
#include "platform/fault.h"
#include "platform/simulated/remote.h"
#include "platform/simulated/state_dir.h"
#include "support/files.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestrad.h"

namespace vestra_test {

using namespace ::testing;
template <class... Columns>
using Table = std::vector<std::tuple<Columns...>>;

// Calls that can be made to fail, whoever makes them: the daemon, a library it is linked with, the stand-ins. Those of
// the tests themselves, and the stand-ins' calls on their own files, do not count.
enum Call {
    kNew,      // throws std::bad_alloc
    kMalloc,   // malloc, calloc: ENOMEM
    kOpen,     // open, fopen: EMFILE
    kRead,     // EIO
    kWrite,    // to a temporary file of the daemon's in /tmp, or to the node: ENOSPC
    kFsync,    // EIO
    kFork,     // fork, vfork: EAGAIN
    kWaitpid,  // ECHILD; the child has ended all the same
    kThread,   // pthread_create: EAGAIN; the threads get a body that returns at once
    kSql,      // sqlite3_exec: SQLITE_IOERR, with its text
    kRename,   // EIO, a stand-in's too
    kInotify,  // inotify_init1, inotify_add_watch: ENOSPC
    kCalls     // their number
};

// What the redirected operations do. The defaults are those of a quiet world.
struct World {
    std::function<void(int)> on_wait;  // waits return at once, but call this with their number in the transcript
    int64_t clock_us = 1'709'618'828'250'000;  // 5 March 2024, 06:07:08.25; the waits move it
    std::function<void()> on_write;            // before each write to a temporary file of the daemon's in /tmp
    int fails_in[kCalls] = {};                 // a call of this kind fails: 1 the next, 2 the one after it; 0 none
    bool fails_on = false;                     // and every later one
    bool failed = false;                       // one has
    size_t write_most = SIZE_MAX;              // bytes that each such write takes, or one to the node
    int name_error = 0;                        // what naming a thread gives
    int nice_result = 0;                       // nice() never changes anything; errno is EPERM when this is -1
    std::function<int()> on_request;           // in place of the client library's wait for a request
    bool no_segment = false;                   // the client library gives none
    bool segment_is_gone = false;              // it says so of the one that it gave
    bool log_functions = false;                // log lines carry their function, and '$' for their line end
};
World &world();

// The transcript since it was begun: its entries whose first character is one of `kinds`, in order. Entries that follow
// each other and are equal become one with their number after it ("wait 10000 *400"). The kinds are
//   "3 TEXT" to "6 TEXT"  log lines by priority, without prefix and line end; the line number in a text is "LINE"
//   "wait MICROSECONDS"   "node COMMAND" (a write into a pipe in the node's place)   "sync" (of a temporary file)
//   "call ..."            registrations, nice, naming and joining a thread
Strings seen(std::string_view kinds = "3456");
// The same as a text, a line each, without what varies: pointers, the sign of a NaN, error numbers that some call has
// left behind.
std::string seen_text(std::string_view kinds = "3456");
void begin_transcript();
// The lines of a text that have this part, a regular expression.
std::string lines_with(const std::string &part, const std::string &all);

// printf into a string.
std::string formatted(const char *format, va_list arguments);
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Every test of the daemon's core: globals as at program start, no marker file, no node, no stick, no key, nothing of a
// test's in /tmp, a new transcript.
class DaemonTest : public Test {
  protected:
    DaemonTest();
    ~DaemonTest() override;  // whatever the test did: no lock is held, no descriptor and no child is left

    static void start_afresh();

  public:
    // A block of `size` bytes of `fill` at the end of the chain, as the reader would have appended it.
    static void append_block(size_t size, char fill);
    // Debug image, notices on, version file there: dumps are written and shown.
    static void make_debug_image();
    // A stick that has been found before.
    static void plug_known_stick();

  private:
    size_t descriptors_ = 0;
};

void forget_start();  // what a start-up has registered, and its loop

// A pipe in the control node's place, or, by the descriptor that this gives, a device that hands out what was put in.
int make_node();
void put(const std::string &block);
std::string drain_node();  // what is in it now

inline constexpr char kControlNode[] = "/proc/vesertra_info";

std::string notices();  // the notice spool
std::string printed_by(const std::function<void()> &body);
bool is_free(pthread_mutex_t *mutex);

// Calls `callback` as the daemon's loop would, with the node of the key's change to `value`.
void call_with_key(const char *key, std::variant<int, std::string> value, vconf_callback_fn callback);

}  // namespace vestra_test
