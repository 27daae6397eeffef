// Many clients ask the daemon at once, without pause, while it reads full blocks and writes dumps. scripts/load starts
// the set for it, with a steady synthetic stream in which the range of every vital is known.
//
//   load SECONDS CLIENTS SEED VESTRAD

#include <sys/mman.h>

#include <cmath>

#include "bench/rig.h"

namespace {

using namespace rig;

constexpr int kTimeoutMs = 2000;
constexpr double kLateMs = 500;     // allowed beyond the time-out, on a busy machine
constexpr size_t kKept = 1U << 17;  // waiting times that are kept for each client

// Range of each vital in the steady profile, at 45 degrees.
constexpr struct Range {
    double least, most;
} kRanges[VESTRA_API_VITALS] = {{3900, 5700}, {3, 5},   {0, 100},         {0, 100},        {0, 100},        {45, 54},
                                {45, 54},     {45, 54}, {45, 54},         {45, 54},        {0, 4},          {55, 85},
                                {5, 25},      {2.8, 4}, {117964, 353895}, {94371, 283116}, {235929, 707789}};

// The results of one client, in shared memory.
struct Tally {
    uint64_t answered, timed_out, nobody, other, late;
    uint64_t out_of_range, inconsistent, misdirected;
    uint64_t kept;
    vestra_api_data first_wrong;
    uint32_t us[kKept];
};

bool in_range(const vestra_api_data &answer) {
    const Range &range = kRanges[answer.packet_type];
    // A second without data counts as 0, which a minimum may show. A window of only such seconds has no average.
    const auto fits = [&](double value) { return value == 0 || (value >= range.least && value <= range.most); };
    const bool average = std::isnan(answer.average) || fits(answer.average) ||
                         std::fabs(answer.average - std::clamp(answer.average, range.least, range.most)) < 1;
    return fits(answer.maximum) && fits(answer.minimum) && average;
}

bool consistent(const vestra_api_data &answer) {
    if (answer.window == 0) {
        return answer.maximum == answer.minimum && answer.minimum == answer.average && answer.variance == 0;
    }
    if (std::isnan(answer.average)) return answer.maximum == 0 && answer.minimum == 0;
    const double slack = 1e-6 * answer.maximum;  // an average is a float
    const double spread = answer.maximum - answer.minimum;
    return answer.maximum >= answer.minimum && answer.average <= answer.maximum + slack &&
           answer.average >= answer.minimum - slack && answer.variance >= 0 &&
           answer.variance <= spread * spread + slack;
}

void ask_without_pause(Tally *tally, uint64_t seed, double seconds) {
    std::mt19937_64 random(seed);
    const vestra_api_h client = vestra_api_open();
    for (const auto begin = Clock::now(); ms_since(begin) < seconds * 1000;) {
        vestra_api_data requests[VESTRA_API_VITALS] = {};
        const int count = random() % 4 == 0 ? VESTRA_API_VITALS : 1;
        for (int i = 0; i < count; ++i) {
            requests[i].packet_type = count == 1 ? static_cast<int32_t>(random() % VESTRA_API_VITALS) : i;
            requests[i].window = random() % 3 == 0 ? 0 : static_cast<int32_t>(random() % (VESTRA_API_WINDOW_MAX + 1));
        }
        const vestra_api_data asked = requests[0];
        const auto asking = Clock::now();
        const int result = vestra_api_ask(client, requests, count, kTimeoutMs);
        const double ms = ms_since(asking);
        tally->late += ms > kTimeoutMs + kLateMs ? 1 : 0;
        if (result != VESTRA_API_OK) {
            ++(result == VESTRA_API_TIMEOUT     ? tally->timed_out
               : result == VESTRA_API_NO_DAEMON ? tally->nobody
                                                : tally->other);
            continue;
        }
        ++tally->answered;
        if (tally->kept < kKept) tally->us[tally->kept++] = static_cast<uint32_t>(ms * 1000);
        for (int i = 0; i < count; ++i) {
            const bool directed = requests[i].answer_type == (count == 1 ? asked.packet_type : i);
            const bool fits = directed && in_range(requests[i]), agrees = directed && consistent(requests[i]);
            tally->misdirected += directed ? 0 : 1;
            tally->out_of_range += directed && !fits ? 1 : 0;
            tally->inconsistent += directed && !agrees ? 1 : 0;
            if ((!fits || !agrees) && tally->first_wrong.window == 0) tally->first_wrong = requests[i];
        }
    }
    vestra_api_close(client);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) return 64;
    const double seconds = std::atof(argv[1]);
    const auto clients = static_cast<size_t>(std::max(std::atoi(argv[2]), 1));
    Triggers triggers(std::strtoull(argv[3], nullptr, 10));
    Daemon daemon(argv[4]);
    make_rooms();
    void *shared = mmap(nullptr, clients * sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) return 2;
    auto *tallies = static_cast<Tally *>(shared);

    daemon.start({}, kLog, "info");
    if (!comes_true([] { return blocks_handed_out() >= 20; }, 60000)) return 2;
    const uint64_t blocks = blocks_handed_out();
    std::vector<pid_t> children;
    for (size_t i = 0; i < clients; ++i) {
        const uint64_t seed = triggers.below(1U << 30);
        const pid_t child = fork();
        if (child == 0) {
            ask_without_pause(&tallies[i], seed, seconds);
            _exit(0);
        }
        children.push_back(child);
    }
    for (const auto begin = Clock::now(); ms_since(begin) < seconds * 1000;) {
        triggers.fire(triggers.below(2) == 0 ? Triggers::kFault : Triggers::kHistory);
        pause_ms(triggers.between(100, 500));
        if (triggers.count[Triggers::kFault] % 20 == 19) sweep();
    }
    const bool alive = daemon.alive();
    const uint64_t read = blocks_handed_out() - blocks;
    for (const pid_t child : children) waitpid(child, nullptr, 0);

    static Tally all;
    std::vector<uint32_t> us;
    for (size_t i = 0; i < clients; ++i) {
        const Tally &one = tallies[i];
        for (uint64_t Tally::*figure :
             {&Tally::answered, &Tally::timed_out, &Tally::nobody, &Tally::other, &Tally::late, &Tally::out_of_range,
              &Tally::inconsistent, &Tally::misdirected}) {
            all.*figure += one.*figure;
        }
        us.insert(us.end(), one.us, one.us + one.kept);
        if (one.out_of_range + one.inconsistent > 0) all.first_wrong = one.first_wrong;
    }
    std::sort(us.begin(), us.end());
    const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf("%-44s %zu for %.0f s; meanwhile %llu blocks of 128 KiB, %d dumps, %d fills\n", "clients at once",
                clients, seconds, number(read), triggers.count[Triggers::kFault], triggers.count[Triggers::kHistory]);
    std::printf("%-44s answered %llu, timed out %llu, no daemon %llu, other %llu, late %llu\n",
                "questions (time-out 2 s)", number(all.answered), number(all.timed_out), number(all.nobody),
                number(all.other), number(all.late));
    std::printf("%-44s for another vital %llu, out of range %llu, inconsistent %llu\n", "wrong answers",
                number(all.misdirected), number(all.out_of_range), number(all.inconsistent));
    std::printf("%-44s median %.1f, p90 %.1f, p99 %.1f, p99.9 %.1f, longest %.1f ms\n", "from question to answer",
                at_share(us, 0.5) / 1e3, at_share(us, 0.9) / 1e3, at_share(us, 0.99) / 1e3, at_share(us, 0.999) / 1e3,
                us.empty() ? 0.0 : us.back() / 1e3);
    const vestra_api_data &wrong = all.first_wrong;
    if (all.out_of_range + all.inconsistent > 0) {
        std::printf("for example vital %d, window %d: maximum %g, minimum %g, average %g, variance %g\n",
                    wrong.packet_type, wrong.window, wrong.maximum, wrong.minimum, wrong.average, wrong.variance);
    }
    const bool passed = alive && all.answered > 0 &&
                        all.nobody + all.other + all.late + all.out_of_range + all.inconsistent + all.misdirected == 0;
    std::printf("%s\n", passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
