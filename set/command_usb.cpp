// usb: sticks of a running set, carried out inside it.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "platform/simulated/remote.h"
#include "platform/simulated/state_dir.h"
#include "set/commands.h"
#include "set/complain.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

struct {
    std::string label;
    std::string size = "64M";
    std::string directory;
    bool no_mount = false;
    bool yank = false;
} g_usb;

std::string mount_point(const std::string &label) {
    return "/media/" + label;
}

bool is_mounted(const std::string &path) {
    struct stat here;
    struct stat above;
    return stat(path.c_str(), &here) == 0 && stat("/media", &above) == 0 && here.st_dev != above.st_dev;
}

// Labels of the plugged sticks in the order of plugging. Entries are named NNNN-LABEL.
std::vector<std::string> plugged() {
    std::error_code ignored;
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(state_path("usb"), ignored)) {
        const std::string name = entry.path().filename();
        if (name[0] != '.' && name.find('-') != std::string::npos) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    for (std::string &name : names) name.erase(0, name.find('-') + 1);
    return names;
}

int plug() {
    const std::string &label = g_usb.label;
    if (!valid_name(label)) fail("\"" + label + "\" cannot be a USB stick's label");
    const std::vector<std::string> sticks = plugged();
    if (std::find(sticks.begin(), sticks.end(), label) != sticks.end()) fail("stick " + label + " is plugged already");
    const std::string path = mount_point(label);
    // A stick that was unplugged, but not pulled out, is still mounted with what is on it.
    if (!g_usb.no_mount && !is_mounted(path)) {
        if (g_usb.directory.empty()) {
            mount_stick(label, g_usb.size);
        } else {
            std::error_code problem;
            fs::create_directories(path, problem);
            if (mount(g_usb.directory.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
                fail(g_usb.directory + ": " + std::strerror(errno) +
                     " (a set sees the directories it was started with; run's --bind adds one)");
            }
        }
    }
    const char *mounted = g_usb.no_mount ? nullptr : path.c_str();
    if (usb_device_plug(label.c_str(), mounted, USB_DEVICE_CLASS_MASS_STORAGE) != 0) {
        fail("stick " + label + " could not be plugged");
    }
    return kExitOk;
}

int unplug() {
    if (usb_device_unplug(g_usb.label.c_str()) != 0) fail("there is no stick " + g_usb.label);
    const std::string path = mount_point(g_usb.label);
    if (g_usb.yank && is_mounted(path)) {
        if (umount2(path.c_str(), MNT_DETACH) != 0) fail_errno(path);
        rmdir(path.c_str());
    }
    return kExitOk;
}

int list_sticks() {
    for (const std::string &label : plugged()) {
        std::error_code ignored;
        const fs::space_info space = fs::space(mount_point(label), ignored);
        std::cout << label << "  " << mount_point(label);
        if (!ignored) std::cout << "  " << space.available / 1024 << " KiB free";
        std::cout << std::endl;
    }
    return kExitOk;
}

}  // namespace

void add_usb_commands(cli::Command app) {
    cli::Command usb = add_command(app, Where::kInside, "usb", "Plug and unplug USB sticks");
    cli::Command command = add_command(usb, Where::kInside, "plug", "Plug a stick; it is at /media/LABEL then", plug);
    command.add("label", g_usb.label, "Label").required();
    command.add("--size", g_usb.size, "Size of a new stick").show_default();
    command.add("--dir", g_usb.directory, "A directory that the set sees, used as a stick").suggest_files();
    command.add_flag("--no-mount", g_usb.no_mount, "A stick that could not be mounted");
    command = add_command(usb, Where::kInside, "unplug", "Unplug a stick; its content stays for the next plug", unplug);
    command.add("label", g_usb.label, "Label").required();
    command.add_flag("--yank", g_usb.yank, "Pull it out: the mount goes at once, with what was on it");
    add_command(usb, Where::kInside, "list", "List the sticks, in their order", list_sticks);
}

}  // namespace vestra_set
