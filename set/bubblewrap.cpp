#include "set/bubblewrap.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "set/complain.h"
#include "set/files.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

constexpr const char *kPlatformLibrary = "libvestra-platform.so.1";

// Directories that a set has itself: never replaced by the host's, but what is below them may be bound.
constexpr const char *kOwnDirectories[] = {"/",    "/tmp",  "/opt",   "/run", "/dev/shm", "/tv",
                                           "/var", "/home", "/media", "/mnt", "/srv"};
// Trees that a set has itself, or sees anyway.
constexpr const char *kOwnTrees[] = {"/usr",    "/bin", "/sbin", "/lib", "/lib32", "/lib64",
                                     "/libx32", "/etc", "/proc", "/sys", "/dev"};

bool lies_below(const std::string &path, const std::string &directory) {
    return path == directory || path.compare(0, directory.size() + 1, directory + "/") == 0;
}

// The build tree that this program lies in, and the source tree it was built from; nothing for an installed program.
std::vector<std::string> own_trees() {
    for (fs::path directory = fs::path(own_program()).parent_path(); directory != directory.root_path();
         directory = directory.parent_path()) {
        const auto cache = read_file(directory / "CMakeCache.txt");
        if (!cache) continue;
        std::vector<std::string> trees{directory};
        constexpr std::string_view kKey = "\nCMAKE_HOME_DIRECTORY:INTERNAL=";
        const size_t start = cache->find(kKey);
        if (start != std::string::npos) {
            const size_t value = start + kKey.size();
            trees.push_back(cache->substr(value, cache->find('\n', value) - value));
        }
        return trees;
    }
    return {};
}

// PATH inside. In a build tree the tools lie beside this program's directory; installed, they are in PATH anyway.
std::string search_path() {
    const char *path = std::getenv("PATH");
    std::error_code ignored;
    const fs::path tools = fs::path(own_program()).parent_path().parent_path() / "tools";
    return std::string(path != nullptr ? path : "/usr/bin:/bin") +
           (fs::is_directory(tools, ignored) ? ":" + tools.string() : "");
}

// The host's directory with the simulated platform's library: of the build tree that this program lies in, or installed.
std::string platform_directory() {
    const fs::path here = fs::path(own_program()).parent_path();
    for (const fs::path &candidate : {here / "../platform/simulated", here / VESTRA_PLATFORM_DIRECTORY}) {
        std::error_code ignored;
        if (fs::exists(candidate / kPlatformLibrary, ignored)) return candidate.lexically_normal();
    }
    fail(std::string("the simulated platform's library, ") + kPlatformLibrary + ", was not installed with vestra-set",
         kExitNoSet);
}

// What is bound writable at its own path, outer directories first and without those that lie below another.
std::vector<std::string> bound_directories(const LaunchPlan &plan, const std::string &program) {
    std::vector<std::string> paths = own_trees();
    std::error_code ignored;
    paths.push_back(fs::path(program).parent_path());
    paths.push_back(fs::canonical(program, ignored).parent_path());  // where a link leads
    paths.push_back(plan.options.directory);
    paths.insert(paths.end(), plan.binds.begin(), plan.binds.end());
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> bound;
    for (const std::string &path : paths) {
        if (!may_be_bound(path) || !fs::exists(path, ignored)) continue;
        if (std::none_of(bound.begin(), bound.end(), [&](const std::string &b) { return lies_below(path, b); })) {
            bound.push_back(path);
        }
    }
    return bound;
}

}  // namespace

bool may_be_bound(const std::string &path) {
    return std::find(std::begin(kOwnDirectories), std::end(kOwnDirectories), path) == std::end(kOwnDirectories) &&
           std::none_of(std::begin(kOwnTrees), std::end(kOwnTrees),
                        [&](const char *tree) { return lies_below(path, tree); });
}

std::vector<std::string> bubblewrap_arguments(const LaunchPlan &plan, const std::string &program) {
    std::vector<std::string> args{"bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--as-pid-1"};
    const auto add = [&](std::initializer_list<std::string> more) { args.insert(args.end(), more); };

    // Root needs no user namespace, and in a container often cannot have one. Anyone else must be root in one: the
    // control node's file system cannot be mounted otherwise.
    if (geteuid() != 0) add({"--unshare-user", "--uid", "0", "--gid", "0", "--cap-add", "ALL"});

    add({"--ro-bind", "/usr", "/usr"});
    for (const char *name : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
        std::error_code ignored;
        if (fs::is_symlink(name, ignored)) {
            add({"--symlink", fs::read_symlink(name, ignored), name});
        } else if (fs::is_directory(name, ignored)) {
            add({"--ro-bind", name, name});
        }
    }
    add({"--proc", kRealProc, "--tmpfs", "/proc", "--ro-bind", "/proc/uptime", "/proc/uptime"});
    // The rest of /proc comes once the first process runs; a sanitizer's start in that process looks at itself before.
    add({"--symlink", std::string(kRealProc) + "/self", "/proc/self"});
    add({"--ro-bind", "/etc", kRealEtc, "--tmpfs", "/etc"});
    add({"--dev", "/dev", "--tmpfs", "/dev/shm"});
    if (plan.options.node) add({"--dev-bind", "/dev/fuse", "/dev/fuse"});
    add({"--ro-bind", "/proc", kHostDir + std::string("/proc")});
    if (plan.options.source.kind == "host") add({"--ro-bind", "/sys", kHostDir + std::string("/sys")});
    for (const char *path : {"/opt", "/tmp", "/run", "/sys"}) add({"--tmpfs", path});

    add({"--ro-bind", own_program(), kLauncher});
    add({"--ro-bind", platform_directory(), kPlatformDir});
    if (plan.directory != nullptr) add({"--bind", plan.directory->path(), kStateDir});
    if (!plan.log_file.empty()) add({"--bind", plan.log_file, kLogFile});
    for (const auto &[label, directory] : plan.stick_dirs) add({"--bind", directory, "/media/" + label});

    const std::vector<std::string> bound = bound_directories(plan, program);
    for (const std::string &path : bound) add({"--bind", path, path});
    // A program straight in /tmp, or a recorded dump somewhere else: the file alone.
    for (const std::string &file : {program, plan.options.source.file}) {
        if (file.empty() || lies_below(file, "/usr") ||
            std::any_of(bound.begin(), bound.end(), [&](const std::string &b) { return lies_below(file, b); })) {
            continue;
        }
        add({"--ro-bind", file, file});
    }

    add({"--chdir", "/"});
    return args;
}

void set_environment_inside() {
    setenv("PATH", search_path().c_str(), 1);
    // The daemon is linked with the platform of the machine; the loader finds the set's first.
    const char *libraries = std::getenv("LD_LIBRARY_PATH");
    const std::string others = libraries != nullptr && *libraries != '\0' ? std::string(":") + libraries : "";
    setenv("LD_LIBRARY_PATH", (kPlatformDir + others).c_str(), 1);
    setenv("HOME", "/root", 1);
    setenv("VESTRA_SET_INSIDE", "1", 1);
    for (const char *name : {"VESTRA_SET_DIR", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS", "TMPDIR"}) unsetenv(name);
}

}  // namespace vestra_set
