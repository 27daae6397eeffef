// vestra-stat as a user runs it, with a daemon that gets no more input.

#include <cmath>

#include "e2e/set_env.h"

namespace vestra_test {
namespace {

// The program with these arguments, as a shell splits them.
Ran run_stat(const std::string &arguments) {
    return run(VESTRA_STAT_PROGRAM " " + arguments);
}

std::vector<std::vector<std::string>> words_of(const std::string &text) {
    std::vector<std::vector<std::string>> lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);) {
        std::istringstream words(line);
        lines.emplace_back();
        for (std::string word; words >> word;) lines.back().push_back(word);
    }
    return lines;
}

class VestraStat : public SetTest {
  protected:
    void start_with_a_ring() {
        start();
        fill_ring(4);
    }
};

TEST_F(VestraStat, ShowsWhatTheDaemonAnswers) {
    start_with_a_ring();
    const Ran told = run_stat("--json --window 30");
    ASSERT_EQ(told.code, 0) << told.err;
    EXPECT_EQ(count(told.out, "\n"), 1U);
    const json answer = json::parse(told.out);
    EXPECT_EQ(answer["window"], 30);
    ASSERT_THAT(answer["vitals"], SizeIs(kVestraVitals));
    const auto table = words_of(run_stat("--window 30").out);
    ASSERT_THAT(table, SizeIs(1 + kVestraVitals));
    for (const auto &[name, shown] : answer["vitals"].items()) {
        vestra_api_data asked;
        const size_t type = shown["type"];
        ASSERT_EQ(ask(static_cast<int>(type), 30, 15000, &asked), VESTRA_API_OK);
        const auto &line = table[type + 1];
        ASSERT_GE(line.size(), 6U) << name;
        EXPECT_EQ(line[0] + line[1], std::to_string(type) + name);
        const std::pair<const char *, double> kFigures[] = {{"variance", asked.variance},
                                                            {"average", asked.average},
                                                            {"minimum", asked.minimum},
                                                            {"maximum", asked.maximum}};
        for (size_t i = 0; i < 4; ++i) {
            const auto &[figure, value] = kFigures[i];
            SCOPED_TRACE(name + " " + figure);
            const std::string &in_table = line[line.size() - 1 - i];
            EXPECT_EQ(shown[figure], std::isnan(value) ? json() : json(value));
            EXPECT_EQ(in_table == "-", std::isnan(value));
            if (in_table == "-") continue;
            EXPECT_NEAR(std::stod(in_table), value, 0.5 + 0.001 * std::fabs(value));
        }
    }
    const auto now = words_of(run_stat("--window 0 16 cpu cpu-user").out);
    ASSERT_THAT(now, SizeIs(5));
    const char *names[] = {"memory-available", "cpu-total", "cpu-system", "cpu-user"};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(now[i + 1][1], names[i]) << "in the order asked, each once";
    EXPECT_THAT(now[1], SizeIs(4)) << "number, name, unit, one figure";
}

TEST_F(VestraStat, TellsItsFailuresApart) {
    Ran result = run_stat("");
    EXPECT_EQ(result.code, 4);
    EXPECT_THAT(result.err, StartsWith("vestra-stat: no daemon is running\n"));
    EXPECT_THAT(result.out, IsEmpty());
    for (const char *wrong : {"--window 181", "--window -1", "17", "cpux", "--watch 0", "--count 3", "--frob"}) {
        result = run_stat(wrong);
        EXPECT_EQ(result.code, 64) << wrong;
        EXPECT_FALSE(result.err.empty()) << wrong;
    }
    start_with_a_ring();
    EXPECT_EQ(run_stat("cpu-total --json").code, 0);
    pause();
    result = run_stat("--timeout 0.2");
    EXPECT_EQ(result.code, 5);
    EXPECT_THAT(result.err, HasSubstr("did not answer in time, 200 ms"));
    const Segment segment;
    segment.record->state = 0;  // of the request that nobody answered
    Child asking([] { _exit(run_stat("cpu-total").code); });
    ASSERT_TRUE(comes_true([&] { return segment.posted(); }));
    segment.record->request[0].packet_type = 5;  // somebody makes another question of it
    resume();
    EXPECT_EQ(asking.wait(), 6);
    EXPECT_THAT(read_file("/tmp/run.err"), HasSubstr("left a vital unanswered"));
}

TEST_F(VestraStat, WatchGoesOnOverARestart) {
    start_with_a_ring();
    Child watching([] {
        execl("/bin/sh", "sh", "-c",
              "exec " VESTRA_STAT_PROGRAM " --watch 0.1 --json cpu-total >/tmp/watch.out 2>/tmp/watch.err", nullptr);
    });
    const auto lines = [] { return count(read_file("/tmp/watch.out"), "\n"); };
    const auto said = [](const char *what) { return count(read_file("/tmp/watch.err"), what); };
    EXPECT_TRUE(comes_true([&] { return lines() >= 2; }));
    daemon_.reset();
    EXPECT_TRUE(comes_true([&] { return said("no daemon is running; still asking\n") == 1; }));
    const size_t before = lines();
    start();
    EXPECT_TRUE(comes_true([&] { return lines() >= before + 2; }));
    EXPECT_EQ(read_file("/tmp/watch.err"),
              "vestra-stat: no daemon is running; still asking\nvestra-stat: the daemon answers again\n");
    kill(watching.pid(), SIGINT);
    EXPECT_EQ(watching.wait(), 0);
    const Ran twice = run_stat("--watch cpu --count 2");
    EXPECT_EQ(twice.code, 0) << "a vital's name after --watch is no number of seconds";
    EXPECT_EQ(count(twice.out, "cpu-total"), 2U);
}

TEST_F(VestraStat, WatchOnATerminalStaysInItsPlace) {
    start_with_a_ring();
    const Ran terminal = run("TERM=xterm script -qec '" VESTRA_STAT_PROGRAM " --watch 0.1 --count 3' /dev/null");
    EXPECT_EQ(terminal.code, 0);
    EXPECT_EQ(count(terminal.out, "\x1b[2J"), 1U) << "cleared once, then written over";
    EXPECT_EQ(count(terminal.out, "\x1b[H"), 3U);
    EXPECT_EQ(count(terminal.out, "memory-available"), 3U);
}

TEST_F(VestraStat, CompletionKnowsEveryOptionAndVital) {
    // Words of a command's output, sorted.
    const auto sorted = [](const std::string &command) { return run("bash -c '" + command + "' | sort").out; };
    const auto completed = [&](const std::string &word) {
        return sorted("source " VESTRA_COMPLETION "; COMP_WORDS=(vestra-stat " + word +
                      "); COMP_CWORD=1; _vestra_stat; printf \"%s\\n\" \"${COMPREPLY[@]}\"");
    };
    const std::string vitals = sorted(VESTRA_STAT_PROGRAM " --list | sed -nE \"s/^ *[0-9]+[* ] +([^ ]+).*/\\1/p\"");
    EXPECT_EQ(count(vitals, "\n"), size_t{kVestraVitals});
    EXPECT_EQ(completed("\"\""), vitals);
    EXPECT_EQ(completed("cpu-t"), "cpu-total\n");
    const std::string options = sorted(VESTRA_STAT_PROGRAM " --help | sed -nE \"s/^ *(-[^ ]*,)?(--[a-z-]+).*/\\2/p\"");
    EXPECT_EQ(completed("--"), options);
}

}  // namespace
}  // namespace vestra_test
