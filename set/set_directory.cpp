#include "set/set_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "set/complain.h"
#include "set/files.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

constexpr const char *kLockSuffix = ".lock";

std::string base_directory() {
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string parent = runtime != nullptr && runtime[0] == '/' ? runtime : "/tmp";
    return parent + "/vestra-set-" + std::to_string(geteuid());
}

// In /tmp anybody can make the name first: only a directory of this user that nobody else can enter will do.
void make_private(const std::string &path) {
    struct stat info;
    if ((mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) || lstat(path.c_str(), &info) != 0) fail_errno(path);
    if (!S_ISDIR(info.st_mode) || info.st_uid != geteuid() || (info.st_mode & 077) != 0) {
        fail(path + " is not a directory of yours that only you can enter; remove it");
    }
}

struct flock whole_file() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool is_locked(const std::string &path) {
    const UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    struct flock lock = whole_file();
    return fd.valid() && fcntl(fd.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace

std::string set_directory(const std::string &name) {
    return base_directory() + "/" + name;
}

std::optional<RunningSet> find_set(const std::string &name) {
    const std::string path = set_directory(name) + kLockSuffix;
    if (!is_locked(path)) return std::nullopt;
    const auto text = nlohmann::json::parse(read_file(path).value_or(""), nullptr, false);
    RunningSet set = text.is_object() ? text.get<RunningSet>() : RunningSet();  // one that is just being claimed
    set.name = name;
    return set;
}

std::vector<RunningSet> running_sets() {
    std::vector<RunningSet> sets;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(base_directory(), ignored)) {
        if (entry.path().extension() != kLockSuffix) continue;
        const auto set = find_set(entry.path().stem());
        if (set) sets.push_back(*set);
    }
    std::sort(sets.begin(), sets.end(), [](const RunningSet &a, const RunningSet &b) { return a.name < b.name; });
    return sets;
}

RunningSet find_running_set(const std::string &name) {
    const auto set = find_set(name);
    if (set && open_program(*set).valid()) return *set;
    if (set) {
        fail("the set \"" + name + "\" is not up yet, or is ending; \"vestra-set wait\" waits until it is up",
             kExitNotRunning);
    }
    std::string others;
    for (const RunningSet &running : running_sets()) others += " " + running.name;
    fail("no set \"" + name + "\" is running; " +
             (others.empty() ? "start one with \"vestra-set run\"" : "running:" + others),
         kExitNotRunning);
}

UniqueFd open_process(pid_t process) {
    return UniqueFd(open(("/proc/" + std::to_string(process)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

uint64_t start_time(const UniqueFd &process) {
    // The name in parentheses may be anything.
    const std::string stat = read_file(process_path(process) + "/stat").value_or("");
    std::istringstream words(stat.substr(std::min(stat.size(), stat.rfind(')') + 1)));
    std::string word;
    for (int field = 3; field <= 22; ++field) words >> word;
    return std::strtoull(word.c_str(), nullptr, 10);
}

bool signal_process(const UniqueFd &process, int number) {
    return syscall(SYS_pidfd_send_signal, process.get(), number, nullptr, 0) == 0;
}

UniqueFd open_program(const RunningSet &set) {
    UniqueFd process = open_process(set.process);
    // Another process may have the process id by now.
    if (set.process <= 0 || start_time(process) != set.start) return {};
    return process;
}

std::string process_path(const UniqueFd &process) {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(process.get());
}

// It delegates, so that the destructor runs, and removes what is there, if it throws.
ClaimedDirectory::ClaimedDirectory(const std::string &name) : ClaimedDirectory() {
    path_ = set_directory(name);
    const std::string lock_path = path_ + kLockSuffix;
    struct stat mine {};
    struct stat found {};
    // Again when a set that just ended has removed the file, or the directory that it is in.
    do {
        make_private(base_directory());
        lock_.reset(open(lock_path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!lock_.valid() && errno != ENOENT) fail_errno(lock_path);
        struct flock lock = whole_file();
        if (lock_.valid() && fcntl(lock_.get(), F_OFD_SETLK, &lock) != 0) {
            lock_.reset();
            fail("a set \"" + name + "\" is running already (process " +
                 std::to_string(find_set(name).value_or(RunningSet()).launcher) +
                 "); end it with \"vestra-set stop --name " + name + "\", or give this one another --name");
        }
    } while (fstat(lock_.get(), &mine) != 0 || stat(lock_path.c_str(), &found) != 0 || mine.st_ino != found.st_ino);
    std::error_code problem;
    fs::remove_all(path_, problem);
    if (problem) fail(path_ + ": " + problem.message());
    make_private(path_);
    RunningSet starting;
    starting.launcher = getpid();
    if (!announce(starting)) fail_errno(lock_path);
}

bool ClaimedDirectory::announce(const RunningSet &set) {
    const auto text = nlohmann::json(set).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    return ftruncate(lock_.get(), 0) == 0 &&
           pwrite(lock_.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

ClaimedDirectory::~ClaimedDirectory() {
    if (!lock_.valid()) return;
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    fs::remove(path_ + kLockSuffix, ignored);
    fs::remove(fs::path(path_).parent_path(), ignored);  // goes with its last set
}

}  // namespace vestra_set
