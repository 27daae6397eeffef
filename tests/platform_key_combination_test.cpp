#include "platform/key_combination.h"

#include <thread>
#include <vector>

#include "platform_env.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Handlers stay for the life of the process, so each test has combinations of its own.
std::vector<int> presses;
std::thread::id pressed_on;

void note(_KeyComb combination, void *user_data) {
    EXPECT_EQ(user_data, nullptr);
    pressed_on = std::this_thread::get_id();
    presses.push_back(combination);
}
void note_too(_KeyComb combination, void * /*user_data*/) {
    presses.push_back(-combination);
}
// Presses that come while it runs.
void press_more(_KeyComb combination, void * /*user_data*/) {
    presses.push_back(combination);
    if (presses.size() == 1) {
        EXPECT_EQ(in_child([] { return key_combination_drop(31) + key_combination_drop(32); }), 0);
    }
    presses.push_back(0);  // the end of the handler
}
void add_handlers(_KeyComb combination, void * /*user_data*/) {
    presses.push_back(combination);
    for (int more = 0; more < 100; ++more) EXPECT_NE(KeyCombination_Add_Handler(1000 + more, note), 0);
}

class KeyCombination : public PlatformTest {
  protected:
    KeyCombination() {
        presses.clear();
        EXPECT_NE(KeyCombination_Initialize(), 0);
    }
    static bool came(size_t count) {
        return run_loop_until([count] { return presses.size() >= count; });
    }
};

}  // namespace

TEST_F(KeyCombination, PressesArriveInOrderOnTheLoopsThread) {
    ASSERT_NE(KeyCombination_Add_Handler(11, note), 0);
    ASSERT_NE(KeyCombination_Add_Handler(12, note), 0);
    ASSERT_NE(KeyCombination_Add_Handler(12, note), 0);  // counts once
    ASSERT_NE(KeyCombination_Add_Handler(12, note_too), 0);
    run_loop_briefly();
    std::thread remote([] {
        for (const int combination : {11, 12, 19, 11}) EXPECT_EQ(key_combination_drop(combination), 0);
    });
    remote.join();
    ASSERT_TRUE(came(4));
    run_loop_briefly();
    EXPECT_THAT(presses, ElementsAre(11, 12, -12, 11));
    EXPECT_EQ(pressed_on, std::this_thread::get_id());
    EXPECT_EQ(files_in("keys"), 0U);
}

TEST_F(KeyCombination, PressesFromBeforeTheHandlerAreDelivered) {
    put("keys/b.press", "21\n");
    put("keys/a.press", "22");
    put("keys/.hidden.press", "21");
    ASSERT_NE(KeyCombination_Add_Handler(21, note), 0);
    ASSERT_NE(KeyCombination_Add_Handler(22, note), 0);
    ASSERT_TRUE(came(2));
    EXPECT_THAT(presses, ElementsAre(22, 21));
}

TEST_F(KeyCombination, PressesDuringAHandlerComeAfterIt) {
    ASSERT_NE(KeyCombination_Add_Handler(31, press_more), 0);
    ASSERT_NE(KeyCombination_Add_Handler(32, press_more), 0);
    ASSERT_EQ(key_combination_drop(31), 0);
    ASSERT_TRUE(came(6));
    EXPECT_THAT(presses, ElementsAre(31, 0, 31, 0, 32, 0));
}

TEST_F(KeyCombination, AHandlerMayAddHandlers) {
    ASSERT_NE(KeyCombination_Add_Handler(51, add_handlers), 0);
    ASSERT_NE(KeyCombination_Add_Handler(51, note_too), 0);
    ASSERT_EQ(key_combination_drop(51), 0);
    ASSERT_TRUE(came(2));
    ASSERT_EQ(key_combination_drop(1099), 0);
    ASSERT_TRUE(came(3));
    EXPECT_THAT(presses, ElementsAre(51, -51, 1099));
}

TEST_F(KeyCombination, WhatIsNoPressIsRemovedWithALine) {
    ASSERT_NE(KeyCombination_Add_Handler(41, note), 0);
    for (const std::string content :
         {"", "41x", " 41", "99999999999", "41\n\n", "\xff", "4100000000000000000000000000000000"}) {
        LogText log;
        put("keys/x.press", content);
        EXPECT_TRUE(run_loop_until([&] { return files_in("keys") == 0; })) << content;
        EXPECT_NE(log.take().find("x.press"), std::string::npos) << content;
    }
    LogText log;
    std::filesystem::create_directory(root_ / "keys/directory.press");
    std::filesystem::create_symlink("/no/such/place", root_ / "keys/link.press");
    ASSERT_EQ(key_combination_drop(41), 0);
    EXPECT_TRUE(came(1));
    EXPECT_EQ(files_in("keys"), 0U);
    EXPECT_THAT(presses, ElementsAre(41));
}

TEST_F(KeyCombination, FailuresAreZero) {
    platform_fail_nth(FAULT_KEY_INITIALIZE, 1);
    EXPECT_EQ(KeyCombination_Initialize(), 0);
    platform_fail_nth(FAULT_KEY_ADD_HANDLER, 1);
    EXPECT_EQ(KeyCombination_Add_Handler(61, note), 0);
    EXPECT_EQ(KeyCombination_Add_Handler(61, nullptr), 0);
    std::filesystem::remove_all(root_ / "keys");
    LogText log;
    EXPECT_EQ(KeyCombination_Initialize(), 0);
    EXPECT_EQ(KeyCombination_Add_Handler(61, note), 0);
    EXPECT_NE(key_combination_drop(61), 0);
    EXPECT_NE(log.take(), "");
    EXPECT_THAT(presses, IsEmpty());
}
