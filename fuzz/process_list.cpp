// Files put into the watched directory: files with any name, and a process list with any content.
//
// An input is a list of names separated by '/', a zero byte, and the content of the list "processes.txt", which is put
// there first. Without a zero byte the whole input is the list. If runs_commands() returns true, the daemon's shell
// commands run for real; otherwise they fail and are only checked.
//
// Rules: one command runs for each file. Its words, as a shell splits them, are "/bin/rm", "-rf" and the path of that
// file. Commands that run for real empty the directory and touch nothing else. Each command to the control node is one
// write of "c-6-LENGTH-NAME", where NAME is a line of the list cut to 128 bytes. There are at most five for a list, and
// the module accepts all names that are valid. Nothing is written after the six slots. No descriptor stays open.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_env.h"
#include "set/user_data.h"
#include "vestra-daemon/vestrad.h"

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

namespace {

const std::string kDirectory = "/tmp/vestra_processes/", kList = "processes.txt", kCanary = "/tmp/canary";
constexpr char kWorking[] = "/tmp/working";  // where the commands run
constexpr char kNode[] = "/proc/vesertra_info";

struct Stop {};

std::optional<std::string> list;  // the list to put there at the next wait, with the files `names`
Strings names;
int waits;

int node = -1;
ino_t node_inode;
Strings commands, node_writes;  // for the shell, to the node

void write_file(const std::string &path, std::string_view text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    // Skip names that a file cannot have.
    if (fd < 0) return;
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) abort();
    close(fd);
}

bool is_empty(const char *directory) {
    return fs::directory_iterator(directory) == fs::directory_iterator();
}

void drop_files() {
    if (list) write_file(kDirectory + kList, *list);
    for (const std::string &name : names) write_file(kDirectory + name, "");
}

// Splits a command into words as a shell does. Returns nothing if it contains anything that is special to the shell.
std::optional<Strings> words_of(std::string_view command) {
    static constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-+,@%/";
    Strings words(1);
    while (!command.empty()) {
        const char c = command[0];
        command.remove_prefix(1);
        if (c == ' ') {
            words.emplace_back();
        } else if (c == '\'') {
            const size_t end = command.find('\'');
            if (end == std::string_view::npos) return std::nullopt;
            words.back() += command.substr(0, end);
            command.remove_prefix(end + 1);
        } else if (c == '\\' && !command.empty() && command[0] == '\'') {
            words.back() += '\'';
            command.remove_prefix(1);
        } else if (kPlain.find(c) != std::string_view::npos) {
            words.back() += c;
        } else {
            return std::nullopt;
        }
    }
    return words;
}

void remember(const char *text, va_list arguments) {
    const std::string_view line = text;
    if (line.find("removing file") != std::string_view::npos) {
        static_cast<void>(va_arg(arguments, const char *));
        commands.emplace_back(va_arg(arguments, const char *));
    } else if (line == "command [%s]") {
        commands.emplace_back(va_arg(arguments, const char *));
    }
}

void check_commands(bool for_real, const Strings &dropped) {
    Strings removed;
    for (const std::string &command : commands) {
        const auto words = words_of(command);
        FUZZ_RULE(words && words->size() == 3 && (*words)[0] == "/bin/rm" && (*words)[1] == "-rf",
                  "a command removes one file and does nothing else");
        const std::string path = (*words)[2];
        FUZZ_RULE(path.compare(0, kDirectory.size(), kDirectory) == 0, "the removed file is in the directory");
        std::string name = path.substr(kDirectory.size());
        if (name[0] == '/') name.erase(0, 1);  // the commands have the slash twice
        removed.push_back(name);
        if (for_real && system(command.c_str()) != 0) abort();
    }
    std::sort(removed.begin(), removed.end());
    FUZZ_RULE(removed == dropped, "every file that was put there is removed, and nothing else");
    if (!for_real) return;
    FUZZ_RULE(is_empty(kDirectory.c_str()), "the directory is empty afterwards");
    FUZZ_RULE(fs::file_size(kCanary) == 5 && is_empty(kWorking), "nothing else is touched");
}

// The names that the daemon must read from the list.
Strings expected_names(std::string_view text) {
    Strings expected;
    text = text.substr(0, 65536);
    while (!text.empty() && expected.size() < 5) {
        const size_t end = text.find('\n');
        const std::string line(text.substr(0, std::min<size_t>(end, 1023)));
        expected.push_back(std::string(line.c_str()).substr(0, kFilterNameSize));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return expected;
}

void check_node(const Strings &expected) {
    FUZZ_RULE(node_writes.size() == expected.size(), "each of the first five names is one write");
    for (size_t i = 0; i < expected.size(); ++i) {
        const std::string &name = expected[i];
        FUZZ_RULE(node_writes[i] == "c-6-" + std::to_string(name.size()) + "-" + name, "a write is one command");
        const bool acceptable = !name.empty() && std::all_of(name.begin(), name.end(),
                                                             [](unsigned char c) { return c >= 0x20 && c != 0x7f; });
        const auto command = vestra_set::parse_node_command(node_writes[i]);
        FUZZ_RULE(command.has_value() == acceptable, "the module accepts all valid names and no others");
        FUZZ_RULE(!command || command->name == name, "the module gets the right name");
    }
}

}  // namespace

extern "C" {

// The watcher's pause between two passes: puts the files there in the second, ends the watcher in the third.
int __wrap_usleep(useconds_t) {
    ++waits;
    if (waits == 2) drop_files();
    if (waits == 3) throw Stop();
    return 0;
}

pid_t __wrap_vfork() {
    errno = EAGAIN;
    return -1;
}

ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size) {
    struct stat info;
    if (fd > 2 && node_inode != 0 && fstat(fd, &info) == 0 && info.st_ino == node_inode && S_ISFIFO(info.st_mode)) {
        node_writes.emplace_back(static_cast<const char *>(data), size);
        return static_cast<ssize_t>(size);
    }
    return __real_write(fd, data, size);
}

}  // extern "C"

void vestra_fuzz::prepare() {
    if (mkfifo(kNode, 0600) != 0) abort();
    node = open(kNode, O_RDWR | O_NONBLOCK | O_CLOEXEC);  // otherwise the daemon's open would wait for a reader
    struct stat info;
    if (node < 0 || fstat(node, &info) != 0) abort();
    node_inode = info.st_ino;
    write_file(kCanary, "alive");
    fs::create_directories(kWorking);
    fs::current_path(kWorking);
    on_log(remember);
    // Creates the directory and the watch on it.
    waits = 1;
    try {
        names.clear();
        thread_user_process_func(nullptr);
    } catch (const Stop &) {
    }
    if (inotify_fd < 0) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view input(reinterpret_cast<const char *>(data), size);
    const bool for_real = vestra_fuzz::runs_commands(input);
    if (for_real) input.remove_prefix(1);
    const size_t zero = input.find('\0');
    list.reset();
    names.clear();
    if (zero == std::string_view::npos) {
        list = input;
    } else {
        if (zero + 1 < input.size()) list = input.substr(zero + 1);
        std::string_view rest = input.substr(0, zero);
        while (!rest.empty()) {
            const size_t end = std::min(rest.find('/'), rest.size());
            const std::string name(rest.substr(0, end));
            if (!name.empty() && name != "." && name != ".." && name != kList && name.size() <= NAME_MAX) {
                names.push_back(name);
            }
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());

    g_vestra_config = VestraConfig_t{};
    commands.clear();
    node_writes.clear();
    const int descriptors = vestra_fuzz::open_descriptors();
    waits = 1;
    try {
        thread_user_process_func(nullptr);
    } catch (const Stop &) {
    }
    FUZZ_RULE(vestra_fuzz::open_descriptors() == descriptors, "no descriptor stays open");
    Strings dropped = names;
    if (list) dropped.push_back(kList);
    std::sort(dropped.begin(), dropped.end());
    check_commands(for_real, dropped);
    check_node(list ? expected_names(*list) : Strings());
    FUZZ_RULE(g_vestra_config.vestra_proc_filter_pid_num == 0, "nothing is written after the slots");
    if (!for_real) {
        for (const std::string &name : dropped) unlink((kDirectory + name).c_str());
    }
    return 0;
}
