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

#include "platform/state_dir.h"
#include "platform/usb_device.h"
#include "set/commands.h"
#include "set/launcher.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

int complain(const std::string &text) {
    std::cerr << "vestra-set: " << text << std::endl;
    return kExitFailed;
}

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

int plug(const std::string &label, const std::string &size, const std::string &directory, bool without_mount) {
    if (!valid_name(label)) return complain("\"" + label + "\" cannot be a USB stick's label");
    const std::vector<std::string> sticks = plugged();
    if (std::find(sticks.begin(), sticks.end(), label) != sticks.end())
        return complain("stick " + label + " is plugged already");
    const std::string path = mount_point(label);
    std::string error;
    // A stick that was unplugged, but not pulled, is still mounted with what is on it.
    if (!without_mount && !is_mounted(path)) {
        if (directory.empty()) {
            if (!mount_stick(label, size, &error)) return complain(error);
        } else {
            std::error_code problem;
            fs::create_directories(path, problem);
            if (mount(directory.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
                return complain(directory + ": " + std::strerror(errno) +
                                " (a set sees the directories it was started with; run's --bind adds one)");
            }
        }
    }
    const char *mounted = without_mount ? nullptr : path.c_str();
    if (usb_device_plug(label.c_str(), mounted, USB_DEVICE_CLASS_MASS_STORAGE) != 0) {
        return complain("stick " + label + " could not be plugged");
    }
    return kExitOk;
}

int unplug(const std::string &label, bool yank) {
    if (usb_device_unplug(label.c_str()) != 0) return complain("there is no stick " + label);
    const std::string path = mount_point(label);
    if (yank && is_mounted(path)) {
        if (umount2(path.c_str(), MNT_DETACH) != 0) return complain(path + ": " + std::strerror(errno));
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

Action setup_usb(CLI::App &app) {
    auto label = std::make_shared<std::string>();
    auto size = std::make_shared<std::string>("64M");
    auto directory = std::make_shared<std::string>();
    auto without_mount = std::make_shared<bool>(false);
    auto yank = std::make_shared<bool>(false);
    app.require_subcommand(1);
    CLI::App *plug_command = app.add_subcommand("plug", "Plug a stick; it is at /media/LABEL then");
    plug_command->add_option("label", *label, "Label")->required();
    plug_command->add_option("--size", *size, "Size of a new stick")->capture_default_str();
    plug_command->add_option("--dir", *directory, "A directory that the set sees, for a stick");
    plug_command->add_flag("--no-mount", *without_mount, "A stick that could not be mounted");
    CLI::App *unplug_command = app.add_subcommand("unplug", "Unplug a stick; its content stays for the next plug");
    unplug_command->add_option("label", *label, "Label")->required();
    unplug_command->add_flag("--yank", *yank, "Pull it out: the mount goes at once, with what was on it");
    CLI::App *list = app.add_subcommand("list", "List the sticks, in their order");
    for (CLI::App *sub : {plug_command, unplug_command, list}) sub->fallthrough();
    return [=](const Rest &) {
        if (plug_command->parsed()) return plug(*label, *size, *directory, *without_mount);
        if (unplug_command->parsed()) return unplug(*label, *yank);
        return list_sticks();
    };
}

}  // namespace vestra_set
