// Clients and the daemon, each a process of its own, in a set with a control node: what they are answered, and what
// becomes of the next one when a client dies, lies or writes where it should not.

#include <linux/futex.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "client_env.h"
#include "platform/vconf.h"
#include "set/trace/synthetic_source.h"

namespace {

// Where a client process stops itself, so that it can be killed there; of a client's one question.
enum class Point { kNowhere, kInItsTurn, kPosted, kAnswered };
Point stop_at = Point::kNowhere;
bool posted = false;

void reached(Point point) {
    if (stop_at != point) return;
    stop_at = Point::kNowhere;
    raise(SIGSTOP);
}

}  // namespace

// With its turn the client empties the semaphore; it wakes the daemon when it has posted, and unlocks the turn at the
// end.
extern "C" int __real_sem_init(sem_t *semaphore, int shared, unsigned value);
extern "C" int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value) {
    reached(Point::kInItsTurn);
    return __real_sem_init(semaphore, shared, value);
}
extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, const uint32_t *word, int operation, uint32_t value, const timespec *time,
                               const uint32_t *other, uint32_t more) {
    const bool wakes = number == SYS_futex && operation == FUTEX_WAKE;
    const long result = __real_syscall(number, word, operation, value, time, other, more);
    posted = posted || wakes;
    if (wakes) reached(Point::kPosted);
    return result;
}
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    if (posted) reached(Point::kAnswered);
    return __real_pthread_mutex_unlock(mutex);
}

namespace vestra_test {
namespace {

using vestra_set::SyntheticSource;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kBlocks = 6;
constexpr int kPatience = 15000;  // ms; the daemon may be at work on a dead client's request for 4.2 s

int64_t ms_since(Clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
}

// The segment, mapped as a client that knows no manners would.
struct Segment {
    Segment() {
        const int fd = shm_open("/vestra_api", O_RDWR, 0);
        struct stat info = {};
        fstat(fd, &info);
        size = static_cast<size_t>(info.st_size);
        void *address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (address == MAP_FAILED) _exit(99);
        record = static_cast<vestra_shm_record *>(address);
    }
    Segment(const Segment &) = delete;
    Segment &operator=(const Segment &) = delete;
    ~Segment() { munmap(record, size); }

    vestra_shm_record *record;
    size_t size;
};

class Clients : public ClientTest {
  protected:
    void SetUp() override {
        start();
        fill_ring(kBlocks);
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

// One second of the stream, as the source put it in.
struct Second {
    int64_t first, last;  // ns: time stamps of the first switch sample, and of the last of all
    double vitals[kVestraVitals];
};

// The seconds that the daemon has seen, oldest first.
std::vector<Second> seconds_of_stream(uint64_t before, uint64_t blocks) {
    std::string error;
    const auto source = SyntheticSource::make({}, &error);
    source->keep_plan(true);
    vestra_set::ModuleControl control;
    control.tracing = true;
    source->apply(control);
    std::vector<Second> seconds;
    std::vector<uint8_t> block(vestra_set::kMaxBlock);
    for (uint64_t i = 0; i < blocks; ++i) {
        EXPECT_GT(source->next_block(block.data(), block.size()), 0U);
        if (i < before) continue;
        Second second = {};
        for (const auto &frame : source->plan().frames) {
            for (const auto &message : frame.switches) {
                second.last = static_cast<int64_t>(message.time_ns);
                if (second.first == 0) second.first = second.last;
                second.vitals[0] = static_cast<double>(message.element10);
                second.vitals[1] = static_cast<double>(message.element11);
            }
            for (const auto &message : frame.infos) {
                second.last = static_cast<int64_t>(message.time_ns);
                for (size_t d = 0; d < 3; ++d) {
                    const auto &decimal = message.decimal[d];
                    second.vitals[11 + d] =
                        static_cast<double>(decimal.integer) + static_cast<double>(decimal.fraction) / 10;
                }
                second.vitals[14] = static_cast<double>(message.figure13);
                second.vitals[15] = static_cast<double>(message.figure16);
                second.vitals[16] = static_cast<double>(message.figure17);
            }
        }
        seconds.push_back(second);
    }
    return seconds;
}

// Whether an answer is what the stream says; its vitals are all above 0. Averages have gone through single precision.
bool is_right(const vestra_api_data &answer, const std::vector<Second> &seconds) {
    std::vector<double> values;
    for (const Second &second : seconds) {
        const bool in_window = second.last + answer.window * int64_t{1000000000} >= seconds.back().first;
        if (in_window || answer.window == 0) values.push_back(second.vitals[answer.packet_type]);
    }
    if (answer.window == 0) values = {values.back()};
    const double count = static_cast<double>(values.size());
    const double average = std::accumulate(values.begin(), values.end(), 0.0) / count;
    double variance = 0;
    for (const double value : values) variance += (value - average) * (value - average) / count;
    return answer.answer_type == answer.packet_type &&
           answer.maximum == *std::max_element(values.begin(), values.end()) &&
           answer.minimum == *std::min_element(values.begin(), values.end()) &&
           std::fabs(answer.average - average) <= 1e-6 * average &&
           std::fabs(answer.variance - variance) <= 1e-4 * std::max(variance, 1.0);
}

TEST_F(Clients, SeveralAtOnceGetWhatTheSourcePutIn) {
    const auto seconds = seconds_of_stream(blocks_before_, blocks_);
    ASSERT_GE(seconds.size(), kBlocks);
    const auto one_client = [&](int number) {
        const vestra_api_h client = vestra_api_open();
        for (int round = 0; round < 25; ++round) {
            std::vector<vestra_api_data> requests;
            for (int type = kVestraVitals - 1; type >= 0; --type) {
                vestra_api_data request = {};
                request.packet_type = type;
                request.window = (type + round + number) % 5 == 4 ? kVestraWindowMax : (type + round + number) % 5;
                requests.push_back(request);
            }
            if (vestra_api_ask(client, requests.data(), kVestraVitals, kPatience) != VESTRA_API_OK) _exit(100);
            for (const vestra_api_data &answer : requests) {
                // Not those of the cores: their first step and their newest second are reckoned in a way of their own.
                if (answer.packet_type >= 2 && answer.packet_type <= 10) continue;
                if (!is_right(answer, seconds)) _exit(1 + answer.packet_type);
            }
        }
        vestra_api_close(client);
    };
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(std::make_unique<Child>([&, i] { one_client(i); }));
    for (const auto &client : clients) EXPECT_EQ(client->wait(), 0) << "100: no answer; else 1 + the wrong vital";
}

/* ------------------------------ Who dies ------------------------------ */

struct Death {
    const char *name;
    Point point;
    enum { kFree, kStopped, kAtWork } daemon;
};

const Death kDeaths[] = {
    {"in its turn, before it has written", Point::kInItsTurn, Death::kFree},
    {"posted, and not taken", Point::kPosted, Death::kStopped},
    // What is taken while its state says something else, the daemon waits for, some four seconds.
    {"while the daemon is at work for it", Point::kPosted, Death::kAtWork},
    {"answered, before it gives the turn up", Point::kAnswered, Death::kFree},
};

TEST_F(Clients, OneThatIsKilledHoldsNobodyUp) {
    for (const Death &death : kDeaths) {
        SCOPED_TRACE(death.name);
        if (death.daemon != Death::kFree) pause();
        Child victim([&] {
            stop_at = death.point;
            ask(3, 30, 60000);
        });
        ASSERT_TRUE(victim.stops());
        if (death.daemon == Death::kAtWork) {
            Segment().record->state = 3;
            resume();
        }
        Child waits_for_the_turn([] { ask(4, 30, 60000); });
        expect_timeout("the turn is taken, by one that stands still");
        waits_for_the_turn.end();
        victim.end();
        if (death.daemon == Death::kStopped) {
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

double meminfo(const char *what) {
    std::istringstream text(read_file("/proc/meminfo"));
    double kib = 0;
    for (std::string word; text >> word;) {
        if (word == what && text >> kib) break;
    }
    return kib;
}

double cpu_seconds(pid_t pid) {
    clockid_t clock = 0;
    timespec time = {};
    clock_getcpuclockid(pid, &clock);
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

class HostFigures : public ClientTest {};

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

    vestra_api_data memory;
    ASSERT_EQ(ask(11, 0, kPatience, &memory), VESTRA_API_OK);
    const double used = 100 - 100 * meminfo("MemAvailable:") / meminfo("MemTotal:");
    EXPECT_NEAR(memory.maximum, used, 5);
    ASSERT_EQ(ask(16, 0, kPatience, &memory), VESTRA_API_OK);
    EXPECT_NEAR(memory.maximum, meminfo("MemAvailable:"), 0.05 * meminfo("MemTotal:"));

    vconf_set_int("memory/SHM/trigger_db_write", 1);
    ASSERT_TRUE(comes_true([] {
        int value = 1;
        return vconf_get_int("memory/SHM/trigger_db_write", &value) == 0 && value == 0;
    }));
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open("/opt/usr/home/owner/share/tvhistory.db", &database), SQLITE_OK);
    const std::string query =
        "SELECT COUNT(*), AVG(CPU_PERCENTAGE_USED), MAX(RSS_USED) FROM PROCESS_INFO WHERE PROCESS_NAME = '" + name +
        "'";
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database, query.c_str(), -1, &statement, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_GT(sqlite3_column_int(statement, 0), 0) << name;
    EXPECT_NEAR(sqlite3_column_double(statement, 1), 25 * share, 6) << "a CPU of its own is 25 percent";
    EXPECT_NEAR(sqlite3_column_double(statement, 2), static_cast<double>(kMemory) / 1024, 8192) << "KiB";
    sqlite3_finalize(statement);
    sqlite3_close(database);
}

}  // namespace
}  // namespace vestra_test
