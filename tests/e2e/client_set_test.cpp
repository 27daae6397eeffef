// Clients and the daemon, each a process of its own: what they are answered, and what becomes of the next one when a
// client dies, lies or writes where it should not.

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

/* ------------------------------ What is answered ------------------------------ */

// The figures of an answer; those that are no numbers are equal, too.
std::string figures(const vestra_api_data &answer) {
    std::ostringstream text;
    text.precision(17);
    text << answer.answer_type << ' ' << answer.maximum << ' ' << answer.minimum << ' ' << answer.average << ' '
         << answer.variance;
    return text.str();
}

TEST_F(Clients, SeveralAtOnceAreAnsweredAsOneAlone) {
    constexpr int kWindows[] = {0, 1, 2, 3, kVestraWindowMax};
    std::string alone[kVestraVitals][std::size(kWindows)];
    for (int type = 0; type < kVestraVitals; ++type) {
        for (size_t i = 0; i < std::size(kWindows); ++i) {
            vestra_api_data answer;
            ASSERT_EQ(ask(type, kWindows[i], kPatience, &answer), VESTRA_API_OK);
            alone[type][i] = figures(answer);
        }
    }
    const auto one_client = [&](int number) {
        const vestra_api_h client = vestra_api_open();
        for (int round = 0; round < 25; ++round) {
            const auto window = [&](int type) { return static_cast<size_t>(type + round + number) % 5; };
            std::vector<vestra_api_data> requests(kVestraVitals);
            for (int i = 0; i < kVestraVitals; ++i) {
                const int type = kVestraVitals - 1 - i;
                requests[static_cast<size_t>(i)] = {type, kWindows[window(type)], 0, 0, 0, 0, 0, 0};
            }
            if (vestra_api_ask(client, requests.data(), kVestraVitals, kPatience) != VESTRA_API_OK) _exit(100);
            for (const vestra_api_data &answer : requests) {
                const int type = answer.packet_type;
                if (figures(answer) != alone[type][window(type)]) _exit(1 + type);
            }
        }
        vestra_api_close(client);
    };
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(std::make_unique<Child>([&, i] { one_client(i); }));
    for (const auto &client : clients) EXPECT_EQ(client->wait(), 0) << "100: no answer; else 1 + the wrong vital";
}

/* ------------------------------ Who dies ------------------------------ */

TEST_F(Clients, OneThatIsKilledHoldsNobodyUp) {
    const Segment segment;
    // While its request is not taken; while the daemon is at work on it: what is taken while its state says something
    // else, the daemon waits for, some four seconds.
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

/* ------------------------------ Who writes where it should not ------------------------------ */

struct Damage {
    const char *name;
    void (*write)(const Segment &segment);
};

const Damage kDamages[] = {
    {"marker: not ready", [](const Segment &segment) { segment.record->marker = 0; }},
    {"marker: none", [](const Segment &segment) { segment.record->marker = -7; }},
    {"record: zeros", [](const Segment &segment) { memset(segment.record, 0, sizeof(*segment.record)); }},
    {"record: ones", [](const Segment &segment) { memset(segment.record, 0xff, sizeof(*segment.record)); }},
    {"all of it: zeros", [](const Segment &segment) { memset(segment.record, 0, segment.size); }},
    {"all of it: ones", [](const Segment &segment) { memset(segment.record, 0xff, segment.size); }},
    {"behind the record: ones",
     [](const Segment &segment) { memset(segment.record + 1, 0xff, segment.size - sizeof(*segment.record)); }},
};

TEST_F(Clients, OneThatOverwritesTheSegmentSilencesNobody) {
    for (const Damage &damage : kDamages) {
        SCOPED_TRACE(damage.name);
        damage.write(Segment());
        expect_service("the damage");
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

// Of all CPUs, seconds.
double busy_seconds() {
    std::istringstream text(read_file("/proc/stat"));
    std::string word;
    double user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
    text >> word >> user >> nice >> system >> idle >> iowait >> irq >> softirq;
    return (user + nice + system + irq + softirq) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The number after a word in a file of the kernel's.
double figure(const char *file, const char *word) {
    std::istringstream text(read_file(file));
    double value = 0;
    for (std::string each; text >> each;) {
        if (each == word && text >> value) break;
    }
    return value;
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
