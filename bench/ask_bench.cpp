// How long a client waits for the running daemon's answer, each kind of question asked some thousand times.
//
//   ask_bench [QUESTIONS]      within a set; bench/ask_latency makes one

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/vestra_api.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTimeoutMs = 10000;
constexpr useconds_t kPauseUs = 1000;  // between questions, so that the daemon has gone to sleep again

struct Kind {
    int vitals;
    int window;
};
constexpr Kind kKinds[] = {{1, 0}, {1, 60}, {17, 0}, {17, 60}, {17, 180}};

double microseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

// Asks and prints a line; false when there is no answer.
bool measure(vestra_api_h client, const Kind &kind, size_t questions) {
    std::vector<double> waits;
    for (size_t i = 0; i < questions; ++i) {
        vestra_api_data requests[kVestraVitals] = {};
        for (int type = 0; type < kind.vitals; ++type) {
            requests[type].packet_type = type;
            requests[type].window = kind.window;
        }
        usleep(kPauseUs);
        const auto begin = Clock::now();
        const int result = vestra_api_ask(client, requests, kind.vitals, kTimeoutMs);
        waits.push_back(microseconds(Clock::now() - begin));
        if (result == VESTRA_API_OK) continue;
        std::fprintf(stderr, "ask_bench: %s\n", vestra_api_result_text(result));
        return false;
    }
    std::sort(waits.begin(), waits.end());
    std::printf("%6d %8d %10.1f %10.1f %10.1f\n", kind.vitals, kind.window, waits[waits.size() / 2],
                waits[waits.size() * 99 / 100], waits.back());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    const long questions = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 2000;
    if (questions < 1) return 64;
    const vestra_api_h client = vestra_api_open();
    std::printf("%6s %8s %10s %10s %10s   us, of %ld questions\n", "vitals", "window", "median", "p99", "longest",
                questions);
    const bool answered = std::all_of(std::begin(kKinds), std::end(kKinds), [&](const Kind &kind) {
        return measure(client, kind, static_cast<size_t>(questions));
    });
    vestra_api_close(client);
    return answered ? 0 : 1;
}
