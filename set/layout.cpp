#include "set/layout.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/usb_device.h"
#include "platform/vconf.h"
#include "set/config_file.h"
#include "set/files.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

// In a new pid namespace ids count from 1, so that these last a short test; the first process soon adds more. They are
// most of what making a set costs.
constexpr int kProcessLinks = 1024;

bool failed(std::string *error, const std::string &what) {
    *error = what + ": " + std::strerror(errno);
    return false;
}

bool put(const std::string &path, std::string_view text, std::string *error) {
    return (make_directories(fs::path(path).parent_path()) && write_file(path, text)) || failed(error, path);
}

// /etc is a directory of links to the real one, so that the files which tell a set from a desktop can be made and
// removed.
bool make_etc(const SetOptions &options, std::string *error) {
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(kRealEtc, ignored)) {
        const std::string name = entry.path().filename();
        if (name == "debug" || name == "release" || name == "perf" || name == "prd_info.ini") continue;
        // A link is copied, for its text may be relative to /etc.
        fs::path target = entry.path();
        if (entry.is_symlink(ignored)) target = fs::read_symlink(entry.path(), ignored);
        fs::create_symlink(target, "/etc/" + name, ignored);
    }
    // Relative links deeper down climb out of the real /etc into what lies beside it.
    for (const char *name : {"usr", "var", "lib", "run"}) {
        fs::create_symlink(std::string("/") + name, std::string("/tv/") + name, ignored);
    }
    if (options.image != "none" && !put("/etc/" + options.image, "", error)) return false;
    return put("/etc/prd_info.ini", make_product_info(), error);
}

// /proc is a directory of links into procfs. /proc/uptime has been bound as the regular file it is on a set, for it is
// refused as a link; the control node is a link, as nothing tests that one.
bool make_proc(const SetOptions &options) {
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
    return true;
}

bool make_state(const SetOptions &options, std::string *error) {
    for (const char *name : {"vconf", "usb", "keys", "modules", "module"}) {
        const std::string path = std::string(kStateDir) + "/" + name;
        if (!make_directories(path)) return failed(error, path);
    }
    if (!put(std::string(kStateDir) + "/system_info.ini", make_system_info(options.chip), error)) return false;
    if (vconf_set_int("memory/SHM/trigger_db_write", 0) != 0 || vconf_set_int("system/DOD/test_monitor", 0) != 0) {
        return failed(error, "the set's vconf keys");
    }
    if (options.module_loaded && !put(std::string(kStateDir) + "/modules/" + kModuleName, kModuleFile, error)) {
        return false;
    }
    for (const Stick &stick : options.sticks) {
        if (!stick.size.empty() && !mount_stick(stick.label, stick.size, error)) return false;
        if (usb_device_plug(stick.label.c_str(), ("/media/" + stick.label).c_str(), USB_DEVICE_CLASS_MASS_STORAGE) !=
            0) {
            return failed(error, "USB stick " + stick.label);
        }
    }
    return true;
}

}  // namespace

bool make_layout(const SetOptions &options, std::string *error) {
    umask(022);
    // The builder of the namespace makes directories on a mount's way that only their owner may enter.
    if (chmod("/tv", 0755) != 0) return failed(error, "/tv");
    // /tmp is everybody's, on a set as anywhere.
    if (chmod("/tmp", 01777) != 0 || chmod("/dev/shm", 01777) != 0) return failed(error, "/tmp");
    for (const char *path : {"/opt/data/vestraDir", "/opt/usr/home/owner/share", "/opt/usr/share", "/media", kNodeDir,
                             "/var/tmp", "/root", "/home"}) {
        if (!make_directories(path)) return failed(error, path);
    }
    const std::string config = "/opt/data/vestraDir/orna_vestra_config";
    return make_proc(options) && make_etc(options, error) && make_state(options, error) &&
           put(config + ".xml", options.config, error) && put(config + "_lpc.xml", options.config, error) &&
           put(kTemperatureFile, std::to_string(options.temperature) + "\n", error);
}

bool show_host(std::string *error) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failed(error, "a mount namespace for the trace source");
    }
    for (const char *path : {"/proc", "/sys"}) {
        if (mount((kHostDir + std::string(path)).c_str(), path, nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            return failed(error, std::string("the host's ") + path);
        }
    }
    return true;
}

void hide_host() {
    for (const char *path : {"/proc", "/sys"}) umount2((kHostDir + std::string(path)).c_str(), MNT_DETACH);
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

bool mount_stick(const std::string &label, const std::string &size, std::string *error) {
    const std::string path = "/media/" + label;
    if (!make_directories(path)) return failed(error, path);
    if (mount("stick", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, ("mode=0777,size=" + size).c_str()) != 0) {
        return failed(error, path + " (size " + size + ")");
    }
    return true;
}

bool valid_name(const std::string &name) {
    return !name.empty() && name.size() <= 32 && name[0] != '.' && name[0] != '-' &&
           std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; });
}

}  // namespace vestra_set
