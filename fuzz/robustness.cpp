// The value of the robustness key, "DIR|NAME|PID", and the dump that follows from it.
//
// If runs_commands() returns true and DIR is the target's directory, the daemon's commands run. Otherwise fork fails.
//
// Rules: the fields are those that "%255[^|]| %255[^|]|%d" reads. No descriptor stays open, and the chain and its
// lock are unchanged. If DIR does not exist, there is no file. Otherwise there is one file with the chain's bytes: in
// DIR, under the process's name, if the commands ran, and else in /tmp.

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/fuzz_env.h"
#include "platform/vconf.h"
#include "vestra-daemon/vestrad.h"

namespace fs = std::filesystem;

namespace {

constexpr char kDirectory[] = "/tmp/robust";
constexpr char kBlock[] = "the chain";

pthread_t fuzzing;  // the thread that runs inputs; libFuzzer has another one, which sleeps
std::string key_value;
bool commands_run;
std::string read_path, read_name;  // from the daemon's log line
int read_pid;

struct Fields {
    char path[256], name[256];
    int pid;
    bool pid_fits;  // few enough digits for sscanf to convert
};

Fields scan(const std::string &value) {
    Fields fields = {};
    int digits = 0;
    sscanf(value.c_str(), "%255[^|]| %255[^|]|%n", fields.path, fields.name, &digits);
    const std::string number = digits > 0 ? value.substr(static_cast<size_t>(digits)) : "";
    fields.pid_fits = number.find_first_not_of("+-0123456789 ") != 0 && number.size() < 10;
    if (fields.pid_fits) sscanf(value.c_str(), "%255[^|]| %255[^|]|%d", fields.path, fields.name, &fields.pid);
    return fields;
}

std::vector<fs::path> files_in(const char *directory) {
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator(directory)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    return files;
}

bool holds_the_chain(const fs::path &path) {
    char text[sizeof(kBlock)] = {};
    FILE *file = fopen(path.c_str(), "re");
    const bool read = file != nullptr && fread(text, 1, sizeof(kBlock) - 1, file) == sizeof(kBlock) - 1;
    if (file != nullptr) fclose(file);
    return read && strcmp(text, kBlock) == 0;
}

void remember(const char *text, va_list arguments) {
    if (strncmp(text, "[vestra] data from ira", 22) != 0) return;
    read_path = va_arg(arguments, const char *);
    read_name = va_arg(arguments, const char *);
    read_pid = va_arg(arguments, int);
}

}  // namespace

extern "C" {

pid_t __real_fork();
pid_t __wrap_fork() {
    if (commands_run) return __real_fork();
    errno = EAGAIN;
    return -1;
}
unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
    return pthread_equal(pthread_self(), fuzzing) != 0 ? 0 : __real_sleep(seconds);
}
char *__wrap_vconf_keynode_get_name(keynode_t *) {
    static char name[] = "system/vestra/robust";
    return name;
}
int __wrap_vconf_keynode_get_type(keynode_t *) {
    return VCONF_TYPE_STRING;
}
char *__wrap_vconf_keynode_get_str(keynode_t *) {
    return key_value.data();
}

}  // extern "C"

void vestra_fuzz::prepare() {
    fuzzing = pthread_self();
    fs::create_directories(kDirectory);
    FILE *version = fopen("/etc/prd_info.ini", "we");
    if (version == nullptr || fputs("Model=QX-55\r\nBuild=1234.5\r\n", version) < 0 || fclose(version) != 0) abort();
    if (vestra_get_node(&ghead_s, sizeof(kBlock)) < 0) abort();
    memcpy(ghead_s->data, kBlock, sizeof(kBlock) - 1);
    ghead_s->size = gtotal_bytes = sizeof(kBlock) - 1;
    g_vestra_config.min_time_diff_dump = INT32_MAX;  // no copy to a stick: it is not tested here
    on_log(remember);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    key_value.assign(reinterpret_cast<const char *>(data), size);
    const bool may_run = vestra_fuzz::runs_commands(key_value);
    if (may_run) key_value.erase(0, 1);
    key_value.resize(strlen(key_value.c_str()));
    const Fields fields = scan(key_value);
    commands_run = may_run && strcmp(fields.path, kDirectory) == 0;
    struct stat info = {};
    const bool exists = stat(fields.path, &info) == 0 && S_ISDIR(info.st_mode);

    const int descriptors = vestra_fuzz::open_descriptors();
    robustness_vconf_notify_cb(nullptr, nullptr);

    FUZZ_RULE(read_path == fields.path && read_name == fields.name, "directory and name match the pattern");
    FUZZ_RULE(!fields.pid_fits || read_pid == fields.pid, "the process id matches the pattern");
    FUZZ_RULE(vestra_fuzz::open_descriptors() == descriptors, "no descriptor stays open");
    FUZZ_RULE(ghead_s != nullptr && ghead_s->next == nullptr && gtotal_bytes == sizeof(kBlock) - 1,
              "the chain is unchanged");
    FUZZ_RULE(pthread_mutex_trylock(&lock) == 0, "the chain's lock is free");
    pthread_mutex_unlock(&lock);
    const auto temporary = files_in("/tmp"), placed = files_in(kDirectory);
    FUZZ_RULE(temporary.size() + placed.size() == (exists ? 1U : 0U), "one file if the directory exists");
    for (const fs::path &path : temporary) {
        FUZZ_RULE(holds_the_chain(path), "a dump holds the chain");
        fs::remove(path);
    }
    for (const fs::path &path : placed) {
        FUZZ_RULE(commands_run && holds_the_chain(path), "a dump holds the chain");
        fs::remove(path);
    }
    return 0;
}
