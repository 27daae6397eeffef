#include "platform/system_info.h"

#include <memory>

#include "platform_env.h"

using SystemInfo = PlatformTest;

static std::string ask(const char *key) {
    char *value = nullptr;
    if (system_info_get_custom_string(key, &value) != 0) return value == nullptr ? "(none)" : "(touched)";
    const std::unique_ptr<char, decltype(&free)> text(value, free);
    return text.get();
}

TEST_F(SystemInfo, GroupIsTheKeyUpToItsLastSlash) {
    put("system_info.ini", "[com.set/info/chip]\nname=RIVAM\nempty=\n[other]\nname=x\nbytes=\xff\xfe\n");
    EXPECT_EQ(ask("com.set/info/chip/name"), "RIVAM");
    EXPECT_EQ(ask("com.set/info/chip/empty"), "");
    EXPECT_EQ(ask("other/name"), "x");
    for (const char *missing :
         {"com.set/info/chip/none", "com.set/info/name", "name", "/", "", "other/", "other/bytes"}) {
        LogText log;
        EXPECT_EQ(ask(missing), "(none)") << missing;
        EXPECT_NE(log.take(), "") << missing;
    }
}

TEST_F(SystemInfo, AFileThatIsNoneFailsWithALine) {
    const std::string contents[] = {std::string("\0\x01\xff", 3), "no group\n", std::string(1 << 20, '[')};
    for (const std::string &content : contents) {
        put("system_info.ini", content);
        LogText log;
        EXPECT_EQ(ask("group/name"), "(none)");
        EXPECT_NE(log.take(), "");
    }
}

TEST_F(SystemInfo, FailsOnPurpose) {
    put("system_info.ini", "[group]\nname=x\n");
    platform_fail_nth(FAULT_SYSTEM_INFO, 2);
    EXPECT_EQ(ask("group/name"), "x");
    EXPECT_EQ(ask("group/name"), "(none)");
    EXPECT_EQ(ask("group/name"), "x");
}
