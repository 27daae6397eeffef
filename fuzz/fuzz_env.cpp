#include "fuzz/fuzz_env.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/dlog.h"
#include "set/sandbox_reexec.h"
#include "vestra-daemon/vestra_log.h"

namespace vestra_fuzz {

static LogHook log_hook;

void on_log(LogHook hook) {
    log_hook = std::move(hook);
}

int open_descriptors() {
    static constexpr int kEnd = 40;  // far more than a target has open
    int open = 0;
    for (int fd = 3; fd < kEnd; ++fd) open += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    return open;
}

bool runs_commands(std::string_view input) {
    unsigned sum = 0;
    for (const char c : input) sum += static_cast<unsigned char>(c);
    return !input.empty() && input[0] == '!' && sum % 64 == 0;
}

void broken(const char *rule, const char *file, int line) {
    std::fprintf(stderr, "%s:%d: broken rule: %s\n", file, line, rule);
    std::abort();
}

// libFuzzer's timer signal interrupts waitpid. In a set no signal does that; the daemon would not wait again.
extern "C" {
pid_t __real_waitpid(pid_t child, int *status, int options);
pid_t __wrap_waitpid(pid_t child, int *status, int options) {
    pid_t result = -1;
    do result = __real_waitpid(child, status, options);
    while (result < 0 && errno == EINTR);
    return result;
}
}

// The calls of __dlog_print come here. Formatting each line is part of the test: it finds arguments that are not texts.
extern "C" int __wrap___dlog_print(log_id_t /*id*/, int /*priority*/, const char *tag, const char *format, ...) {
    static constexpr size_t kPrefix = sizeof(VESTRA_LOG_PREFIX) - 1;
    static char text[4096];
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(text, sizeof(text), format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    if (!log_hook || strcmp(tag, VESTRA_LOG_TAG) != 0 || strncmp(format, VESTRA_LOG_PREFIX, kPrefix) != 0) return 0;
    va_start(arguments, format);
    for (const bool is_number : {false, false, true, false, true}) {
        if (is_number) {
            static_cast<void>(va_arg(arguments, int));
        } else {
            static_cast<void>(va_arg(arguments, const char *));
        }
    }
    log_hook(format + kPrefix, arguments);
    va_end(arguments);
    return 0;
}

// Keeps freed blocks in quarantine, but in a small one: otherwise every block would be a new page.
extern "C" const char *__asan_default_options() {
    return "quarantine_size_mb=8";
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    const int code = vestra_set::run_in_sandbox_unless_inside(*argc, *argv, false);
    if (code >= 0) exit(code);
    // libFuzzer writes to standard error. Standard output has only what the daemon prints, and is discarded.
    if (freopen("/dev/null", "we", stdout) == nullptr) abort();
    dlog_set_threshold(DLOG_DEBUG);
    prepare();
    return 0;
}

}  // namespace vestra_fuzz
