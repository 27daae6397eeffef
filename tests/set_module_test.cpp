// What the simulated kernel module understands, and what it keeps; the rest of it is in set_launcher_test.sh.

#include <cerrno>
#include <climits>

#include "gmock/gmock.h"
#include "set/module_state.h"
#include "set/user_data.h"
#include "support/files.h"

using namespace std::string_literals;
using namespace vestra_set;
using namespace vestra_test;
using testing::ElementsAre;

TEST(Module, CommandsAreUnderstoodOrRefusedAndCounted) {
    std::string results;
    for (const std::string &text : {"0\n"s, "c-0-4-2147483647"s, "c-0-4--2147483648"s, "c-5-9-1|0|3|0|5"s,
                                    "c-6-5-a-b-c"s, "c-6-247-" + std::string(247, 'n')}) {
        const NodeCommand command = parse_node_command(text).value();
        results += text + ": " + std::to_string(command.kind) + " " + std::to_string(command.number) + " " +
                   std::to_string(command.value) + "\n";
    }
    expect_golden("module-commands", results);
    // The fuzz target's rules refuse other spellings of a command.
    ModuleState state;
    const uint64_t before = state.control_version();
    for (const std::string &text :
         {""s, "2\n"s, "c-7-4-7"s, "c-6-0-"s, "c-6-3-a\0b"s, "c-6-3-a\nb"s, "c-5-7-1|2|3|4"s, "c-0-4-2147483648"s,
          std::string(100000, 'c'), "c-6-248-" + std::string(248, 'n')}) {
        EXPECT_EQ(state.write(text), EINVAL) << text;
    }
    EXPECT_EQ(state.control_version(), before);
    EXPECT_EQ(state.status()["refused"], 10);
    EXPECT_LE(state.status()["last_refused"].get<std::string>().size(), 64U);
}

TEST(Module, ObeysItsCommandsUntilItIsReset) {
    ModuleState state;
    state.reset();
    for (const char *text : {"1\n", "c-1-4-1", "c-3-4-3", "c-4-4-4", "c-5-9-7|0|8|0|0"})
        EXPECT_EQ(state.write(text), 0);
    for (const char name : {'a', 'b', 'c', 'a', 'd', 'e', 'f'}) state.write("c-6-1-"s + name);
    for (int i = 0; i < 300; ++i) state.write("c-0-4-" + std::to_string(i));
    const ModuleControl control = state.control();
    EXPECT_TRUE(control.tracing && control.disk_read && !control.disk_write);
    EXPECT_EQ(control.temperature, 299);
    EXPECT_THAT(control.pids, ElementsAre(7, 8));
    EXPECT_THAT(control.names, ElementsAre("c", "a", "d", "e", "f")) << "the five newest different ones";
    EXPECT_EQ(state.status()["recent"].size(), 256U);
    EXPECT_EQ(state.status()["recent"].front()["command"], "c-0-4-44");
    const uint8_t good[] = {2, 0, 0, 0, 7, 0, 2, 0, 0, 0, 8, 1, 0, 0, 0, 0};
    const uint8_t too_long[] = {2, 0, 0, 0, 7, 0, 255, 255, 255, 255, 8};
    state.count_read(good, sizeof good);
    state.count_read(too_long, sizeof too_long);
    state.count_read(good, 3);
    state.count_read(good, 0);
    state.reset();
    EXPECT_FALSE(state.control().tracing);
    EXPECT_TRUE(state.control().names.empty());
    const auto status = state.status();
    EXPECT_TRUE(status["temperature"].is_null());
    const auto figures = nlohmann::json::array({status["loads"], status["writes"], status["frames"],
                                                status["damaged_blocks"], status["blocks"], status["reads"]["empty"]});
    EXPECT_EQ(figures.dump(), R"([2,312,{"7":2,"8":1},2,3,1])") << "its counts stay";
}
