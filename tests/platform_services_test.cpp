// The platform's smaller services: log, state files, notices, USB devices, system information, kernel module.

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/notification.h"
#include "platform/privileged_service.h"
#include "platform/simulated/remote.h"
#include "platform/system_info.h"
#include "platform/vconf.h"
#include "platform_env.h"

using namespace vestra_test;

using nlohmann::json;

class Services : public PlatformTest {};

/* ------------------------------ Log ------------------------------ */

static int print(const std::string &tag, const std::string &text) {
    return __dlog_print(LOG_ID_MAIN, DLOG_INFO, tag.c_str(), "%s", text.c_str());
}

TEST_F(Services, LogLineHasTimeLevelIdsTagAndText) {
    const std::string line = logged([] {
        errno = ENOTEMPTY;
        EXPECT_GT(__dlog_print(LOG_ID_MAIN, DLOG_WARN, "VESTRA", "%d:%m\n", 7), 0);
        EXPECT_EQ(errno, ENOTEMPTY);
    });
    const std::string id = std::to_string(getpid());
    EXPECT_THAT(line, ContainsRegex("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z W " + id + ":" +
                                    id + " VESTRA: 7:" + strerror(ENOTEMPTY) + "\n$"));
}

TEST_F(Services, LogLineStaysOneLineWhateverIsInIt) {
    EXPECT_THAT(logged([] { print("TAG\nTAG", "a\nb\rc\x1b[2J\x7f\n\n"); }),
                EndsWith(" TAG\\x0aTAG: a\\x0ab\\x0dc\\x1b[2J\\x7f\\x0a\n"));
    EXPECT_THAT(logged([] { print("VESTRA", std::string(100000, 'x')); }),
                EndsWith(": " + std::string(1919, 'x') + "\n"));
    EXPECT_THAT(logged([] { print(std::string(100000, 't'), std::string(5000, '\n')); }),
                AllOf(SizeIs(Le(4096)), EndsWith("\\x0a\n")));
    dlog_set_threshold(DLOG_WARN);
    EXPECT_EQ(logged([] { EXPECT_EQ(print("VESTRA", "below the threshold"), 0); }), "");
}

TEST_F(Services, LogWithoutAnOutputFails) {
    logged([] {
        close(STDERR_FILENO);
        EXPECT_LT(print("VESTRA", "nowhere to go"), 0);
    });
}

/* ------------------------------ State files ------------------------------ */

TEST_F(Services, StateFileIsReadWholeOrNotAtAll) {
    fs::create_directory(root_ / "directory");
    put("large", std::string(101, 'x'));
    ASSERT_EQ(mkfifo((root_ / "pipe").c_str(), 0600), 0);
    for (const char *name : {"missing", "directory", "large", "pipe"}) {
        EXPECT_THAT(logged([&] { EXPECT_EQ(read_state_file(state_path(name), 100), std::nullopt); }), HasSubstr(name));
    }
    EXPECT_EQ(read_state_file(state_path("large"), 101), std::string(101, 'x'));
}

TEST_F(Services, StateFileIsReplacedAtomically) {
    fs::create_directories(root_ / "directory/full");
    put("victim", "kept");
    fs::create_symlink(root_ / "victim", root_ / "link");
    EXPECT_TRUE(replace_state_file(state_path("link"), "new"));
    EXPECT_EQ(get("victim") + get("link"), "keptnew") << "a link is not followed";
    EXPECT_FALSE(replace_state_file(state_path("directory"), "text"));
    EXPECT_FALSE(replace_state_file(state_path("missing/file"), "text"));
    EXPECT_THAT(names_in(root_), Not(Contains(StartsWith("."))));
}

TEST_F(Services, EncodedNameIsAFileNameForAnyBytes) {
    EXPECT_EQ(encode_name("memory/SHM/a_b-c.1"), "memory%2FSHM%2Fa_b-c.1");
    EXPECT_EQ(encode_name("..") + encode_name("%2F") + encode_name("") + encode_name("\xff\n"), "%2E.%252F%%FF%0A");
}

/* ------------------------------ Services ------------------------------ */

// Mount path of the first device of a class, found as the daemon finds it.
static std::string first_mount(int device_class = USB_DEVICE_CLASS_MASS_STORAGE) {
    usb_device_list_h list = nullptr;
    if (usb_device_init() != 0 || usb_device_get_device_list(device_class, &list) != 0) return "(no list)";
    usb_device_h device = nullptr;
    std::string mount = "(no device)";
    if (usb_device_list_get_first(list, &device) == 0) {
        const char *path = usb_device_get_mountpath(device);
        mount = path == nullptr ? "(not mounted)" : path;
        free_usb_device_h(device);
    }
    usb_device_free_device_list(list);
    return usb_device_fini() == 0 ? mount : "(no end)";
}

static std::string custom_string(const char *key) {
    char *value = nullptr;
    if (system_info_get_custom_string(key, &value) != 0) return value == nullptr ? "(none)" : "(touched)";
    const std::unique_ptr<char, decltype(&free)> text(value, free);
    return text.get();
}

TEST_F(Services, NoticeOfAnyBytesIsALineOrFails) {
    const auto post = [](const char *text) {
        notification_h notice = notification_create(0);
        EXPECT_EQ(notification_set_text(notice, 1, text, "CONTENT", -1), 0);
        const int result = notification_post(notice);
        EXPECT_EQ(notification_free(notice), 0);
        return result;
    };
    EXPECT_EQ(post("two\nlines \xff\xc3"), 0);
    const std::string text = get("notifications.jsonl");
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    EXPECT_EQ(json::parse(text, nullptr, false)["text"], "two\nlines \xef\xbf\xbd\xef\xbf\xbd");
    fs::remove(root_ / "notifications.jsonl");
    fs::create_directory(root_ / "notifications.jsonl");
    EXPECT_THAT(logged([&] { EXPECT_LT(post("text"), 0); }), HasSubstr("notifications.jsonl"));
}

TEST_F(Services, FirstPluggedStickOfTheClassIsFirst) {
    EXPECT_EQ(first_mount(), "(no device)");
    put("usb/9998-camera", "[device]\nclass=6\nmount=/media/camera\n");
    ASSERT_EQ(usb_device_plug("zz", "/media/zz", 8), 0);
    ASSERT_EQ(usb_device_plug("aa", "/media/aa", 8), 0);  // 10000
    EXPECT_EQ(first_mount() + first_mount(6), "/media/zz/media/camera");
    ASSERT_EQ(usb_device_unplug("zz"), 0);
    EXPECT_LT(usb_device_unplug("zz"), 0);
    EXPECT_EQ(first_mount(), "/media/aa");
}

TEST_F(Services, StickMayBeUnmountedOrHaveAnyName) {
    ASSERT_EQ(usb_device_plug("../.x/\n", nullptr, 8), 0);
    EXPECT_EQ(first_mount(), "(not mounted)");
    ASSERT_EQ(usb_device_unplug("../.x/\n"), 0);
    EXPECT_EQ(first_mount(), "(no device)");
}

TEST_F(Services, EntryThatIsNoStickIsSkippedWithALine) {
    put("usb/0004-classless", "[device]\nmount=/media/x\n");
    put("usb/noorder", "[device]\nclass=8\nmount=/media/x\n");
    EXPECT_THAT(logged([] { EXPECT_EQ(first_mount() + first_mount(0), "(no device)(no device)"); }),
                AllOf(HasSubstr("0004-classless"), HasSubstr("noorder")));
}

TEST_F(Services, NoStickCanBePluggedAfterTheLastNumber) {
    put("usb/999999999-last", "[device]\nclass=8\nmount=/media/x\n");
    EXPECT_LT(usb_device_plug("more", "/media/more", 8), 0);
}

TEST_F(Services, GroupOfACustomStringIsTheKeyUpToItsLastSlash) {
    put("system_info.ini", "[com.set/info/chip]\nname=RIVAM\nempty=\n[other]\nname=x\nbytes=\xff\xfe\n");
    EXPECT_EQ(custom_string("com.set/info/chip/name"), "RIVAM");
    EXPECT_EQ(custom_string("com.set/info/chip/empty"), "");
    EXPECT_EQ(custom_string("other/name"), "x");
    for (const char *key : {"com.set/info/chip/none", "com.set/name", "name", "/", "", "other/bytes"}) {
        EXPECT_NE(logged([&] { EXPECT_EQ(custom_string(key), "(none)") << key; }), "") << key;
    }
}

TEST_F(Services, AModuleIsLoadedFromItsFileAndUnloadedByItsName) {
    int result = 9;
    const auto load = [&](const char *path) { return PS_Insmod_Fast(path, strlen(path), 0, &result); };
    const auto unload = [&](const char *name) { return PS_Rmmod(name, strlen(name), 0, &result); };
    EXPECT_EQ(load("/lib/modules/linux/kernel/orna-vestra-kmod.ko") + result, 0);
    EXPECT_EQ(get("modules/orna_vestra_kmod"), "/lib/modules/linux/kernel/orna-vestra-kmod.ko");
    EXPECT_EQ(unload("orna_vestra_kmod"), 0);
    EXPECT_LT(unload("orna_vestra_kmod"), 0);
    EXPECT_STREQ(PS_ErrorToString(result), "module not loaded");
    EXPECT_EQ(PS_Insmod_Fast("/x/some.koXX", 10, 0, nullptr), 0);  // only the given length is read
    EXPECT_EQ(get("modules/some"), "/x/some.ko");
    for (const char *nothing : {"", "/a/", "/a/.ko"}) {
        EXPECT_LT(load(nothing), 0) << nothing;
        EXPECT_STREQ(PS_ErrorToString(result), "refused");
        EXPECT_LT(unload(nothing), 0) << nothing;
    }
}

TEST_F(Services, FailWithALineWithoutTheStateDirectory) {
    fs::remove_all(root_);
    static int value;
    static const vconf_callback_fn nothing = [](keynode_t *, void *) {};
    bool (*const operations[])() = {
        [] { return vconf_set_int("key", 6) == 0; },
        [] { return vconf_get_int("key", &value) == 0; },
        [] { return vconf_get_str("key") != nullptr; },
        [] { return vconf_notify_key_changed("key", nothing, nullptr) == 0; },
        [] { return first_mount() != "(no list)"; },
        [] { return usb_device_plug("x", "/media/x", 8) == 0; },
        [] { return usb_device_unplug("x") == 0; },
        [] { return PS_Insmod_Fast("/x/some.ko", 10, 0, nullptr) == 0; },
        [] { return custom_string("group/name") != "(none)"; },
        [] { return KeyCombination_Initialize() != 0; },
        [] { return key_combination_drop(61) == 0; },
    };
    for (const auto &works : operations) {
        EXPECT_NE(logged([&] { EXPECT_FALSE(works()); }), "") << &works - operations;
    }
}
