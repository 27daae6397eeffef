// The simulated kernel module's parts that need no node: command parser, state, injected faults, and the source behind
// a socket.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <thread>

#include "set/config_file.h"
#include "set/files.h"
#include "set/inject.h"
#include "set/module_state.h"
#include "set/remote_source.h"
#include "set/user_data.h"

namespace vestra_set {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;

struct AcceptedCase {
    const char *name;
    std::string text;
    NodeCommand::Kind kind;
    int number;
    int value;
};
const AcceptedCase kAccepted[] = {
    {"TracingOn", "1", NodeCommand::kTracing, 1, 0},
    {"TracingOnAsTheShellWritesIt", "1\n", NodeCommand::kTracing, 1, 0},
    {"TracingOff", "0\n", NodeCommand::kTracing, 0, 0},
    {"Temperature", "c-0-4-57", NodeCommand::kUserData, 0, 57},
    {"TemperatureOfThreeDigits", "c-0-4-126", NodeCommand::kUserData, 0, 126},
    {"TemperatureBelowZero", "c-0-4--5", NodeCommand::kUserData, 0, -5},
    {"TemperatureLargest", "c-0-4-2147483647", NodeCommand::kUserData, 0, INT_MAX},
    {"TemperatureSmallest", "c-0-4--2147483648", NodeCommand::kUserData, 0, INT_MIN},
    {"DiskReadsOn", "c-1-4-1", NodeCommand::kUserData, 1, 1},
    {"DiskWritesOff", "c-4-4-4", NodeCommand::kUserData, 4, 4},
    {"Ids", "c-5-9-1|0|3|0|5", NodeCommand::kUserData, 5, 0},
    {"Name", "c-6-4-init", NodeCommand::kUserData, 6, 0},
    {"NameWithTheSeparator", "c-6-5-a-b-c", NodeCommand::kUserData, 6, 0},
    {"NameThatFillsTheSendersBuffer", "c-6-247-" + std::string(247, 'n'), NodeCommand::kUserData, 6, 0},
};
class AcceptedCommand : public testing::TestWithParam<AcceptedCase> {};
TEST_P(AcceptedCommand, IsUnderstood) {
    const auto command = parse_node_command(GetParam().text);
    ASSERT_TRUE(command);
    EXPECT_EQ(command->kind, GetParam().kind);
    EXPECT_EQ(command->number, GetParam().number);
    EXPECT_EQ(command->value, GetParam().value);
}
INSTANTIATE_TEST_SUITE_P(Commands, AcceptedCommand, testing::ValuesIn(kAccepted),
                         [](const auto &row) { return row.param.name; });

struct RefusedCase {
    const char *name;
    std::string text;
};
const RefusedCase kRefused[] = {
    {"Nothing", ""},
    {"NewlineAlone", "\n"},
    {"TracingTwo", "2\n"},
    {"TracingWithMoreBehind", "1\n\n"},
    {"TracingWithNul", "1\0"s},
    {"LetterAlone", "c"},
    {"NoNumber", "c--4-1"},
    {"NoPayloadField", "c-1-4"},
    {"EmptyInteger", "c-0-4-"},
    {"OtherLetter", "d-0-4-57"},
    {"NumberUnknown", "c-7-4-7"},
    {"NumberNegative", "c--1-4-1"},
    {"NumberOverflows", "c-4294967296-4-0"},
    {"NumberSigned", "c-+1-4-1"},
    {"NumberAfterBlank", "c- 1-4-1"},
    {"NumberWithLeadingZero", "c-01-4-1"},
    {"LengthOfTheDigits", "c-0-2-57"},
    {"LengthNegative", "c-6--4-init"},
    {"LengthOverflows", "c-6-18446744073709551620-init"},
    {"LengthTooLong", "c-6-5-init"},
    {"LengthTooShort", "c-6-3-init"},
    {"PayloadNotItsNumber", "c-1-4-2"},
    {"PayloadOverflows", "c-0-4-2147483648"},
    {"PayloadNoInteger", "c-0-4-5x"},
    {"PayloadMinusAlone", "c-0-4--"},
    {"NewlineBehindInteger", "c-0-4-57\n"},
    {"NulBehindInteger", "c-0-4-57\0"s},
    {"NulInName", "c-6-3-a\0b"s},
    {"NewlineInName", "c-6-3-a\nb"},
    {"NameEmpty", "c-6-0-"},
    {"FourIds", "c-5-7-1|2|3|4"},
    {"SixIds", "c-5-11-1|2|3|4|5|6"},
    {"IdNegative", "c-5-10-1|2|3|4|-5"},
    {"IdEmpty", "c-5-8-1||3|4|5"},
    {"CutAtTheSendersBuffer", ("c-6-256-" + std::string(256, 'n')).substr(0, 255)},
    {"LongerThanAnySender", "c-6-248-" + std::string(248, 'n')},
    {"Enormous", std::string(100000, 'c')},
};
class RefusedCommand : public testing::TestWithParam<RefusedCase> {};
TEST_P(RefusedCommand, IsRefusedCountedAndChangesNothing) {
    EXPECT_FALSE(parse_node_command(GetParam().text));
    ModuleState state;
    const uint64_t before = state.control_version();
    EXPECT_EQ(state.write(GetParam().text), EINVAL);
    EXPECT_EQ(state.control_version(), before);
    EXPECT_EQ(state.status()["refused"], 1);
    EXPECT_LE(state.status()["last_refused"].get<std::string>().size(), 64U);
}
INSTANTIATE_TEST_SUITE_P(Commands, RefusedCommand, testing::ValuesIn(kRefused),
                         [](const auto &row) { return row.param.name; });

TEST(Module, DoesWhatItIsTold) {
    ModuleState state;
    for (const char *text : {"1\n", "c-1-4-1", "c-3-4-3", "c-4-4-4", "c-0-4-61", "c-5-9-7|0|8|0|0", "c-6-1-a"}) {
        ASSERT_EQ(state.write(text), 0) << text;
    }
    const ModuleControl control = state.control();
    EXPECT_TRUE(control.tracing);
    EXPECT_TRUE(control.disk_read);
    EXPECT_FALSE(control.disk_write);
    EXPECT_EQ(control.temperature, 61);
    EXPECT_THAT(control.pids, ElementsAre(7, 8));
    EXPECT_THAT(control.names, ElementsAre("a"));
    EXPECT_EQ(state.status()["recent"].back()["command"], "c-6-1-a");
}

TEST(Module, KeepsTheFiveNewestDifferentNames) {
    ModuleState state;
    for (const char *name : {"a", "b", "c", "a", "d", "e", "f"}) {
        ASSERT_EQ(state.write("c-6-1-"s + name), 0);
    }
    EXPECT_THAT(state.control().names, ElementsAre("c", "a", "d", "e", "f"));
}

TEST(Module, ForgetsWhatItWasToldWhenItIsLoadedAnewButNotItsCounts) {
    ModuleState state;
    state.reset();
    state.write("1");
    state.write("c-6-1-a");
    state.write("c-0-4-50");
    state.reset();
    EXPECT_FALSE(state.control().tracing);
    EXPECT_TRUE(state.control().names.empty());
    const auto status = state.status();
    EXPECT_TRUE(status["temperature"].is_null());
    EXPECT_EQ(status["loads"], 2);
    EXPECT_EQ(status["writes"], 3);
}

TEST(Module, RemembersTheNewestCommandsOnly) {
    ModuleState state;
    for (int i = 0; i < 300; ++i) state.write("c-0-4-" + std::to_string(i));
    const auto status = state.status();
    EXPECT_EQ(status["recent"].size(), 256U);
    EXPECT_EQ(status["recent"].front()["command"], "c-0-4-44");
    EXPECT_EQ(status["commands"]["0"]["count"], 300);
}

TEST(Module, CountsFramesByTypeAndSurvivesDamagedBlocks) {
    ModuleState state;
    const uint8_t good[] = {2, 0, 0, 0, 7, 0, 2, 0, 0, 0, 8, 1, 0, 0, 0, 0};
    const uint8_t too_long[] = {2, 0, 0, 0, 7, 0, 255, 255, 255, 255, 8};
    const uint8_t cut[] = {2, 0, 0};
    state.count_read(good, sizeof good);
    state.count_read(too_long, sizeof too_long);
    state.count_read(cut, sizeof cut);
    state.count_read(good, 0);
    const auto status = state.status();
    EXPECT_EQ(status["frames"], nlohmann::json({{"7", 2}, {"8", 1}}));
    EXPECT_EQ(status["damaged_blocks"], 2);
    EXPECT_EQ(status["blocks"], 3);
    EXPECT_EQ(status["reads"]["empty"], 1);
}

class Inject : public testing::Test {
  protected:
    void put(const std::string &text) {
        ASSERT_TRUE(write_file(path_ + ".new", text));
        std::filesystem::rename(path_ + ".new", path_);
    }
    void SetUp() override { std::filesystem::remove(path_); }

    const std::string path_ = testing::TempDir() + "inject_" + std::to_string(getpid());
    Injector injector_{path_};
};

TEST_F(Inject, BehavesWithoutAFile) {
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kRead);
}

TEST_F(Inject, FailsThenHandsOutNothingAndThenBehaves) {
    put("empty 1\nerror 2 5\nsize 100\n");
    for (int i = 0; i < 2; ++i) {
        const auto verdict = injector_.next();
        EXPECT_EQ(verdict.what, Injector::Verdict::kError);
        EXPECT_EQ(verdict.error, 5);
    }
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kEmpty);
    const auto verdict = injector_.next();
    EXPECT_EQ(verdict.what, Injector::Verdict::kRead);
    EXPECT_EQ(verdict.size_limit, 100U);
}

TEST_F(Inject, StartsAnewWithANewFileAndBehavesOnceItIsGone) {
    put("empty 1\n");
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kEmpty);
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kRead);
    put("stall\n");
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kStall);
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kStall);
    std::filesystem::remove(path_);
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kRead);
}

TEST_F(Inject, IgnoresNonsense) {
    put("empty\nempty -\nerror x\nsize\n\0\nfoo 3\nerror 1 99999\n"s);
    const auto verdict = injector_.next();
    EXPECT_EQ(verdict.what, Injector::Verdict::kError);
    EXPECT_EQ(verdict.error, EIO);
    EXPECT_EQ(injector_.next().what, Injector::Verdict::kRead);
}

// Hands out blocks of as many bytes as it was asked for, filled with the temperature.
class FakeSource : public TraceSource {
  public:
    size_t next_block(uint8_t *out, size_t capacity) override {
        std::fill_n(out, capacity, static_cast<uint8_t>(control_.temperature));
        return capacity;
    }
    void apply(const ModuleControl &control) override { control_ = control; }
    ModuleControl control_{};
};

TEST(RemoteSource, HandsBlocksAndControlAcross) {
    UniqueFd outside;
    UniqueFd inside;
    ASSERT_TRUE(source_pair(&outside, &inside));
    FakeSource fake;
    std::thread server([&] { serve_source(outside.get(), fake); });
    {
        const auto source = remote_source(std::move(inside));
        ModuleControl control{};
        control.temperature = 42;
        control.names = {"one", "\xff\xfe"};  // a name need not be UTF-8
        control.pids = {3};
        source->apply(control);
        std::vector<uint8_t> block(kMaxBlock + 10, 1);
        EXPECT_EQ(source->next_block(block.data(), block.size()), kMaxBlock);
        EXPECT_EQ(block[kMaxBlock - 1], 42);
        EXPECT_EQ(block[kMaxBlock], 1);
        EXPECT_EQ(source->next_block(block.data(), 0), 0U);
    }
    server.join();
    EXPECT_EQ(fake.control_.names[0], "one");
    EXPECT_THAT(fake.control_.pids, ElementsAre(3));
}

TEST(RemoteSource, HandsOutNothingOnceTheOtherSideIsGoneOrTalksNonsense) {
    for (const bool nonsense : {false, true}) {
        UniqueFd outside;
        UniqueFd inside;
        ASSERT_TRUE(source_pair(&outside, &inside));
        const uint32_t too_much = 200000;
        if (nonsense) {
            ASSERT_EQ(write(outside.get(), &too_much, sizeof too_much), 4);
        } else {
            outside.reset();
        }
        const auto source = remote_source(std::move(inside));
        uint8_t byte = 7;
        EXPECT_EQ(source->next_block(&byte, 1), 0U);
        EXPECT_EQ(source->next_block(&byte, 1), 0U);
        EXPECT_EQ(byte, 7);
    }
}

TEST(ConfigFile, TakesOverridesAndNamesTheKeysWhereOneIsWrong) {
    std::string error;
    const std::string text = make_config({"max_file_size=1", "vestra_extfile_path_id=<&>"}, &error);
    EXPECT_THAT(text, testing::HasSubstr("<max_file_size>1</max_file_size>"));
    EXPECT_THAT(text, testing::HasSubstr(">&lt;&amp;&gt;<"));
    EXPECT_EQ(make_config({"max_file_siz=1"}, &error), "");
    EXPECT_THAT(error, testing::HasSubstr("\n  max_file_size (10)"));
    EXPECT_EQ(make_config({"max_file_size"}, &error), "");
}

TEST(ConfigFile, TellsWhetherTheDaemonLoadsTheModule) {
    std::string error;
    EXPECT_TRUE(config_loads_module(make_config({}, &error)));
    EXPECT_FALSE(config_loads_module(make_config({"vestra_kmod_load_unload=0"}, &error)));
    EXPECT_FALSE(config_loads_module("<vestra_config/>"));
}

TEST(ConfigFile, HasTheProductsLinesWithCarriageReturns) {
    EXPECT_THAT(make_product_info(), testing::ContainsRegex("\r\nModel=[^\r\n]+\r\nBuild=[^\r\n]+\r\n$"));
}

}  // namespace
}  // namespace vestra_set
