// What the tests of the daemon's core see of its world and change in it.
//
// The daemon's calls of some operations are redirected at link time (the wraps are listed in CMakeLists.txt): log lines
// are kept, waits are counted without waiting, and single calls can be made to fail. Nothing is redirected in child
// processes' programs. All of it may be used from any thread, except that a test changes `world()` only while no thread
// of the daemon runs, or from a wait hook.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "vestra-daemon/vestrad.h"

namespace vestra_test {

// Priorities by the names that the rows of the tests use.
enum : int { kDebug = 3, kInfo = 4, kWarning = 5, kError = 6 };

struct LogLine {
    int priority;
    std::string function;
    std::string text;  // behind the prefix, without a line end
};

// What the redirected operations do. The defaults are those of a quiet world.
struct World {
    // Waits: sleep, usleep and nanosleep return at once and move the clock, unless `real_waits` is set. `on_wait` is
    // called at each of them with the number of waits so far, this one included, without a lock.
    bool real_waits = false;
    std::function<void(size_t)> on_wait;
    int64_t clock_us = 1'700'000'000'250'000;  // what gettimeofday says; below 0: the real time

    // Writes to the daemon's temporary files in /tmp: the `write_fails_at`th (from 1) fails with `write_error`; every
    // one takes at most `write_most` bytes.
    int write_fails_at = 0;
    int write_error = 28;  // ENOSPC
    size_t write_most = SIZE_MAX;
    std::function<void(int)> on_write;  // called before each with its number

    size_t malloc_fails_for = 0;  // bytes; 0: none
    int thread_fails_at = 0;      // the pthread_create call (from 1) that fails with EAGAIN
    bool idle_threads = false;    // threads get a body that returns at once
    int name_error = 0;           // what naming an idle thread gives
    bool fork_fails = false;
    int nice_result = 0;  // nice() never changes anything; with a result of -1 errno is `nice_error`
    int nice_error = 0;
};
World &world();

// What was seen since the fixture was set up.
std::vector<LogLine> log_lines();
std::vector<int64_t> waits_us();         // the amounts, in order
std::vector<std::string> node_writes();  // each write into a pipe that stands in for the node
int fsync_count();                       // of temporary files
std::vector<std::string> calls();        // "name argument" of the calls that are only noted
void forget_log();
void restart_thread_count();  // for `thread_fails_at`

// The texts of log lines of `priority` or higher, in order.
std::vector<std::string> log_texts(int priority = kDebug);
// How many log lines have this priority and this text, or (second form) hold this text.
int count_log(int priority, std::string_view text);
int count_log(std::string_view part);

// Every test of the daemon's core: globals as at program start, no marker file, no stick, no key, nothing of a test's
// in /tmp.
class DaemonTest : public ::testing::Test {
  protected:
    DaemonTest();
    ~DaemonTest() override;
    DaemonTest(const DaemonTest &) = delete;
    DaemonTest &operator=(const DaemonTest &) = delete;

    // A block of `size` bytes of `fill` at the end of the chain, as the reader would have appended it.
    static void append_block(size_t size, char fill);
    // Debug image, notices on, version file there: dumps are written and shown.
    static void make_debug_image();
};

// A pipe in the control node's place. What is written into it can be read back; a reader finds what `put` puts in.
class PipeNode {
  public:
    PipeNode();
    ~PipeNode();
    PipeNode(const PipeNode &) = delete;
    PipeNode &operator=(const PipeNode &) = delete;
    std::string drain() const;  // what is in it now
    int fd() const { return fd_; }

  private:
    int fd_;
};

// A device whose reads return exactly the blocks put in, empty ones included: one end of a packet socket.
class BlockDevice {
  public:
    BlockDevice();
    ~BlockDevice();
    BlockDevice(const BlockDevice &) = delete;
    BlockDevice &operator=(const BlockDevice &) = delete;
    void put(const std::string &block) const;
    bool has_block() const;  // one waits to be read
    int fd() const { return reader_; }

  private:
    int reader_, writer_;
};

// Files.
void write_file(const std::filesystem::path &path, std::string_view text);
std::string read_file(const std::filesystem::path &path);
std::vector<std::string> names_in(const std::filesystem::path &directory);  // sorted; in /tmp the tests' own only
std::vector<std::string> notices();                                         // lines of the notice spool
inline constexpr char kControlNode[] = "/proc/vesertra_info";
inline constexpr char kVersionText[] = "Model=QX-55\nBuild=1234.5\r\n";
inline constexpr char kTrailer[] = "1234.5/QX-55\n\x0d";  // of kVersionText

// What the daemon prints while this lives; standard output is elsewhere meanwhile.
class PrintedText {
  public:
    PrintedText();
    ~PrintedText();
    PrintedText(const PrintedText &) = delete;
    PrintedText &operator=(const PrintedText &) = delete;
    std::string take();  // ends the catching
  private:
    int saved_ = -1, file_ = -1;
};

// A key node, as the daemon's callbacks get it: the key is set, and `callback` is called with the node of that change.
void call_with_key(const char *key, int value, vconf_callback_fn callback);
void call_with_key(const char *key, const char *value, vconf_callback_fn callback);

}  // namespace vestra_test
