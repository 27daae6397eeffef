// The operations that the linker redirects, as CMakeLists.txt lists them, and the transcript that they write.
//
// Each has the C library's or the platform's own signature. The daemon calls them on all of its threads.

#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <map>
#include <mutex>
#include <new>

#include "platform/dlog.h"
#include "platform/notification.h"
#include "support/daemon_env.h"
#include "vestra-daemon/vestra_log.h"

namespace vestra_test {

static std::mutex mutex;  // guards the three below
static Strings transcript;
static int waits;
static std::map<pthread_t, std::string> thread_names;

World &world() {
    static World instance;
    return instance;
}

Strings seen(std::string_view kinds) {
    const std::lock_guard<std::mutex> guard(mutex);
    Strings result;
    std::string last;
    int times = 0;
    for (const std::string &entry : transcript) {
        if (kinds.find(entry[0]) == std::string_view::npos) continue;
        times = entry == last ? times + 1 : 1;
        if (times > 1) result.back() = entry + " *" + std::to_string(times);
        if (times == 1) result.push_back(last = entry);
    }
    return result;
}

void begin_transcript() {
    const std::lock_guard<std::mutex> guard(mutex);
    transcript.clear();
    waits = 0;
}

// While it lives, no call of this thread's fails or counts.
struct OwnCalls {
    static inline thread_local int depth;
    OwnCalls() { ++depth; }
    ~OwnCalls() { --depth; }
    OwnCalls(const OwnCalls &) = delete;
};

// Returns the number of waits so far.
static int note(std::string_view head, std::string_view tail = {}) {
    const OwnCalls ours;
    const std::lock_guard<std::mutex> guard(mutex);
    transcript.emplace_back(head) += tail;
    return waits += head[0] == 'w' ? 1 : 0;
}

// Counts down to the call that fails.
static bool fails_now(Call call, int error) {
    if (OwnCalls::depth > 0) return false;
    int &fails_in = world().fails_in[call];
    if (fails_in == 0 || --fails_in > 0) return false;
    fails_in = world().fails_on ? 1 : 0;
    world().failed = true;
    errno = error;
    return true;
}

extern "C" {

// The real operation, and the one that is called instead: it first does FIRST.
#define WRAP(NAME, PARAMETERS, ARGUMENTS, FIRST)                       \
    decltype(NAME) __real_##NAME;                                      \
    auto __wrap_##NAME PARAMETERS->decltype(__real_##NAME ARGUMENTS) { \
        FIRST;                                                         \
        return __real_##NAME ARGUMENTS;                                \
    }
#define FAILS(CALL, ERROR, RESULT) \
    if (fails_now(CALL, ERROR)) return RESULT

WRAP(malloc, (size_t size), (size), FAILS(kMalloc, ENOMEM, nullptr))
WRAP(calloc, (size_t count, size_t size), (count, size), FAILS(kMalloc, ENOMEM, nullptr))
WRAP(rename, (const char *from, const char *to), (from, to), FAILS(kRename, EIO, -1))
WRAP(fork, (), (), FAILS(kFork, EAGAIN, -1))
WRAP(inotify_init1, (int flags), (flags), FAILS(kInotify, ENOSPC, -1))
WRAP(inotify_add_watch, (int fd, const char *path, uint32_t mask), (fd, path, mask), FAILS(kInotify, ENOSPC, -1))
WRAP(vconf_notify_key_changed, (const char *key, vconf_callback_fn callback, void *data), (key, callback, data),
     note("call notify ", key))
WRAP(vconf_ignore_key_changed, (const char *key, vconf_callback_fn callback), (key, callback),
     note("call ignore ", key))
WRAP(KeyCombination_Add_Handler, (_KeyComb combination, KeyCombination_Handler handler), (combination, handler),
     note("call combination ", std::to_string(combination)))
// The JSON library of the simulated notices ends the process when memory runs out while it frees some.
WRAP(notification_post, (notification_h notice), (notice), const OwnCalls ours)

// Every line of the daemon begins with the five arguments of its prefix. Lines of the simulated services are skipped.
int __wrap___dlog_print(log_id_t id, int priority, const char *tag, const char *format, ...) {
    constexpr size_t kPrefix = sizeof(VESTRA_LOG_PREFIX) - 1;
    const int error = errno;
    const OwnCalls ours;
    if (strcmp(tag, "VESTRA") != 0 || strncmp(format, VESTRA_LOG_PREFIX, kPrefix) != 0) return 0;
    va_list arguments;
    va_start(arguments, format);
    const std::string file = va_arg(arguments, const char *), function = va_arg(arguments, const char *);
    const std::string line = ":" + std::to_string(va_arg(arguments, int)) + "]";
    EXPECT_EQ(va_arg(arguments, const char *), function);
    EXPECT_EQ(":" + std::to_string(va_arg(arguments, int)) + "]", line);
    EXPECT_EQ(id, LOG_ID_MAIN);
    EXPECT_THAT(file, AnyOf("vestrad.cpp", "decoder.cpp", "vestra_ipc.cpp", "vestra_xml.cpp"));
    EXPECT_TRUE(file != "vestra_xml.cpp" || function == "GetVestraConfigInfo" || function == "ToInt") << function;
    errno = error;
    const std::string text = formatted(format + kPrefix, arguments);
    va_end(arguments);
    std::string entry = std::to_string(priority) + " " + (world().log_functions ? function + " " : "") + text;
    const bool ended = entry.back() == '\n';
    if (ended) entry.pop_back();
    if (ended && world().log_functions) entry += '$';
    if (const size_t at = entry.find(line); at != std::string::npos) entry.replace(at, line.size(), ":LINE]");
    note(entry);
    errno = error;
    return 0;
}

static int wait(int64_t usec) {
    const OwnCalls ours;
    const int number = note("wait " + std::to_string(usec));
    world().clock_us += usec;
    if (world().on_wait) world().on_wait(number);
    return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
    return static_cast<unsigned>(wait(seconds * int64_t{1000000}));
}
int __wrap_usleep(useconds_t usec) {
    return wait(usec);
}
int __wrap_nanosleep(const timespec *pause, timespec * /*rest*/) {
    return wait(pause->tv_sec * int64_t{1000000} + pause->tv_nsec / 1000);
}

time_t __wrap_time(time_t * /*now*/) {
    return static_cast<time_t>(world().clock_us / 1000000);
}
int __wrap_gettimeofday(timeval *now, void * /*zone*/) {
    *now = {static_cast<time_t>(world().clock_us / 1000000), static_cast<suseconds_t>(world().clock_us % 1000000)};
    return 0;
}

static std::string path_of(int fd) {
    const OwnCalls ours;
    std::error_code none;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
}

static bool is_temporary_file(const std::string &path) {
    return path.rfind("/tmp/temp-vestra", 0) == 0;
}

static bool is_of_a_service(std::string_view path) {
    const OwnCalls ours;
    return path.rfind(state_path(""), 0) == 0;
}

decltype(write) __real_write;
ssize_t __wrap_write(int fd, const void *data, size_t size) {
    const std::string path = path_of(fd);
    if (path == kControlNode) note("node ", {static_cast<const char *>(data), size});
    if (is_temporary_file(path) && world().on_write) world().on_write();
    if (!is_temporary_file(path) && path != kControlNode) return __real_write(fd, data, size);
    if (fails_now(kWrite, ENOSPC)) return -1;
    return __real_write(fd, data, std::min(size, world().write_most));
}

WRAP(read, (int fd, void *data, size_t size), (fd, data, size),
     if (!is_of_a_service(path_of(fd))) FAILS(kRead, EIO, -1))
WRAP(fsync, (int fd), (fd), if (is_temporary_file(path_of(fd))) note("sync"); FAILS(kFsync, EIO, -1))
WRAP(fopen64, (const char *path, const char *mode), (path, mode),
     if (!is_of_a_service(path)) FAILS(kOpen, EMFILE, nullptr))
decltype(open64) __real_open64;
int __wrap_open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return !is_of_a_service(path) && fails_now(kOpen, EMFILE) ? -1 : __real_open64(path, flags, mode);
}
decltype(sqlite3_exec) __real_sqlite3_exec;
int __wrap_sqlite3_exec(sqlite3 *db, const char *sql, int (*row)(void *, int, char **, char **), void *out,
                        char **error) {
    if (!fails_now(kSql, EIO)) return __real_sqlite3_exec(db, sql, row, out, error);
    *error = sqlite3_mprintf("disk I/O error");
    return SQLITE_IOERR;
}

// The real one cannot be called from a function that returns. To the caller the two are one.
pid_t __wrap_vfork() {
    return __wrap_fork();
}
decltype(waitpid) __real_waitpid;
pid_t __wrap_waitpid(pid_t child, int *status, int options) {
    const pid_t ended = __real_waitpid(child, status, options);
    return fails_now(kWaitpid, ECHILD) ? -1 : ended;
}

decltype(pthread_create) __real_pthread_create;
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*)(void *), void *argument) {
    if (fails_now(kThread, EAGAIN)) return EAGAIN;
    return __real_pthread_create(
        thread, attributes, [](void *) -> void * { return nullptr; }, argument);
}

// The thread may have ended before it gets its name, so only the name is noted.
int __wrap_pthread_setname_np(pthread_t thread, const char *name) {
    note("call name ", name);
    const OwnCalls ours;
    const std::lock_guard<std::mutex> guard(mutex);
    thread_names[thread] = name;
    return world().name_error;
}

decltype(pthread_join) __real_pthread_join;
int __wrap_pthread_join(pthread_t thread, void **result) {
    {
        const OwnCalls ours;
        note("call join " + thread_names[thread], ghead_s != nullptr ? " with the chain still there" : "");
    }
    return __real_pthread_join(thread, result);
}

int __wrap_nice(int increment) {
    note("call nice ", std::to_string(increment));
    if (world().nice_result == -1) errno = EPERM;
    return world().nice_result;
}

decltype(vestra_request_sem_lock_func) __real_vestra_request_sem_lock_func;
int __wrap_vestra_request_sem_lock_func(const char *caller, int n) {
    EXPECT_STREQ(caller, "client_request_process");
    EXPECT_EQ(n, 6);
    return world().on_request ? world().on_request() : __real_vestra_request_sem_lock_func(caller, n);
}

decltype(get_shm) __real_get_shm;
void *__wrap_get_shm() {
    return world().no_segment ? nullptr : __real_get_shm();
}

decltype(check_if_valid_shm) __real_check_if_valid_shm;
int __wrap_check_if_valid_shm(void **shm) {
    return world().segment_is_gone ? 0 : __real_check_if_valid_shm(shm);
}

static void *allocate(size_t size) {
    if (fails_now(kNew, ENOMEM)) throw std::bad_alloc();
    void *memory = __real_malloc(size > 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // extern "C"

}  // namespace vestra_test

void *operator new(size_t size) {
    return vestra_test::allocate(size);
}
void *operator new(size_t size, const std::nothrow_t & /*unused*/) noexcept try {
    return vestra_test::allocate(size);
} catch (const std::bad_alloc &) {
    return nullptr;
}
void operator delete(void *memory) noexcept {
    free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    free(memory);
}
