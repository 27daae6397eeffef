// The platform of a Linux machine, as far as a test reaches it without one: combinations among key presses, devices in a
// made-up /sys, services that are missing.

#include <libevdev/libevdev.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>

#include "gmock/gmock.h"
#include "platform/key_combination.h"
#include "platform/linux/key_sequences.h"
#include "platform/notification.h"
#include "platform/privileged_service.h"
#include "platform/system_info.h"
#include "platform/usb_device.h"
#include "platform/vconf.h"
#include "support/files.h"

using namespace vestra_test;
using namespace ::testing;

static std::string logged(const std::function<void()> &body) {
    internal::CaptureStderr();
    body();
    return internal::GetCapturedStderr();
}

/* ------------------------------ Combinations of keys ------------------------------ */

// Plays words, half a second apart: "+A" presses a key, "-A" lets it go, "A" does both, "." lets 4 s pass. Returns the
// words after which a combination was complete.
static std::string play(KeySequences *sequences, const std::string &words) {
    std::set<int> down;
    std::istringstream in(words);
    std::string complete;
    int64_t now = 0;
    for (std::string word; in >> word; now += word == "." ? 4000000 : 500000) {
        if (word == ".") continue;
        const std::string key = word.substr(word.find_first_not_of("+-"));
        const int code = libevdev_event_code_from_name(EV_KEY, ("KEY_" + key).c_str());
        if (word[0] != '-') {
            down.insert(code);
            const auto held = [&](int other) { return down.count(other) != 0; };
            for (const int number : sequences->press(code, now, held)) {
                complete += (complete.empty() ? "" : " ") + std::to_string(number) + "@" + word;
            }
        }
        if (word[0] != '+') down.erase(code);
    }
    return complete;
}

TEST(KeySequence, IsCompleteWithItsLastKey) {
    const struct {
        const char *combination, *presses, *complete;
    } kCases[] = {
        {"leftctrl+LEFTSHIFT+KEY_F11", "+LEFTCTRL +LEFTSHIFT +F11", "87@+F11"},
        {"LEFTCTRL+F11", "+F11 +LEFTCTRL", "87@+LEFTCTRL"},
        {"LEFTCTRL+F11", "+LEFTCTRL -LEFTCTRL +F11", ""},
        {"LEFTCTRL+F11", "+A +LEFTCTRL F11 F11", "87@F11 87@F11"},
        {"MUTE 8 7 MUTE", "MUTE 8 7 MUTE 8 7 MUTE", "87@MUTE"},
        {"MUTE 8 7", "MUTE 8 A 7", ""},
        {"MUTE 8 7", "MUTE 8 . 7", ""},
        {"A A B", "A A A B", "87@B"},
        {"A+B C+D", "+A +B -A -B +D +C", "87@+C"},
        {"F1;F2 F3", "F1 F2 F3", "87@F1 87@F3"},
    };
    for (const auto &c : kCases) {
        KeySequences sequences;
        EXPECT_EQ(sequences.add(87, c.combination), "");
        EXPECT_EQ(play(&sequences, c.presses), c.complete) << c.combination << ": " << c.presses;
    }
}

TEST(KeySequence, WithAnErrorIsLeftOutAsAWhole) {
    for (const char *text : {"", " ; ", "F1;NOSUCHKEY", "+", "F1 + F2", "-1"}) {
        KeySequences sequences;
        EXPECT_NE(sequences.add(87, text), "") << text;
        EXPECT_THAT(sequences.codes(), IsEmpty()) << text;
    }
}

/* ------------------------------ Devices ------------------------------ */

// A disk in a made-up /sys, behind an interface of a class; "" for a disk without partition.
static void plug(const std::string &disk, int diskseq, const char *interface_class, const std::string &partition,
                 dev_t volume) {
    const fs::path interface = "/sys/devices/usb/" + disk;
    const std::string number = std::to_string(major(volume)) + ":" + std::to_string(minor(volume)) + "\n";
    const auto make = [](const fs::path &path, const char *subsystem, const std::string &uevent) {
        write_file(path / "uevent", uevent);
        fs::create_directories("/sys/class/" + std::string(subsystem));
        fs::create_directory_symlink("/sys/class/" + std::string(subsystem), path / "subsystem");
    };
    make(interface, "usb", "DEVTYPE=usb_interface\n");
    write_file(interface / "bInterfaceClass", std::string(interface_class) + "\n");
    const fs::path block = interface / "block" / disk;
    make(block, "block", "DEVTYPE=disk\n");
    write_file(block / "dev", partition.empty() ? number : "8:250\n");
    write_file(block / "size", "2048\n");
    write_file(block / "diskseq", std::to_string(diskseq) + "\n");
    fs::create_directory_symlink(block, "/sys/class/block/" + disk);
    if (partition.empty()) return;
    make(block / partition, "block", "DEVTYPE=partition\n");
    write_file(block / partition / "dev", number);
    fs::create_directory_symlink(block / partition, "/sys/class/block/" + partition);
}

static dev_t mount_something(const char *path) {
    fs::create_directories(path);
    EXPECT_EQ(mount("none", path, "tmpfs", 0, "size=4k"), 0);
    struct stat info {};
    stat(path, &info);
    return info.st_dev;
}

// Mount path of the first stick; "-" if it is not mounted.
static std::string first_stick() {
    usb_device_list_h list = nullptr;
    EXPECT_EQ(usb_device_init() + usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list), 0);
    usb_device_h device = nullptr;
    std::string result = "none";
    if (usb_device_list_get_first(list, &device) == 0) {
        const char *path = usb_device_get_mountpath(device);
        result = path == nullptr ? "-" : path;
    }
    free_usb_device_h(device);
    usb_device_free_device_list(list);
    return result;
}

TEST(LinuxPlatform, TheFirstStickIsThatWhichWasPluggedFirst) {
    setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    EXPECT_EQ(first_stick(), "none");
    plug("sda", 1, "03", "", mount_something("/media/no storage"));
    struct stat root {};
    stat("/", &root);
    plug("sdd", 2, "08", "sdd1", root.st_dev);
    plug("sdf", 3, "08", "sdf1", mount_something("/boot/efi"));
    EXPECT_EQ(first_stick(), "none") << "the machine runs from them";
    plug("sdc", 9, "08", "sdc1", mount_something("/media/late"));
    EXPECT_EQ(first_stick(), "/media/late");
    plug("sde", 5, "08", "sde1", mount_something("/media/with a blank"));
    EXPECT_EQ(first_stick(), "/media/with a blank");
    plug("sdb", 4, "08", "", makedev(8, 16));
    EXPECT_EQ(first_stick(), "-") << "plugged before, but not mounted";
}

/* ------------------------------ Missing services ------------------------------ */

TEST(LinuxPlatform, AServiceThatIsMissingIsOneLine) {
    write_file("/var/lib/vestrad/keys", "no directory");
    static const vconf_callback_fn nothing = [](keynode_t *, void *) {};
    static char *text;
    static int number;
    const struct {
        const char *service;
        bool works;
        std::function<bool()> call;
    } kCases[] = {
        {"configuration keys", false, [] { return vconf_notify_key_changed("key", nothing, nullptr) == 0; }},
        {"configuration key", false, [] { return vconf_set_int("key", 1) == 0; }},
        {"configuration key", false, [] { return vconf_get_int("key", &number) == 0; }},
        {"system information", false, [] { return system_info_get_custom_string("a/b", &text) == 0; }},
        {"module", false, [] { return PS_Insmod_Fast("/none/some.ko", 13, 0, nullptr) == 0; }},
        {"module", false, [] { return PS_Rmmod("none", 4, 0, nullptr) == 0; }},
        {"key combination", true, [] { return KeyCombination_Initialize() != 0; }},
    };
    for (const auto &c : kCases) {
        const std::string log = logged([&] { EXPECT_EQ(c.call(), c.works) << c.service; });
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << c.service << "\n" << log;
    }
}

TEST(LinuxPlatform, AModuleThatCannotBeLoadedSaysWhy) {
    ASSERT_EQ(mkfifo("/tmp/pipe.ko", 0600), 0);
    const auto why = [](const char *file) {
        return std::string(PS_ErrorToString(PS_Insmod_Fast(file, 99, 0, nullptr)));
    };
    EXPECT_EQ(why("/tmp/none.ko"), "no such file");
    EXPECT_THAT(why("/tmp/pipe.ko"), AnyOf("not a module of this kernel", "not permitted", "service not available"));
}

TEST(LinuxPlatform, ANoticeWithoutABusIsALineOfTheLogAndFailsWithABusThatIsNotThereOrNeverAnswers) {
    const int mute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/tmp/mute"};
    ASSERT_EQ(bind(mute, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(mute, 1), 0);
    notification_h notice = notification_create(0);
    ASSERT_EQ(notification_set_text(notice, 1, "Done!\n/media/x \xff", "CONTENT", -1), 0);
    const std::string system = "[notification]\nbus=";
    for (const auto &[bus, result] :
         {std::pair("", 0), std::pair("unix:path=/tmp/none", -1), std::pair("unix:path=/tmp/mute", -1)}) {
        write_file("/etc/vestrad/system.conf", system + bus + "\n");
        EXPECT_THAT(logged([&, expected = result] { EXPECT_EQ(notification_post(notice), expected); }),
                    HasSubstr("notice: Done!\\x0a/media/x"))
            << bus;
    }
    notification_free(notice);
    close(mute);
}
