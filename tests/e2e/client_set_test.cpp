// Clients and the daemon, each in its own process: their answers, and what happens to the next client when one dies,
// lies or writes where it should not.

#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <random>

#include "e2e/set_env.h"

namespace vestra_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPatience = 15000;  // ms; the daemon may be at work on a dead client's request for 4.2 s

int64_t ms_since(Clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
}

class Clients : public SetTest {
  protected:
    void SetUp() override {
        start();
        fill_ring(6);
        ASSERT_EQ(ask(0, 0, kPatience, &known_), VESTRA_API_OK);
        ASSERT_GT(known_.maximum, 0);
    }
    void TearDown() override { EXPECT_TRUE(daemon_->runs()); }

    // The next client is answered, with the right figure.
    void expect_service(const char *after) const {
        vestra_api_data answer;
        ASSERT_EQ(ask(0, 0, kPatience, &answer), VESTRA_API_OK) << after;
        EXPECT_EQ(answer.maximum, known_.maximum) << after;
    }
    // The next client is not, and learns it by its time-out.
    static void expect_timeout(const char *during) {
        const auto begin = Clock::now();
        EXPECT_EQ(ask(0, 0, 200, nullptr), VESTRA_API_TIMEOUT) << during;
        EXPECT_LT(ms_since(begin), 2000) << during;
    }

    vestra_api_data known_ = {};
};

/* ------------------------------ Answers ------------------------------ */

// The figures of an answer as text, in which "nan" equals "nan"; empty without an answer.
std::string figures(int type, int window) {
    vestra_api_data answer;
    if (ask(type, window, kPatience, &answer) != VESTRA_API_OK) return "";
    std::ostringstream text;
    text.precision(17);
    text << answer.answer_type << ' ' << answer.maximum << ' ' << answer.minimum << ' ' << answer.average << ' '
         << answer.variance;
    return text.str();
}

TEST_F(Clients, SeveralAtOnceGetTheAnswersOfOneAlone) {
    constexpr int kWindows[] = {0, 1, 2, 3, kVestraWindowMax};
    std::string alone[kVestraVitals][5];
    for (int type = 0; type < kVestraVitals; ++type) {
        for (int i = 0; i < 5; ++i) alone[type][i] = figures(type, kWindows[i]);
        EXPECT_NE(alone[type][0], "");
    }
    std::vector<std::unique_ptr<Child>> clients;
    for (int number = 0; number < 4; ++number) {
        clients.push_back(std::make_unique<Child>([&, number] {
            for (int i = 0; i < 25 * kVestraVitals; ++i) {
                const int type = i % kVestraVitals, window = (i + number) % 5;
                if (figures(type, kWindows[window]) != alone[type][window]) _exit(1 + type);
            }
        }));
    }
    for (const auto &client : clients) EXPECT_EQ(client->wait(), 0) << "1 + the wrong vital";
}

/* ------------------------------ Clients that die ------------------------------ */

TEST_F(Clients, OneThatIsKilledHoldsNobodyUp) {
    const Segment segment;
    // Before the daemon takes its request, or after: the daemon waits some four seconds for the state to change back.
    for (const bool at_work : {false, true}) {
        SCOPED_TRACE(at_work);
        pause();
        Child victim([] { ask(3, 30, 60000); });
        ASSERT_TRUE(comes_true([&] { return segment.posted(); }));
        if (at_work) {
            segment.record->state = 3;
            resume();
        }
        Child waits_for_the_turn([] { ask(4, 30, 60000); });
        expect_timeout("the turn is taken, by one that waits");
        waits_for_the_turn.end();
        victim.end();
        if (!at_work) {
            expect_timeout("the daemon is not there to answer");
            resume();
        }
        expect_service("the death");
    }
}

TEST_F(Clients, DeathsAtAnyMomentHoldNobodyUp) {
    std::mt19937 random(1);
    auto *asked =
        static_cast<std::atomic<int> *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        *asked = 0;
        Child victim([&] {
            for (;; ++*asked) ask(5, 60, 60000);
        });
        ASSERT_TRUE(comes_true([&] { return *asked > 0; }));
        usleep(static_cast<useconds_t>(random() % 500));  // some turns, and a part of one
        victim.end();
        expect_service("a death");
    }
    munmap(asked, 4096);
}

TEST_F(Clients, TellADaemonThatIsGoneFromOneThatIsSlow) {
    const vestra_api_h client = vestra_api_open();
    vestra_api_data request = {};
    EXPECT_EQ(vestra_api_ask(client, &request, 1, kPatience), VESTRA_API_OK);
    pause();
    EXPECT_EQ(vestra_api_ask(client, &request, 1, 200), VESTRA_API_TIMEOUT);
    const auto hears_of_the_end = [] { _exit(ask(0, 0, 60000) == VESTRA_API_NO_DAEMON ? 0 : 1); };
    Child in_its_turn(hears_of_the_end);
    Child in_line(hears_of_the_end);
    poll(nullptr, 0, 100);
    const auto begin = Clock::now();
    daemon_.reset();
    EXPECT_EQ(vestra_api_ask(client, &request, 1, 60000), VESTRA_API_NO_DAEMON);
    EXPECT_EQ(in_its_turn.wait(), 0);
    EXPECT_EQ(in_line.wait(), 0);
    EXPECT_LT(ms_since(begin), 5000);
    start();
    EXPECT_EQ(vestra_api_ask(client, &request, 1, kPatience), VESTRA_API_OK) << "with the handle of before";
    request.window = kVestraWindowMax + 1;
    EXPECT_EQ(vestra_api_ask(client, &request, 1, kPatience), VESTRA_API_REFUSED);
    vestra_api_close(client);
}

/* ------------------------------ Clients that write where they should not ------------------------------ */

TEST_F(Clients, OneThatOverwritesTheSegmentSilencesNobody) {
    const size_t all = Segment().size;
    const struct {
        const char *name;
        size_t from, to;
        int byte;
    } kRows[] = {{"marker: zeros", offsetof(vestra_shm_record, marker), offsetof(vestra_shm_record, marker) + 4, 0},
                 {"record: zeros", 0, sizeof(vestra_shm_record), 0},
                 {"record: ones", 0, sizeof(vestra_shm_record), 0xff},
                 {"all of it: zeros", 0, all, 0},
                 {"all of it: ones", 0, all, 0xff},
                 {"after the record: ones", sizeof(vestra_shm_record), all, 0xff}};
    for (const auto &row : kRows) {
        memset(reinterpret_cast<uint8_t *>(Segment().record) + row.from, row.byte, row.to - row.from);
        expect_service(row.name);
    }
}

TEST_F(Clients, OneThatChangesEverythingAllTheTimeHarmsNobodyForLong) {
    Child liar([] {
        const Segment segment;
        auto *words = reinterpret_cast<uint32_t *>(segment.record);
        std::mt19937 random(2);
        for (;;) {
            const size_t place = random() % (sizeof(*segment.record) / 4);
            constexpr uint32_t kExtremes[] = {0, 17, 0x7fffffff, 0x80000000, 0xffffffff, 0xfffffffe};
            const auto value = random() % 2 == 0 ? static_cast<uint32_t>(random()) : kExtremes[random() % 6];
            __atomic_store_n(&words[place], value, __ATOMIC_RELAXED);
        }
    });
    for (int i = 0; i < 10; ++i) ask(i, 60, 300);
    EXPECT_TRUE(daemon_->runs());
    liar.end();
    expect_service("the lies");
}

/* ------------------------------ This machine ------------------------------ */

// The number that follows `word` by `skip` fields in a file of the kernel.
double figure(const char *file, const char *word, int skip = 0) {
    const std::string text = read_file(file);
    std::istringstream fields(text.substr(text.find(word) + strlen(word)));
    double value = 0;
    for (int i = 0; i <= skip; ++i) fields >> value;
    return value;
}

// Of all CPUs.
double busy_seconds() {
    double ticks = 0;
    for (const int field : {0, 1, 2, 5, 6}) ticks += figure("/proc/stat", "cpu ", field);  // neither idle nor iowait
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double cpu_seconds(pid_t pid) {
    clockid_t clock = 0;
    timespec time = {};
    clock_getcpuclockid(pid, &clock);
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

class HostFigures : public SetTest {};

// From the kernel's counters through the sampler, the node, the daemon's ring and list, to a client and the database.
TEST_F(HostFigures, AgreeWithTheMachine) {
    constexpr int kSeconds = 10;
    constexpr size_t kMemory = size_t{64} << 20;
    const std::string name = "busy-" + std::to_string(std::random_device()() % 1000000);
    const Child busy([&] {
        prctl(PR_SET_NAME, name.c_str());
        (void)mmap(nullptr, kMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        for (volatile uint64_t count = 0;; count = count + 1) {
        }
    });
    start();
    vestra_api_data cpu;
    // The first step of a run is not to scale.
    ASSERT_TRUE(comes_true([&] { return ask(2, 0, kPatience, &cpu) == VESTRA_API_OK && cpu.maximum > 0; }));
    poll(nullptr, 0, 1500);
    const double machine_before = busy_seconds();
    const double switches_before = figure("/proc/stat", "ctxt");
    const double child_before = cpu_seconds(busy.pid());
    const auto begin = Clock::now();
    poll(nullptr, 0, kSeconds * 1000);
    const double passed = static_cast<double>(ms_since(begin)) / 1000;
    const double machine =
        100 * (busy_seconds() - machine_before) / passed / static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    const double share = (cpu_seconds(busy.pid()) - child_before) / passed;
    ASSERT_EQ(ask(2, kSeconds, kPatience, &cpu), VESTRA_API_OK);
    EXPECT_NEAR(cpu.average, machine, 15) << "percent of all CPUs";
    EXPECT_GT(cpu.average, 20) << "one of them is busy";
    vestra_api_data switches;
    ASSERT_EQ(ask(0, kSeconds, kPatience, &switches), VESTRA_API_OK);
    const double rate = (figure("/proc/stat", "ctxt") - switches_before) / static_cast<double>(ms_since(begin)) * 1000;
    EXPECT_NEAR(switches.average, rate, 0.25 * rate) << "context switches a second";

    vestra_api_data memory;
    ASSERT_EQ(ask(16, 0, kPatience, &memory), VESTRA_API_OK);
    EXPECT_NEAR(memory.maximum, figure("/proc/meminfo", "MemAvailable:"), 0.05 * figure("/proc/meminfo", "MemTotal:"));

    json rows = json::parse(remote("history --timeout 60 --rows 100000 --json").out)["rows"];
    double samples = 0, percent = 0, most = 0;
    for (const json &row : rows) {
        if (row["name"] != name) continue;
        ++samples;
        percent += row["cpu_percent"].get<double>();
        most = std::max(most, row["rss_kib"].get<double>());
    }
    EXPECT_GT(samples, 0) << name;
    EXPECT_NEAR(percent / samples, 25 * share, 6) << "a CPU of its own is 25 percent";
    EXPECT_NEAR(most, static_cast<double>(kMemory) / 1024, 8192) << "KiB";
}

}  // namespace
}  // namespace vestra_test
