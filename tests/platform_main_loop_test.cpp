// What comes to the main loop from outside: changes of vconf keys and key presses.

#include <climits>
#include <memory>
#include <thread>
#include <vector>

#include "platform/key_combination.h"
#include "platform/vconf.h"
#include "platform_env.h"

namespace {

std::string joined;  // what the callbacks and handlers saw, in order

class MainLoop : public PlatformTest {
  protected:
    MainLoop() { joined.clear(); }
    // What came since the last look, once it ends so, and for a while after that.
    static std::string came(const std::string &end) {
        EXPECT_TRUE(run_loop_until(
            [&] { return joined.size() >= end.size() && joined.substr(joined.size() - end.size()) == end; }));
        run_loop_briefly();
        return std::exchange(joined, {});
    }
};

/* ------------------------------ vconf ------------------------------ */

constexpr char kKey[] = "memory/SHM/trigger_db_write";
constexpr char kFile[] = "vconf/memory%2FSHM%2Ftrigger_db_write";

// Key, type, number, text.
void note(keynode_t *node, void *) {
    const char *text = vconf_keynode_get_str(node);
    joined += std::string(vconf_keynode_get_name(node)) + " " + std::to_string(vconf_keynode_get_type(node)) + " " +
              std::to_string(vconf_keynode_get_int(node)) + " " + (text == nullptr ? "(none)" : text) + ";";
}
void note_too(keynode_t *, void *) {
    joined += "too;";
}
void remove_both(keynode_t *node, void *) {
    note(node, nullptr);
    EXPECT_EQ(vconf_ignore_key_changed("both", remove_both), 0);
    EXPECT_EQ(vconf_ignore_key_changed("both", note_too), 0);
}

std::string get_str(const char *key) {
    const std::unique_ptr<char, decltype(&free)> text(vconf_get_str(key), free);
    return text == nullptr ? "(none)" : text.get();
}

TEST_F(MainLoop, VconfValueIsReadByItsTypeOnly) {
    const struct {
        std::string content;
        int number;        // what get_int finds; -77: it fails
        const char *text;  // what get_str finds
    } kRows[] = {{"int\n-2147483648", INT_MIN, "(none)"},
                 {"int\n5\n", 5, "(none)"},
                 {"string\n/a|b|7\n\n", -77, "/a|b|7\n\n"},
                 {std::string("string\na\0b", 10), -77, "a"},
                 {"int\n2147483648", -77, "(none)"},
                 {"int\n5 ", -77, "(none)"},
                 {"int\n", -77, "(none)"},
                 {"double\n5", -77, "(none)"},
                 {"in", -77, "(none)"},
                 {"string\n" + std::string(1 << 20, 'x'), -77, "(none)"}};
    for (const auto &row : kRows) {
        put("vconf/key", row.content);
        const std::string log = logged([&] {
            int number = -77;
            EXPECT_EQ(vconf_get_int("key", &number), row.number == -77 ? -1 : 0);
            EXPECT_EQ(number, row.number);
            EXPECT_EQ(get_str("key"), row.text);
        });
        EXPECT_EQ(log.empty(), row.number != -77 || row.text != std::string("(none)")) << row.content.substr(0, 20);
    }
    EXPECT_EQ(vconf_set_int(kKey, -3) + vconf_set_str("text", "a\nb"), 0);
    EXPECT_EQ(get(kFile), "int\n-3");
    EXPECT_LT(vconf_set_str("text", std::string(70000, 'x').c_str()), 0);
    EXPECT_EQ(get_str("text"), "a\nb");
}

TEST_F(MainLoop, VconfChangesOfAnyProcessComeToThePairsThatAreRegistered) {
    for (const char *key : {kKey, "text", "other"}) ASSERT_EQ(vconf_notify_key_changed(key, note, nullptr), 0);
    ASSERT_EQ(vconf_notify_key_changed(kKey, note_too, nullptr), 0);
    EXPECT_LT(vconf_notify_key_changed(kKey, note_too, nullptr), 0);
    ASSERT_EQ(vconf_set_int(kKey, 1), 0);
    EXPECT_EQ(joined, "") << "the loop does not run yet";
    EXPECT_EQ(came("too;"), "memory/SHM/trigger_db_write 41 1 (none);too;");
    EXPECT_EQ(vconf_ignore_key_changed(kKey, note), 0);
    EXPECT_LT(vconf_ignore_key_changed(kKey, note), 0);
    vconf_set_int(kKey, 2);
    EXPECT_EQ(came("too;"), "too;");
    for (int round = 0; round < 2; ++round) {  // the same value, too
        EXPECT_EQ(in_child([] { return vconf_set_str("text", "/a|b|7"); }), 0);
        EXPECT_EQ(came("7;"), "text 40 0 /a|b|7;");
    }
    put("vconf/text", "string\nwritten in place");
    EXPECT_EQ(came("place;"), "text 40 0 written in place;");
    for (int i = 1; i <= 200; ++i) ASSERT_EQ(vconf_set_int("other", i), 0);
    came("other 41 200 (none);");
    put("vconf/other", "int\nfive");
    EXPECT_EQ(came("(none);"), "other 0 0 (none);") << "cannot be read";
    ASSERT_EQ(vconf_notify_key_changed("both", remove_both, nullptr), 0);
    ASSERT_EQ(vconf_notify_key_changed("both", note_too, nullptr), 0);
    vconf_set_int("both", 1);
    EXPECT_EQ(came("(none);"), "both 41 1 (none);");
    vconf_set_int("both", 2);
    EXPECT_EQ(came(""), "");
}

/* ------------------------------ Key presses ------------------------------ */

std::thread::id pressed_on;

void press(_KeyComb combination, void *user_data) {
    EXPECT_EQ(user_data, nullptr);
    pressed_on = std::this_thread::get_id();
    joined += std::to_string(combination) + ";";
}
void press_too(_KeyComb, void *) {
    joined += "too;";
}
// More presses and more handlers that come while it runs.
void press_more(_KeyComb combination, void *) {
    press(combination, nullptr);
    EXPECT_EQ(in_child([] { return key_combination_drop(1099); }), 0);
    for (int more = 1000; more < 1100; ++more) EXPECT_NE(KeyCombination_Add_Handler(more, press), 0);
    joined += "end;";
}

TEST_F(MainLoop, PressesArriveInOrderOnTheLoopsThread) {
    ASSERT_NE(KeyCombination_Initialize(), 0);
    put("keys/b.press", "21\n");
    put("keys/a.press", "22");
    put("keys/.hidden.press", "21");
    for (const int combination : {11, 12, 12, 21, 22}) ASSERT_NE(KeyCombination_Add_Handler(combination, press), 0);
    ASSERT_NE(KeyCombination_Add_Handler(12, press_too), 0);
    EXPECT_EQ(came("21;"), "22;21;") << "those from before the handler";
    std::thread remote([] {
        for (const int combination : {11, 12, 19, 11}) EXPECT_EQ(key_combination_drop(combination), 0);
    });
    remote.join();
    EXPECT_EQ(came("too;11;"), "11;12;too;11;");
    EXPECT_EQ(pressed_on, std::this_thread::get_id());
    ASSERT_NE(KeyCombination_Add_Handler(31, press_more), 0);
    ASSERT_EQ(key_combination_drop(31), 0);
    EXPECT_EQ(came("1099;"), "31;end;1099;") << "those during a handler come after it";
    std::filesystem::remove(root_ / "keys/.hidden.press");
    for (const std::string content : {"", "11x", " 11", "99999999999", "11\n\n", "110000000000000000000000000000000"}) {
        const std::string log = logged([&] {
            put("keys/x.press", content);
            EXPECT_TRUE(run_loop_until([&] { return files_in("keys") == 0; })) << content;
        });
        EXPECT_THAT(log, testing::HasSubstr("x.press")) << content;
    }
    std::filesystem::create_directory(root_ / "keys/directory.press");
    std::filesystem::create_symlink("/no/such/place", root_ / "keys/link.press");
    ASSERT_EQ(key_combination_drop(11), 0);
    EXPECT_EQ(came("11;"), "11;") << "what is no press is removed with a line";
    EXPECT_EQ(files_in("keys"), 0U);
    EXPECT_EQ(KeyCombination_Add_Handler(61, nullptr), 0);
}

}  // namespace
