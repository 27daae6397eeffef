// Time from starting the daemon to the first block that it reads, compared with starting a program that
// does nothing and waiting for its end. Runs in a set with a control node and a stick; without a stick
// the daemon would wait for one:
//
//   vestra-set sandbox --node --source synthetic --usb STICK:1M -- start_bench VESTRAD --benchmark_repetitions=9

#include <benchmark/benchmark.h>

#include "bench/rig.h"

namespace {

using namespace rig;

const char *g_vestrad = nullptr;

// Measures the time until `done` returns true.
template <class Done>
void run(benchmark::State &state, const char *program, Done done) {
    for (auto unused : state) {
        (void)unused;
        Daemon daemon(program);
        const auto begin = Clock::now();
        daemon.start({}, kLog, "error");
        while (!done(daemon)) {
            pause_ms(0.05);  // leaves the CPU to the daemon
            if (ms_since(begin) < 20000) continue;
            state.SkipWithError("not reached within 20 s");
            return;
        }
        state.SetIterationTime(ms_since(begin) / 1000);
    }
}

void FirstBlock(benchmark::State &state) {
    uint64_t before = blocks_handed_out();
    run(state, g_vestrad, [&](const Daemon & /*daemon*/) {
        const uint64_t now = blocks_handed_out();
        if (now == before) return false;
        before = now;
        return true;
    });
}
void EmptyProgram(benchmark::State &state) {
    run(state, "/bin/true", [](const Daemon &daemon) { return !daemon.alive(); });
}

BENCHMARK(FirstBlock)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(EmptyProgram)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 2) return 64;
    g_vestrad = argv[1];
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
