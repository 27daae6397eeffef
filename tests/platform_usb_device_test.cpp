#include "platform/usb_device.h"

#include <vector>

#include "platform_env.h"

using UsbDevice = PlatformTest;

namespace {

// Mount path of the first mass-storage device, as the daemon looks it up.
std::string first_mount(int device_class = USB_DEVICE_CLASS_MASS_STORAGE) {
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
    usb_device_fini();
    return mount;
}

}  // namespace

TEST_F(UsbDevice, TheFirstPluggedOfTheClassIsFirst) {
    EXPECT_EQ(first_mount(), "(no device)");
    ASSERT_EQ(usb_device_plug("zz-camera", "/media/camera", 6), 0);
    ASSERT_EQ(usb_device_plug("zz", "/media/zz", 8), 0);
    ASSERT_EQ(usb_device_plug("aa", "/media/aa", 8), 0);
    EXPECT_EQ(first_mount(), "/media/zz");
    EXPECT_EQ(first_mount(6), "/media/camera");
    ASSERT_EQ(usb_device_unplug("zz"), 0);
    EXPECT_EQ(first_mount(), "/media/aa");
    EXPECT_EQ(first_mount(6), "/media/camera");
    EXPECT_LT(usb_device_unplug("zz"), 0);
    ASSERT_EQ(usb_device_plug("zz", nullptr, 8), 0);
    ASSERT_EQ(usb_device_unplug("aa"), 0);
    EXPECT_EQ(first_mount(), "(not mounted)");
}

TEST_F(UsbDevice, TheOrderOutlivesFourDigits) {
    put("usb/9999-old", "[device]\nclass=8\nmount=/media/old\n");
    ASSERT_EQ(usb_device_plug("new", "/media/new", 8), 0);
    ASSERT_TRUE(std::filesystem::exists(root_ / "usb/10000-new"));
    EXPECT_EQ(first_mount(), "/media/old");
    ASSERT_EQ(usb_device_unplug("old"), 0);
    EXPECT_EQ(first_mount(), "/media/new");
}

TEST_F(UsbDevice, AnyLabelAndMountPathComeBackAsTheyWere) {
    for (const char *mount :
         {"/media/usb1", "/media/a b", " /leading", "/back\\slash\\n", "/a\nclass=6\n[x]", "/\xc3\xa4;#="}) {
        ASSERT_EQ(usb_device_plug("../.x/\n", mount, 8), 0);
        EXPECT_EQ(first_mount(), mount);
        EXPECT_EQ(files_in("usb"), 1U);
        ASSERT_EQ(usb_device_unplug("../.x/\n"), 0);
    }
}

TEST_F(UsbDevice, EntriesThatAreNoneAreLeftOut) {
    const std::vector<std::pair<const char *, std::string>> entries = {
        {"0001-empty", ""},
        {"0002-garbage", std::string("\0\xff[[[", 5)},
        {"0003-large", "[device]\nclass=8\nmount=" + std::string(1 << 20, 'x')},
        {"0004-classless", "[device]\nmount=/media/x\n"},
        {"0005-badclass", "[device]\nclass=99999999999999999999\nmount=/media/x\n"},
        {"noorder", "[device]\nclass=8\nmount=/media/x\n"},
        {"99999999999999999999-x", "[device]\nclass=8\nmount=/media/x\n"},
        {"-1-x", "[device]\nclass=8\nmount=/media/x\n"},
    };
    for (const auto &[name, text] : entries) {
        put(std::string("usb/") + name, text);
        LogText log;
        EXPECT_EQ(first_mount(), "(no device)") << name;
        EXPECT_EQ(first_mount(0), "(no device)") << name;
        EXPECT_NE(log.take().find(name), std::string::npos) << name;
        std::filesystem::remove(root_ / "usb" / name);
    }
    put("usb/999999999-last", "[device]\nclass=8\n");
    LogText log;
    EXPECT_LT(usb_device_plug("more", "/media/more", 8), 0);
}

TEST_F(UsbDevice, WithoutTheDirectoryEverythingFailsWithALine) {
    std::filesystem::remove_all(root_ / "usb");
    LogText log;
    EXPECT_EQ(first_mount(), "(no list)");
    EXPECT_LT(usb_device_plug("x", "/media/x", 8), 0);
    EXPECT_LT(usb_device_unplug("x"), 0);
    EXPECT_NE(log.take(), "");
}

TEST_F(UsbDevice, EachOperationFailsOnPurpose) {
    ASSERT_EQ(usb_device_plug("x", "/media/x", 8), 0);
    const std::pair<platform_operation, const char *> rows[] = {{FAULT_USB_INIT, "(no list)"},
                                                                {FAULT_USB_LIST, "(no list)"},
                                                                {FAULT_USB_FIRST, "(no device)"},
                                                                {FAULT_USB_MOUNTPATH, "(not mounted)"}};
    for (const auto &[operation, expected] : rows) {
        platform_fail_nth(operation, 1);
        EXPECT_EQ(first_mount(), expected);
        EXPECT_EQ(first_mount(), "/media/x");
    }
    platform_fail_nth(FAULT_USB_FINI, 1);
    EXPECT_LT(usb_device_fini(), 0);
}
