// Clients that misbehave, one kind after the other, and what the others notice. scripts/client-faults starts the set for
// it. The stream stops before the first question, so every answer is known, and one that differs is wrong.
//
//   client_faults SECONDS SEED VESTRAD

#include <grp.h>
#include <sys/mman.h>

#include <atomic>
#include <cmath>
#include <limits>

#include "bench/rig.h"
#include "client/segment.h"

namespace {

using namespace rig;
using vestra_client::Segment;

constexpr char kSegment[] = "/dev/shm/vestra_api", kLockFile[] = "/dev/shm/vestra_api.daemon";
constexpr char kGroup[] = "games";
constexpr uid_t kOtherUser = 65534;
constexpr int kTimeoutMs = 1000;
constexpr double kLateMs = 500;                    // allowed beyond the time-out, on a busy machine
constexpr double kAgainMs = kTimeoutMs + kLateMs;  // from the end of the fault until each client has an answer
constexpr double kStartedMs = 2000;                // the same, from the start of a daemon
constexpr size_t kMostClients = 64;
constexpr double kNever = std::numeric_limits<double>::infinity();

// Counters of all clients of one scenario, and the answers that they compare with, in shared memory.
struct Shared {
    std::atomic<uint64_t> answered, timed_out, nobody, other, late, wrong;
    std::atomic<int64_t> last_us, longest_gap_us;  // when a client had an answer; between two answers of any clients
    std::atomic<int64_t> served_us[kMostClients];  // when each client had an answer
    std::atomic<bool> excused[kMostClients];       // it was stopped: its question is not late
    vestra_api_data known[VESTRA_API_VITALS][VESTRA_API_WINDOW_MAX + 1];
} * shared;

int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

// False if an answer is not the known one.
bool are_known(const vestra_api_data *requests, int count) {
    const auto same = [](double one, double other) { return one == other || (std::isnan(one) && std::isnan(other)); };
    return std::all_of(requests, requests + count, [&](const vestra_api_data &answer) {
        const vestra_api_data &known = shared->known[answer.packet_type][answer.window];
        return answer.answer_type == answer.packet_type && same(answer.maximum, known.maximum) &&
               same(answer.minimum, known.minimum) && same(answer.average, known.average) &&
               same(answer.variance, known.variance);
    });
}

[[noreturn]] void ask_without_end(size_t slot, uint64_t seed) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::mt19937_64 random(seed);
    for (const vestra_api_h client = vestra_api_open();;) {
        vestra_api_data requests[VESTRA_API_VITALS] = {};
        const int count = random() % 4 == 0 ? VESTRA_API_VITALS : 1;
        for (int i = 0; i < count; ++i) {
            requests[i].packet_type = count == 1 ? static_cast<int32_t>(random() % VESTRA_API_VITALS) : i;
            requests[i].window = static_cast<int32_t>(random() % (VESTRA_API_WINDOW_MAX + 1));
        }
        const int64_t asking = now_us();
        const int result = vestra_api_ask(client, requests, count, kTimeoutMs);
        const int64_t now = now_us();
        const bool late = static_cast<double>(now - asking) > (kTimeoutMs + kLateMs) * 1000;
        if (late && !shared->excused[slot].exchange(false)) ++shared->late;
        if (result != VESTRA_API_OK) {
            ++(result == VESTRA_API_TIMEOUT     ? shared->timed_out
               : result == VESTRA_API_NO_DAEMON ? shared->nobody
                                                : shared->other);
            pause_ms(1);
            continue;
        }
        ++shared->answered;
        if (!are_known(requests, count)) ++shared->wrong;
        const int64_t gap = now - shared->last_us.exchange(now);
        for (int64_t longest = shared->longest_gap_us; gap > longest;) {
            if (shared->longest_gap_us.compare_exchange_weak(longest, gap)) break;
        }
        shared->served_us[slot] = now;
    }
}

// One kind of fault: its clients, and the line about it at the end.
class Scenario {
  public:
    Scenario(const char *name, size_t clients, Triggers &triggers) : name_(name), random_(triggers) {
        for (std::atomic<uint64_t> *figure :
             {&shared->answered, &shared->timed_out, &shared->nobody, &shared->other, &shared->late, &shared->wrong}) {
            *figure = 0;
        }
        shared->last_us = now_us();
        shared->longest_gap_us = 0;
        for (size_t i = 0; i < clients; ++i) pids_.push_back(start(i));
    }
    Scenario(const Scenario &) = delete;
    Scenario &operator=(const Scenario &) = delete;
    ~Scenario() {
        for (size_t i = 0; i < pids_.size(); ++i) end(i);
    }

    void replace(size_t slot) {
        end(slot);
        pids_[slot] = start(slot);
    }
    pid_t pid(size_t slot) const { return pids_[slot]; }
    size_t clients() const { return pids_.size(); }

    // Waits until each client has had an answer from now on, and keeps the longest such time.
    void expect_service(double within_ms) {
        const int64_t begin = now_us();
        const auto served = [&] {
            return std::all_of(shared->served_us, shared->served_us + pids_.size(),
                               [&](const std::atomic<int64_t> &last) { return last > begin; });
        };
        const double ms = comes_true(served, 10000) ? static_cast<double>(now_us() - begin) / 1000 : kNever;
        again_ms_ = std::max(again_ms_, ms);
        kept_ = kept_ && ms <= within_ms;
    }
    void expect(bool kept) { kept_ = kept_ && kept; }

    // Prints the figures. True if every promise was kept. `answers_count`: nobody wrote into the segment.
    bool judge(bool answers_count) {
        const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        kept_ = kept_ && died_ == 0 && shared->late == 0 && (!answers_count || shared->wrong + shared->other == 0);
        std::printf("%-30s %9llu %7llu %9llu %6llu %5llu %6llu %5d %8.0f %8.0f  %s\n", name_, number(shared->answered),
                    number(shared->timed_out), number(shared->nobody), number(shared->other), number(shared->late),
                    number(shared->wrong), died_, static_cast<double>(shared->longest_gap_us) / 1000, again_ms_,
                    kept_ ? "kept" : "BROKEN");
        std::fflush(stdout);
        return kept_;
    }

  private:
    pid_t start(size_t slot) {
        const uint64_t seed = random_.below(1U << 30);
        shared->served_us[slot] = 0;
        shared->excused[slot] = false;
        const pid_t child = fork();
        if (child == 0) ask_without_end(slot, seed);
        return child;
    }
    void end(size_t slot) {
        int status = 0;
        kill(pids_[slot], SIGKILL);
        waitpid(pids_[slot], &status, 0);
        died_ += WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? 0 : 1;
    }

    const char *name_;
    Triggers &random_;
    std::vector<pid_t> pids_;
    int died_ = 0;  // by themselves
    double again_ms_ = 0;
    bool kept_ = true;
};

// Runs `work` as another member of the group, if there are other users here, until the process is killed.
pid_t member_of_the_group(const std::function<void()> &work) {
    const pid_t child = fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const group *entry = getgrnam(kGroup);
    if (geteuid() == 0 && entry != nullptr && setgroups(0, nullptr) == 0 && setgid(entry->gr_gid) == 0) {
        if (setuid(kOtherUser) != 0) _exit(2);
    }
    for (;;) work();
}
void end_member(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

void write_at(int fd, uint32_t value, size_t offset) {
    const ssize_t written = pwrite(fd, &value, sizeof(value), static_cast<off_t>(offset));
    static_cast<void>(written);
}

// Overwrites words of the segment all the time, and now and then truncates it.
void write_everything() {
    static std::mt19937_64 random(1);
    constexpr uint32_t kValues[] = {0, 1, 2, 17, 0x7fffffff, 0x80000000, 0xffffffff, 0xfffffffe};
    const int fd = open(kSegment, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    for (uint64_t left = random() % 10000; left > 0; --left) {
        const uint64_t chance = random();
        write_at(fd, chance % 9 == 8 ? static_cast<uint32_t>(random()) : kValues[chance % 8],
                 static_cast<size_t>(chance / 16) % (sizeof(Segment) / 4) * 4);
    }
    if (ftruncate(fd, random() % 2 == 0 ? 0 : sizeof(Segment)) != 0 || ftruncate(fd, sizeof(Segment)) != 0) usleep(1);
    close(fd);
}

// What a library of another ABI makes of a segment: another size, or another magic number.
void make_foreign(int fd, bool size) {
    if (size && ftruncate(fd, 2 * sizeof(Segment)) != 0) usleep(1);
    if (!size) write_at(fd, 0x32415356, offsetof(Segment, magic));
}

// The daemon of another ABI, ready to serve.
void serve_foreign(bool size) {
    const int lock = open(kLockFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int fd = open(kSegment, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || !vestra_client::set_lock(lock, F_WRLCK) || ftruncate(fd, sizeof(Segment)) != 0) _exit(2);
    write_at(fd, vestra_client::kReady, 0);
    make_foreign(fd, size);
    pause();
}

bool answers() {
    const vestra_api_h client = vestra_api_open();
    vestra_api_data request = {};
    const bool answered = vestra_api_ask(client, &request, 1, kTimeoutMs) == VESTRA_API_OK;
    vestra_api_close(client);
    return answered;
}

// Starts the daemon and asks everything once.
bool learn(Daemon &daemon) {
    daemon.start({}, kLog, "info");
    if (!comes_true(answers, 60000)) return false;
    if (blocks_handed_out() < 20 && !comes_true([] { return blocks_handed_out() >= 20; }, 60000)) return false;
    if (!hand_out_nothing_more()) return false;
    const vestra_api_h client = vestra_api_open();
    bool learned = true;
    for (int window = 0; window <= VESTRA_API_WINDOW_MAX; ++window) {
        for (int type = 0; type < VESTRA_API_VITALS; ++type) {
            vestra_api_data request = {type, window, 0, 0, 0, 0, 0, 0};
            learned = vestra_api_ask(client, &request, 1, 10 * kTimeoutMs) == VESTRA_API_OK && learned;
            shared->known[type][window] = request;
        }
    }
    vestra_api_close(client);
    return learned;
}

/* ------------------------------ The scenarios ------------------------------ */

double seconds;

bool over(Clock::time_point begin) {
    return ms_since(begin) >= seconds * 1000;
}

bool undisturbed(Triggers &triggers) {
    Scenario scene("nothing, 8 clients", 8, triggers);
    pause_ms(seconds * 1000);
    scene.expect_service(kAgainMs);
    return scene.judge(true);
}

bool killed(Triggers &triggers) {
    Scenario scene("64 clients, one killed in 10 ms", kMostClients, triggers);
    for (const auto begin = Clock::now(); !over(begin); pause_ms(10))
        scene.replace(static_cast<size_t>(triggers.below(kMostClients)));
    scene.expect_service(kAgainMs);
    return scene.judge(true);
}

// Stops clients until one of them holds the turn, lets the others time out, and goes on or ends it.
bool stopped(Triggers &triggers) {
    Scenario scene("one of 8 stopped in its turn", 8, triggers);
    int turns = 0;
    for (const auto begin = Clock::now(); !over(begin);) {
        const auto slot = static_cast<size_t>(triggers.below(scene.clients()));
        kill(scene.pid(slot), SIGSTOP);
        waitpid(scene.pid(slot), nullptr, WUNTRACED);
        const uint64_t answered = shared->answered;
        const bool in_turn = !comes_true([&] { return shared->answered > answered + 1; }, 200);
        if (in_turn) pause_ms(2.5 * kTimeoutMs);
        turns += in_turn ? 1 : 0;
        if (in_turn && turns % 2 == 0) {
            scene.replace(slot);
        } else {
            shared->excused[slot] = in_turn;
            kill(scene.pid(slot), SIGCONT);
        }
        if (in_turn) scene.expect_service(kAgainMs);
    }
    scene.expect(turns > 0);
    return scene.judge(true);
}

bool hostile(Triggers &triggers) {
    Scenario scene("a member writes everything", 8, triggers);
    const pid_t member = member_of_the_group(write_everything);
    pause_ms(seconds * 1000);
    end_member(member);
    scene.expect_service(kAgainMs);
    // Its last words are the worst: the daemon waits for the state of a request that it has taken.
    const int fd = open(kSegment, O_RDWR | O_CLOEXEC);
    for (const auto begin = Clock::now(); ms_since(begin) < 200;) write_at(fd, 3, offsetof(vestra_shm_record, state));
    close(fd);
    scene.expect_service(kAgainMs);
    const uint64_t failed = shared->wrong + shared->other;
    pause_ms(1000);
    scene.expect(shared->wrong + shared->other == failed);
    return scene.judge(false);
}

bool foreign_client(Triggers &triggers) {
    Scenario scene("clients of another ABI", 8, triggers);
    for (const auto begin = Clock::now(); !over(begin); pause_ms(triggers.between(0, 1000))) {
        const pid_t client = member_of_the_group([&] {
            const int fd = open(kSegment, O_RDWR | O_CLOEXEC);
            make_foreign(fd, getpid() % 2 == 0);
            pause();
        });
        pause_ms(20);
        scene.expect_service(kAgainMs);
        end_member(client);
    }
    return scene.judge(false);
}

bool foreign_daemon(Daemon &daemon, Triggers &triggers) {
    Scenario scene("a daemon of another ABI", 8, triggers);
    daemon.kill_now();
    for (const bool size : {true, false}) {
        const pid_t foreign = fork();
        if (foreign == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve_foreign(size);
        }
        pause_ms(kTimeoutMs);
        const uint64_t answered = shared->answered;
        pause_ms(seconds * 500);
        scene.expect(shared->answered == answered);
        end_member(foreign);
    }
    daemon.start({}, kLog, "info");
    scene.expect_service(kStartedMs);
    return scene.judge(true);
}

bool restarted(Daemon &daemon, Triggers &triggers) {
    Scenario scene("the daemon killed and started", 8, triggers);
    for (const auto begin = Clock::now(); !over(begin); pause_ms(triggers.between(0, 500))) {
        daemon.kill_now();
        pause_ms(triggers.between(0, 100));
        daemon.start({}, kLog, "info");
        scene.expect_service(kStartedMs);
    }
    return scene.judge(true);
}

// How long it takes to learn that there is no daemon.
bool nobody(Daemon &daemon) {
    daemon.kill_now();
    const vestra_api_h client = vestra_api_open();
    std::vector<double> ms;
    bool kept = true;
    for (int i = 0; i < 1000; ++i) {
        vestra_api_data request = {};
        const auto begin = Clock::now();
        kept = vestra_api_ask(client, &request, 1, 10 * kTimeoutMs) == VESTRA_API_NO_DAEMON && kept;
        ms.push_back(ms_since(begin));
    }
    vestra_api_close(client);
    std::sort(ms.begin(), ms.end());
    kept = kept && ms.back() < kLateMs;
    std::printf("no daemon: known after %.3f ms (median), %.3f ms (longest of 1000)  %s\n", at_share(ms, 0.5),
                ms.back(), kept ? "kept" : "BROKEN");
    return kept;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 4) return 64;
    seconds = std::atof(argv[1]);
    Triggers triggers(std::strtoull(argv[2], nullptr, 10));
    setenv("VESTRA_API_GROUP", kGroup, 1);
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 2;
    shared = new (memory) Shared;
    make_rooms();
    Daemon daemon(argv[3]);
    if (!learn(daemon)) return 2;

    std::printf("%-30s %9s %7s %9s %6s %5s %6s %5s %8s %8s\n", "", "answered", "timeout", "no daemon", "other", "late",
                "wrong", "died", "gap ms", "again ms");
    bool passed = undisturbed(triggers);
    passed = killed(triggers) && passed;
    passed = stopped(triggers) && passed;
    passed = hostile(triggers) && passed;
    passed = foreign_client(triggers) && passed;
    passed = daemon.alive() && passed;
    daemon.kill_now();
    passed = learn(daemon) && passed;  // a daemon that has not recorded anything
    passed = foreign_daemon(daemon, triggers) && passed;
    passed = restarted(daemon, triggers) && passed;
    passed = nobody(daemon) && passed;
    std::printf("%s\n", passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
