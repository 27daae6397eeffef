// What comes to the main loop from outside: changes of vconf keys and key presses.

#include <memory>

#include "platform/simulated/remote.h"
#include "platform/vconf.h"
#include "platform_env.h"

using namespace vestra_test;

static std::string seen;  // by the callbacks and handlers, in order

// Registrations stay until the process ends, so each test has its own keys.
class MainLoop : public PlatformTest {
  protected:
    MainLoop() { seen.clear(); }
    // Runs the loop until `seen` ends with `end`, then a little longer: nothing more may come. Takes what was seen.
    static std::string came(const std::string &end) {
        EXPECT_TRUE(run_loop_until([&] { return Matches(EndsWith(end))(seen); }));
        run_loop_until([] { return false; }, 0.2);
        return std::exchange(seen, {});
    }
};

/* ------------------------------ vconf ------------------------------ */

// Key, type, number, text.
static void note(keynode_t *node, void *) {
    const char *text = vconf_keynode_get_str(node);
    seen += std::string(vconf_keynode_get_name(node)) + " " + std::to_string(vconf_keynode_get_type(node)) + " " +
            std::to_string(vconf_keynode_get_int(node)) + " " + (text == nullptr ? "(none)" : text) + ";";
}
static void note_too(keynode_t *, void *) {
    seen += "too;";
}

static std::string get_str(const char *key) {
    const std::unique_ptr<char, decltype(&free)> text(vconf_get_str(key), free);
    return text == nullptr ? "(none)" : text.get();
}

TEST_F(MainLoop, VconfValueIsReadByItsTypeOnly) {
    std::string results;
    for (const char *content :
         {"int\n-2147483648", "int\n5\n", "string\n/a|b|7\n\n", "int\n2147483648", "int\n5 ", "double\n5"}) {
        put("vconf/key", content);
        const std::string log = logged([&] {
            int number = -77;
            const int result = vconf_get_int("key", &number);
            results += PrintToString(content) + ": " + std::to_string(result) + " " + std::to_string(number) + " " +
                       PrintToString(get_str("key"));
        });
        results += log.empty() ? "\n" : ", logged\n";
    }
    expect_golden("vconf-values", results);
}

TEST_F(MainLoop, VconfValueThatIsTooLongLeavesTheOldOne) {
    EXPECT_EQ(vconf_set_int("a/key", -3) + vconf_set_str("text", "a\nb"), 0);
    EXPECT_EQ(get("vconf/a%2Fkey"), "int\n-3");
    EXPECT_LT(vconf_set_str("text", std::string(70000, 'x').c_str()), 0);
    EXPECT_EQ(get_str("text"), "a\nb");
}

TEST_F(MainLoop, VconfChangeComesToEachCallbackOfItsKey) {
    for (const char *key : {"first", "second"}) ASSERT_EQ(vconf_notify_key_changed(key, note, nullptr), 0);
    ASSERT_EQ(vconf_notify_key_changed("first", note_too, nullptr), 0);
    EXPECT_LT(vconf_notify_key_changed("first", note_too, nullptr), 0) << "it is registered already";
    ASSERT_EQ(vconf_set_int("first", 1), 0);
    EXPECT_EQ(seen, "") << "the loop does not run yet";
    EXPECT_EQ(came("too;"), "first 41 1 (none);too;");
    EXPECT_EQ(vconf_ignore_key_changed("first", note), 0);
    EXPECT_LT(vconf_ignore_key_changed("first", note), 0);
    vconf_set_int("first", 2);
    EXPECT_EQ(came("too;"), "too;");
}

TEST_F(MainLoop, VconfWriteOfTheSameValueByAnotherProcessIsAChange) {
    ASSERT_EQ(vconf_notify_key_changed("text", note, nullptr), 0);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(in_child([] { return vconf_set_str("text", "/a|b|7"); }), 0);
        EXPECT_EQ(came("7;"), "text 40 0 /a|b|7;");
    }
}

TEST_F(MainLoop, VconfLastOfManyChangesComes) {
    ASSERT_EQ(vconf_notify_key_changed("many", note, nullptr), 0);
    for (int i = 1; i <= 200; ++i) ASSERT_EQ(vconf_set_int("many", i), 0);
    came("many 41 200 (none);");
    put("vconf/many", "int\nfive");
    // A slow machine tells of the earlier changes only now, each with the value that is there now.
    EXPECT_THAT(came("(none);"), EndsWith("many 0 0 (none);")) << "written in place, and cannot be read";
}

TEST_F(MainLoop, VconfCallbackMayRemoveItselfAndTheNext) {
    static const vconf_callback_fn remove_both = [](keynode_t *node, void *) {
        note(node, nullptr);
        EXPECT_EQ(vconf_ignore_key_changed("both", remove_both), 0);
        EXPECT_EQ(vconf_ignore_key_changed("both", note_too), 0);
    };
    for (const auto callback : {remove_both, note_too}) vconf_notify_key_changed("both", callback, nullptr);
    vconf_set_int("both", 1);
    EXPECT_EQ(came("(none);"), "both 41 1 (none);");
    vconf_set_int("both", 2);
    EXPECT_EQ(came(""), "");
}

/* ------------------------------ Key presses ------------------------------ */

class Keys : public MainLoop {
  protected:
    Keys() { EXPECT_NE(KeyCombination_Initialize(), 0); }
};

static void press(_KeyComb combination, void *) {
    seen += std::to_string(combination) + ";";
}
static void press_too(_KeyComb, void *) {
    seen += "too;";
}

TEST_F(Keys, PressesFromBeforeTheHandlerComeInOrder) {
    put("keys/b.press", "21\n");
    put("keys/a.press", "22");
    put("keys/.hidden.press", "21");
    for (const int combination : {21, 22}) ASSERT_NE(KeyCombination_Add_Handler(combination, press), 0);
    EXPECT_EQ(came("21;"), "22;21;");
}

TEST_F(Keys, EachPressComesToTheHandlersOfItsCombination) {
    for (const int combination : {11, 12, 12, 13}) ASSERT_NE(KeyCombination_Add_Handler(combination, press), 0);
    ASSERT_NE(KeyCombination_Add_Handler(12, press_too), 0);
    for (const int combination : {11, 12, 19, 13}) EXPECT_EQ(key_combination_drop(combination), 0);
    EXPECT_EQ(came("13;"), "11;12;too;13;");
}

TEST_F(Keys, PressDuringAHandlerComesAfterIt) {
    const auto press_more = [](_KeyComb, void *) {
        EXPECT_EQ(in_child([] { return key_combination_drop(1099); }), 0);
        for (int more = 1000; more < 1100; ++more) EXPECT_NE(KeyCombination_Add_Handler(more, press), 0);
        seen += "end;";
    };
    ASSERT_NE(KeyCombination_Add_Handler(31, press_more), 0);
    ASSERT_EQ(key_combination_drop(31), 0);
    EXPECT_EQ(came("1099;"), "end;1099;");
}

TEST_F(Keys, FileThatIsNoPressIsRemovedWithALine) {
    EXPECT_EQ(KeyCombination_Add_Handler(61, nullptr), 0);
    ASSERT_NE(KeyCombination_Add_Handler(41, press), 0);
    for (const std::string content : {"", "41x", "41\n\n", "410000000000000000000000000000000"}) {
        const std::string log = logged([&] {
            put("keys/x.press", content);
            EXPECT_TRUE(run_loop_until([&] { return names_in(root_ / "keys").empty(); })) << content;
        });
        EXPECT_THAT(log, HasSubstr("x.press")) << content;
    }
    EXPECT_EQ(seen, "");
}
