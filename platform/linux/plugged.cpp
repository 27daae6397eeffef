#include "platform/plugged.h"

#include <libmount/libmount.h>
#include <libudev.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/platform_log.h"
#include "platform/usb_device.h"

namespace {

template <auto release>
struct Release {
    template <typename Handle>
    void operator()(Handle *handle) const {
        release(handle);
    }
};
using Udev = std::unique_ptr<udev, Release<udev_unref>>;
using UdevDevice = std::unique_ptr<udev_device, Release<udev_device_unref>>;
using UdevEnumerate = std::unique_ptr<udev_enumerate, Release<udev_enumerate_unref>>;
using MountTable = std::unique_ptr<libmnt_table, Release<mnt_unref_table>>;
using MountIterator = std::unique_ptr<libmnt_iter, Release<mnt_free_iter>>;

struct Disk {
    uint64_t order = 0;          // the kernel's number of the disk, which only grows
    std::vector<dev_t> volumes;  // the disk and its partitions, in this order
};

std::string_view attribute(udev_device *device, const char *name) {
    const char *value = udev_device_get_sysattr_value(device, name);
    return value == nullptr ? std::string_view() : value;
}

uint64_t number(udev_device *device, const char *name) {
    const char *value = udev_device_get_sysattr_value(device, name);
    return value == nullptr ? 0 : strtoull(value, nullptr, 10);
}

// From the attribute "MAJOR:MINOR".
dev_t volume_of(udev_device *device) {
    const char *text = udev_device_get_sysattr_value(device, "dev");
    if (text == nullptr) return 0;
    char *end = nullptr;
    const auto major_number = static_cast<unsigned>(strtoul(text, &end, 10));
    return *end == ':' ? makedev(major_number, static_cast<unsigned>(strtoul(end + 1, nullptr, 10))) : 0;
}

bool is_type(udev_device *device, const char *type) {
    const char *own = udev_device_get_devtype(device);
    return own != nullptr && std::string_view(own) == type;
}

// A card reader without a card is a disk without a size.
bool is_usb_storage(udev_device *disk) {
    udev_device *interface = udev_device_get_parent_with_subsystem_devtype(disk, "usb", "usb_interface");
    return interface != nullptr && attribute(interface, "bInterfaceClass") == "08" && number(disk, "size") > 0;
}

// Where the machine's own volumes are. The root of a machine that runs from a stick may be encrypted or in a volume group:
// then only what it boots from is directly on the stick.
bool is_own(std::string_view target) {
    return target == "/" || target == "/boot" || target == "/efi" || target.substr(0, 6) == "/boot/";
}

// Where a volume is mounted, by its number: the first place, but one of the machine's own before all others.
using Mounts = std::map<dev_t, std::string>;

std::optional<Mounts> read_mounts() {
    const MountTable table(mnt_new_table_from_file("/proc/self/mountinfo"));
    const MountIterator walk(mnt_new_iter(MNT_ITER_FORWARD));
    if (table == nullptr || walk == nullptr) {
        PLATFORM_LOGW("cannot read /proc/self/mountinfo (%d:%m)", errno);
        return std::nullopt;
    }
    Mounts mounts;
    libmnt_fs *system = nullptr;
    while (mnt_table_next_fs(table.get(), walk.get(), &system) == 0) {
        const char *target = mnt_fs_get_target(system);
        if (target == nullptr) continue;
        const auto known = mounts.emplace(mnt_fs_get_devno(system), target).first;
        if (is_own(target)) known->second = target;
    }
    return mounts;
}

// Disks of USB mass storage by their path in /sys, with their partitions.
std::map<std::string, Disk> find_disks(udev *context, udev_enumerate *block) {
    std::map<std::string, Disk> disks;
    // Sorted by path: a disk comes before its partitions, and these by number as long as there are fewer than ten.
    udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(block)) {
        const UdevDevice device(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        if (device == nullptr) continue;  // it has just been pulled
        if (is_type(device.get(), "disk") && is_usb_storage(device.get())) {
            Disk &disk = disks[udev_device_get_syspath(device.get())];
            disk.order = number(device.get(), "diskseq");
            disk.volumes.insert(disk.volumes.begin(), volume_of(device.get()));
        } else if (is_type(device.get(), "partition")) {
            udev_device *parent = udev_device_get_parent(device.get());  // goes with its child
            if (parent == nullptr || !is_usb_storage(parent)) continue;
            disks[udev_device_get_syspath(parent)].volumes.push_back(volume_of(device.get()));
        }
    }
    return disks;
}

}  // namespace

std::optional<std::vector<usb_device_s>> plugged_devices(int device_class) {
    std::vector<usb_device_s> devices;
    if (device_class != USB_DEVICE_CLASS_MASS_STORAGE) return devices;
    const Udev context(udev_new());
    const UdevEnumerate block(context == nullptr ? nullptr : udev_enumerate_new(context.get()));
    if (block == nullptr || udev_enumerate_add_match_subsystem(block.get(), "block") < 0 ||
        udev_enumerate_scan_devices(block.get()) < 0) {
        PLATFORM_LOGW("cannot list the block devices (%d:%m)", errno);
        return std::nullopt;
    }
    const auto mounts = read_mounts();
    if (!mounts) return std::nullopt;

    std::vector<Disk> disks;
    for (auto &[path, disk] : find_disks(context.get(), block.get())) disks.push_back(std::move(disk));
    std::sort(disks.begin(), disks.end(), [](const Disk &a, const Disk &b) { return a.order < b.order; });
    for (const Disk &disk : disks) {
        usb_device_s device;
        bool system = false;
        for (const dev_t volume : disk.volumes) {
            const auto found = mounts->find(volume);
            if (found == mounts->end()) continue;
            system = system || is_own(found->second);
            if (device.mount.empty()) device.mount = found->second;
        }
        // A machine that runs from a stick does not dump into its own root.
        if (!system) devices.push_back(std::move(device));
    }
    return devices;
}
