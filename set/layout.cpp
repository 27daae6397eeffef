#include "set/layout.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "platform/simulated/remote.h"
#include "platform/vconf.h"
#include "set/complain.h"
#include "set/config_file.h"
#include "set/files.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

// Process ids count from 1 in a new pid namespace, so a short test needs no more; the first process soon adds more.
// They are most of what making a set costs.
constexpr int kProcessLinks = 1024;

void make_directory(const std::string &path) {
    if (!make_directories(path)) fail_errno(path);
}

void put(const std::string &path, std::string_view text) {
    make_directory(fs::path(path).parent_path());
    if (!write_file(path, text)) fail_errno(path);
}

// /etc holds links to the real one, so that the files that mark a set can be made and removed.
void make_etc(const SetOptions &options) {
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(kRealEtc, ignored)) {
        const std::string name = entry.path().filename();
        if (name == "debug" || name == "release" || name == "perf" || name == "prd_info.ini") continue;
        // A link is copied, since its text may be relative to /etc.
        fs::path target = entry.path();
        if (entry.is_symlink(ignored)) target = fs::read_symlink(entry.path(), ignored);
        fs::create_symlink(target, "/etc/" + name, ignored);
    }
    // Relative links deeper down lead out of the real /etc to its neighbours.
    for (const char *name : {"usr", "var", "lib", "run"}) {
        fs::create_symlink(std::string("/") + name, std::string("/tv/") + name, ignored);
    }
    if (options.image != "none") put("/etc/" + options.image, "");
    put("/etc/prd_info.ini", make_product_info());
}

// /proc holds links into procfs. /proc/uptime has been bound as a regular file, since the daemon refuses a link there.
// The control node may be a link.
void make_proc(const SetOptions &options) {
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(kRealProc, ignored)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) continue;
        fs::create_symlink(entry.path(), "/proc/" + name, ignored);
    }
    extend_process_links(kProcessLinks);
    if (options.node) {
        fs::create_symlink(std::string(kNodeDir) + "/vesertra_info", "/proc/vesertra_info", ignored);
    }
}

void make_state(const SetOptions &options) {
    const std::string state = kStateDir;
    for (const char *name : {"/vconf", "/usb", "/keys", "/modules", "/module"}) make_directory(state + name);
    put(state + "/system_info.ini", make_system_info(options.chip));
    if (vconf_set_int("memory/SHM/trigger_db_write", 0) != 0 || vconf_set_int("system/DOD/test_monitor", 0) != 0) {
        fail_errno("the set's vconf keys");
    }
    if (options.module_loaded) put(state + "/modules/" + kModuleName, kModuleFile);
    for (const Stick &stick : options.sticks) {
        if (!stick.size.empty()) mount_stick(stick.label, stick.size);
        const std::string path = "/media/" + stick.label;
        if (usb_device_plug(stick.label.c_str(), path.c_str(), USB_DEVICE_CLASS_MASS_STORAGE) != 0) {
            fail_errno("USB stick " + stick.label);
        }
    }
}

}  // namespace

void make_layout(const SetOptions &options) {
    umask(022);
    // bubblewrap makes directories that lead to a mount so that only their owner may enter.
    if (chmod("/tv", 0755) != 0) fail_errno("/tv");
    // Everybody may write to /tmp, on a set as anywhere.
    if (chmod("/tmp", 01777) != 0 || chmod("/dev/shm", 01777) != 0) fail_errno("/tmp");
    for (const char *path :
         {"/opt/usr/home/owner/share", "/opt/usr/share", "/media", kNodeDir, "/var/tmp", "/root", "/home"}) {
        make_directory(path);
    }
    make_proc(options);
    make_etc(options);
    make_state(options);
    for (const char *name : {"", "_lpc"}) {
        put(std::string("/opt/data/vestraDir/orna_vestra_config") + name + ".xml", options.config);
    }
    put(kTemperatureFile, std::to_string(options.temperature) + "\n");
}

void show_host() {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail_errno("a mount namespace for the trace source");
    }
    for (const std::string path : {"/proc", "/sys"}) {
        if (mount((kHostDir + path).c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            fail_errno("the host's " + path);
        }
    }
}

void hide_host() {
    for (const std::string path : {"/proc", "/sys"}) umount2((kHostDir + path).c_str(), MNT_DETACH);
}

void enter_directory(const std::string &path) {
    if (chdir(path.c_str()) != 0 && chdir("/") != 0) _exit(126);
}

void extend_process_links(int last) {
    static int made = 0;
    for (; made < last; ++made) {
        const std::string id = std::to_string(made + 1);
        if (symlink((std::string(kRealProc) + "/" + id).c_str(), ("/proc/" + id).c_str()) != 0 && errno != EEXIST)
            return;
    }
}

int newest_process_id() {
    const auto text = read_file(std::string(kRealProc) + "/loadavg");
    if (!text) return 0;
    const size_t blank = text->rfind(' ');
    return blank == std::string::npos ? 0 : static_cast<int>(std::strtol(text->c_str() + blank, nullptr, 10));
}

void mount_stick(const std::string &label, const std::string &size) {
    const std::string path = "/media/" + label;
    make_directory(path);
    if (mount("stick", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, ("mode=0777,size=" + size).c_str()) != 0) {
        fail_errno(path + " (size " + size + ")");
    }
}

bool valid_name(const std::string &name) {
    return !name.empty() && name.size() <= 32 && name[0] != '.' && name[0] != '-' &&
           std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; });
}

}  // namespace vestra_set
