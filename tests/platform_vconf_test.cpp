#include "platform/vconf.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform_env.h"

using ::testing::ElementsAre;

namespace {

constexpr char kKey[] = "memory/SHM/trigger_db_write";
constexpr char kFile[] = "vconf/memory%2FSHM%2Ftrigger_db_write";

std::string get_str(const char *key) {
    const std::unique_ptr<char, decltype(&free)> text(vconf_get_str(key), free);
    return text == nullptr ? "(none)" : text.get();
}

// What a callback saw: key, type, number, text.
using Calls = std::vector<std::string>;
std::string describe(keynode_t *node) {
    const char *text = vconf_keynode_get_str(node);
    return std::string(vconf_keynode_get_name(node)) + " " + std::to_string(vconf_keynode_get_type(node)) + " " +
           std::to_string(vconf_keynode_get_int(node)) + " " + (text == nullptr ? "(none)" : text);
}
void note(keynode_t *node, void *calls) {
    static_cast<Calls *>(calls)->push_back(describe(node));
}
void note_too(keynode_t *node, void *calls) {
    static_cast<Calls *>(calls)->push_back("too " + describe(node));
}

class Vconf : public PlatformTest {
  protected:
    ~Vconf() override {
        for (const char *key : {kKey, "other", "text"}) {
            vconf_ignore_key_changed(key, note);
            vconf_ignore_key_changed(key, note_too);
        }
    }
    bool came(size_t count) {
        return run_loop_until([&] { return calls_.size() >= count; });
    }
    Calls calls_;
};

struct ValueCase {
    const char *name;
    std::string content;
    int number;        // what get_int finds; -77: it fails
    const char *text;  // what get_str finds
};
void PrintTo(const ValueCase &row, std::ostream *out) {
    *out << row.name;
}

class VconfValue : public PlatformTest, public ::testing::WithParamInterface<ValueCase> {};

}  // namespace

TEST_P(VconfValue, IsReadByItsTypeOnly) {
    put("vconf/key", GetParam().content);
    LogText log;
    int number = -77;
    EXPECT_EQ(vconf_get_int("key", &number), GetParam().number == -77 ? -1 : 0);
    EXPECT_EQ(number, GetParam().number);
    EXPECT_EQ(get_str("key"), GetParam().text);
    const bool readable = GetParam().number != -77 || GetParam().text != std::string("(none)");
    EXPECT_EQ(log.take().empty(), readable);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, VconfValue,
    ::testing::Values(ValueCase{"Int", "int\n5", 5, "(none)"},
                      ValueCase{"Smallest", "int\n-2147483648", INT_MIN, "(none)"},
                      ValueCase{"LineEndAfterInt", "int\n5\n", 5, "(none)"},
                      ValueCase{"IntTooLarge", "int\n2147483648", -77, "(none)"},
                      ValueCase{"IntWithMore", "int\n5 ", -77, "(none)"}, ValueCase{"NoInt", "int\n", -77, "(none)"},
                      ValueCase{"Empty", "", -77, "(none)"}, ValueCase{"UnknownType", "double\n5", -77, "(none)"},
                      ValueCase{"HeadCutShort", "in", -77, "(none)"}, ValueCase{"EmptyString", "string\n", -77, ""},
                      ValueCase{"StringOfLines", "string\n/a|b|7\n\n", -77, "/a|b|7\n\n"},
                      ValueCase{"NulEndsAString", std::string("string\na\0b", 10), -77, "a"},
                      ValueCase{"OneMebibyte", "string\n" + std::string(1 << 20, 'x'), -77, "(none)"}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(Vconf, ASetValueIsReadBackByEveryProcess) {
    EXPECT_EQ(vconf_set_int(kKey, -3), 0);
    EXPECT_EQ(get(kFile), "int\n-3");
    EXPECT_EQ(in_child([] {
                  int number = 0;
                  return vconf_get_int(kKey, &number) == 0 && number == -3 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(vconf_set_str("text", "a\nb"), 0);
    EXPECT_EQ(get_str("text"), "a\nb");
    LogText log;
    EXPECT_LT(vconf_set_str("text", std::string(70000, 'x').c_str()), 0);
    log.take();
    EXPECT_EQ(get_str("text"), "a\nb");
}

TEST_F(Vconf, ABrokenStateDirectoryFailsEveryCallWithALine) {
    struct Row {
        const char *name;
        std::function<void()> damage;
    };
    const auto replace_by_file = [this](const char *what) {
        std::filesystem::remove_all(root_ / what);
        put(what, "garbage");
    };
    const Row rows[] = {
        {"Missing", [this] { std::filesystem::remove_all(root_ / "vconf"); }},
        {"AFileInstead", [&] { replace_by_file("vconf"); }},
        {"ADanglingLink",
         [this] {
             std::filesystem::remove(root_ / "vconf");
             std::filesystem::create_symlink("/no/such/place", root_ / "vconf");
         }},
        {"NoRoot", [this] { setenv("VESTRA_SET_DIR", (root_ / "vconf/deeper").c_str(), 1); }},
    };
    for (const Row &row : rows) {
        row.damage();
        int number = 4;
        const std::function<bool()> failures[] = {
            [&] { return vconf_get_int(kKey, &number) < 0 && number == 4; }, [] { return vconf_set_int(kKey, 1) < 0; },
            [] { return vconf_get_str(kKey) == nullptr; }, [] { return vconf_set_str(kKey, "x") < 0; },
            [&] { return vconf_notify_key_changed(kKey, note, &calls_) < 0; }};
        for (const auto &failed : failures) {
            LogText log;
            EXPECT_TRUE(failed()) << row.name;
            EXPECT_NE(log.take(), "") << row.name;
        }
    }
}

TEST_F(Vconf, ChangesBeforeTheLoopRunsArriveWhenItDoes) {
    ASSERT_EQ(vconf_notify_key_changed(kKey, note, &calls_), 0);
    ASSERT_EQ(vconf_set_int(kKey, 1), 0);
    EXPECT_TRUE(calls_.empty());
    ASSERT_TRUE(came(1));
    EXPECT_THAT(calls_, ElementsAre("memory/SHM/trigger_db_write 41 1 (none)"));
}

TEST_F(Vconf, TheSameValueAgainIsAChangeByAnyProcess) {
    ASSERT_EQ(vconf_notify_key_changed("text", note, &calls_), 0);
    EXPECT_EQ(in_child([] { return vconf_set_str("text", "/a|b|7"); }), 0);
    ASSERT_TRUE(came(1));
    vconf_set_str("text", "/a|b|7");
    ASSERT_TRUE(came(2));
    put("vconf/text", "string\nwritten in place");
    ASSERT_TRUE(came(3));
    EXPECT_THAT(calls_, ElementsAre("text 40 0 /a|b|7", "text 40 0 /a|b|7", "text 40 0 written in place"));
}

TEST_F(Vconf, OfManyQuickChangesTheLastIsNeverMissed) {
    ASSERT_EQ(vconf_notify_key_changed(kKey, note, &calls_), 0);
    for (int i = 1; i <= 200; ++i) ASSERT_EQ(vconf_set_int(kKey, i), 0);
    EXPECT_TRUE(run_loop_until([&] { return !calls_.empty() && calls_.back().find(" 200 ") != std::string::npos; }));
}

TEST_F(Vconf, IgnoringEndsExactlyThatPair) {
    ASSERT_EQ(vconf_notify_key_changed(kKey, note, &calls_), 0);
    ASSERT_EQ(vconf_notify_key_changed(kKey, note_too, &calls_), 0);
    ASSERT_EQ(vconf_notify_key_changed("other", note, &calls_), 0);
    EXPECT_EQ(vconf_ignore_key_changed(kKey, note), 0);
    EXPECT_LT(vconf_ignore_key_changed(kKey, note), 0);
    vconf_set_int(kKey, 1);
    vconf_set_int("other", 2);
    ASSERT_TRUE(came(2));
    EXPECT_THAT(calls_, ElementsAre("too memory/SHM/trigger_db_write 41 1 (none)", "other 41 2 (none)"));
}

static void remove_both(keynode_t *node, void *calls) {
    note(node, calls);
    EXPECT_EQ(vconf_ignore_key_changed(kKey, remove_both), 0);
    EXPECT_EQ(vconf_ignore_key_changed(kKey, note_too), 0);
}

TEST_F(Vconf, ACallbackMayRemoveItselfAndTheNext) {
    ASSERT_EQ(vconf_notify_key_changed(kKey, remove_both, &calls_), 0);
    ASSERT_EQ(vconf_notify_key_changed(kKey, note_too, &calls_), 0);
    vconf_set_int(kKey, 1);
    ASSERT_TRUE(came(1));
    vconf_set_int(kKey, 2);
    run_loop_briefly();
    EXPECT_THAT(calls_, ElementsAre("memory/SHM/trigger_db_write 41 1 (none)"));
}

TEST_F(Vconf, AValueThatCannotBeReadIsDeliveredWithoutType) {
    ASSERT_EQ(vconf_notify_key_changed(kKey, note, &calls_), 0);
    LogText log;
    put(kFile, "int\nfive");
    ASSERT_TRUE(came(1));
    log.take();
    EXPECT_THAT(calls_, ElementsAre("memory/SHM/trigger_db_write 0 0 (none)"));
}

TEST_F(Vconf, EachOperationFailsOnPurpose) {
    int number = 4;
    ASSERT_EQ(vconf_notify_key_changed(kKey, note, &calls_), 0);
    for (int operation = FAULT_VCONF_NOTIFY; operation <= FAULT_VCONF_SET_STR; ++operation) {
        platform_fail_nth(static_cast<platform_operation>(operation), 1);
    }
    EXPECT_LT(vconf_notify_key_changed("other", note, &calls_), 0);
    EXPECT_LT(vconf_ignore_key_changed(kKey, note), 0);
    EXPECT_LT(vconf_set_int(kKey, 5), 0);
    EXPECT_LT(vconf_set_str("text", "x"), 0);
    EXPECT_EQ(vconf_set_int(kKey, 6), 0);
    EXPECT_LT(vconf_get_int(kKey, &number), 0);
    EXPECT_EQ(vconf_get_int(kKey, &number), 0);
    EXPECT_EQ(number, 6);
    vconf_set_str("text", "x");
    EXPECT_EQ(get_str("text"), "(none)");
    EXPECT_EQ(get_str("text"), "x");
}
