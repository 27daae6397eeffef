// vestra-stat as a user has it, with a daemon that has been given its last second.

#include <pty.h>
#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "client_env.h"
#include "gmock/gmock.h"

namespace vestra_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

struct Result {
    int code = -1;
    std::string out, err;
};

// Runs the program with these arguments, as a shell splits them.
Result run_stat(const std::string &arguments) {
    const std::string command = "exec " VESTRA_STAT_PROGRAM " " + arguments + " >/tmp/stat.out 2>/tmp/stat.err";
    Child shell([&] { execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); });
    Result result;
    result.code = shell.wait();
    result.out = read_file("/tmp/stat.out");
    result.err = read_file("/tmp/stat.err");
    return result;
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

size_t count(const std::string &text, const std::string &part) {
    size_t times = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++times;
    return times;
}

class VestraStat : public ClientTest {
  protected:
    void start_with_a_ring() {
        start();
        fill_ring(4);
    }
};

TEST_F(VestraStat, ShowsWhatTheDaemonAnswers) {
    start_with_a_ring();
    const Result json = run_stat("--json --window 30");
    ASSERT_EQ(json.code, 0) << json.err;
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 1);
    const auto answer = nlohmann::json::parse(json.out);
    EXPECT_EQ(answer["window"], 30);
    ASSERT_THAT(answer["vitals"], SizeIs(kVestraVitals));
    const auto table = words_of(run_stat("--window 30").out);
    ASSERT_THAT(table, SizeIs(1 + kVestraVitals));
    for (const auto &[name, shown] : answer["vitals"].items()) {
        vestra_api_data asked;
        const int type = shown["type"];
        ASSERT_EQ(ask(type, 30, 15000, &asked), VESTRA_API_OK);
        const auto &line = table[static_cast<size_t>(type) + 1];
        ASSERT_GE(line.size(), 6U) << name;
        EXPECT_EQ(line[0], std::to_string(type));
        EXPECT_EQ(line[1], name);
        const std::pair<const char *, double> figures[] = {{"maximum", asked.maximum},
                                                           {"minimum", asked.minimum},
                                                           {"average", asked.average},
                                                           {"variance", asked.variance}};
        for (size_t i = 0; i < 4; ++i) {
            const auto &[figure, value] = figures[i];
            const std::string &in_table = line[line.size() - 4 + i];
            EXPECT_EQ(in_table == "-", std::isnan(value)) << name << figure;
            EXPECT_EQ(shown[figure].is_null(), std::isnan(value)) << name << figure;
            if (std::isnan(value)) continue;
            EXPECT_EQ(shown[figure], value) << name;
            EXPECT_NEAR(std::stod(in_table), value, 0.5 + 0.001 * std::fabs(value)) << name << figure;
        }
    }
    const auto now = words_of(run_stat("--window 0 16 cpu cpu-user").out);
    ASSERT_THAT(now, SizeIs(5));
    const char *names[] = {"memory-available", "cpu-total", "cpu-system", "cpu-user"};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(now[i + 1][1], names[i]) << "in the order asked, each once";
    EXPECT_THAT(now[1], SizeIs(4)) << "number, name, unit, one figure";
}

TEST_F(VestraStat, TellsItsFailuresApart) {
    Result result = run_stat("");
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
    resume();
    // Somebody makes another question of it before the daemon reads it.
    const Child liar([] {
        const int fd = shm_open("/vestra_api", O_RDWR, 0);
        void *address = mmap(nullptr, sizeof(vestra_shm_record), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) _exit(1);
        int32_t *type = &static_cast<vestra_shm_record *>(address)->request[0].packet_type;
        for (;;) __atomic_store_n(type, 5, __ATOMIC_RELAXED);
    });
    EXPECT_TRUE(comes_true([&] {
        result = run_stat("cpu-total");
        return result.code == 6;
    })) << result.code;
    EXPECT_THAT(result.err, HasSubstr("left a vital unanswered"));
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
    EXPECT_TRUE(comes_true([&] { return said("no daemon is running; asking on\n") == 1; }));
    const size_t before = lines();
    start();
    EXPECT_TRUE(comes_true([&] { return lines() >= before + 2; }));
    EXPECT_EQ(read_file("/tmp/watch.err"),
              "vestra-stat: no daemon is running; asking on\nvestra-stat: the daemon answers again\n");
    kill(watching.pid(), SIGINT);
    EXPECT_EQ(watching.wait(), 0);
    EXPECT_EQ(run_stat("--watch cpu --count 2").code, 0) << "a vital's name behind --watch is no number of seconds";
    EXPECT_EQ(count(read_file("/tmp/stat.out"), "cpu-total"), 2U);
}

TEST_F(VestraStat, WatchOnATerminalStaysInItsPlace) {
    start_with_a_ring();
    int terminal = -1;
    const pid_t watching = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (watching == 0) {
        setenv("TERM", "xterm", 1);
        execl(VESTRA_STAT_PROGRAM, VESTRA_STAT_PROGRAM, "--watch", "0.1", nullptr);
        _exit(127);
    }
    std::string shown;
    EXPECT_TRUE(comes_true([&] {
        char bytes[4096];
        const ssize_t size = read(terminal, bytes, sizeof bytes);
        if (size > 0) shown.append(bytes, static_cast<size_t>(size));
        return count(shown, "\x1b[H") >= 3;
    }));
    EXPECT_EQ(count(shown, "\x1b[2J"), 1U) << "cleared once, then written over";
    EXPECT_GE(count(shown, "memory-available"), 2U);
    EXPECT_EQ(write(terminal, "\x03", 1), 1);
    int status = -1;
    EXPECT_EQ(waitpid(watching, &status, 0), watching);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "Ctrl-C ends it cleanly";
    close(terminal);
}

// What is completed is what there is.
TEST_F(VestraStat, CompletionKnowsEveryOptionAndVital) {
    const auto completed = [](const std::string &word) {
        const std::string script = "source " VESTRA_COMPLETION "; COMP_WORDS=(vestra-stat " + word +
                                   "); COMP_CWORD=1; _vestra_stat; printf '%s\\n' \"${COMPREPLY[@]}\" >/tmp/completed";
        Child bash([&] { execl("/bin/bash", "bash", "-c", script.c_str(), nullptr); });
        EXPECT_EQ(bash.wait(), 0);
        std::vector<std::string> words;
        for (const auto &line : words_of(read_file("/tmp/completed")))
            words.insert(words.end(), line.begin(), line.end());
        std::sort(words.begin(), words.end());
        return words;
    };
    std::vector<std::string> options, vitals;
    for (const auto &line : words_of(run_stat("--help").out)) {
        if (line.empty() || line[0][0] != '-') continue;
        options.push_back(line[0].substr(line[0].find("--")));
    }
    std::sort(options.begin(), options.end());
    EXPECT_EQ(completed("--"), options);
    for (const auto &line : words_of(run_stat("--list").out)) {
        if (line.size() > 2 && std::isdigit(static_cast<unsigned char>(line[0][0])) != 0) vitals.push_back(line[1]);
    }
    std::sort(vitals.begin(), vitals.end());
    EXPECT_THAT(vitals, SizeIs(kVestraVitals));
    EXPECT_EQ(completed("''"), vitals);
    EXPECT_THAT(completed("cpu-t"), ElementsAre("cpu-total"));
}

}  // namespace
}  // namespace vestra_test
