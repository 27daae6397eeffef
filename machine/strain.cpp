// Loads the guest of an emulated machine, and strains the control node. See the scenarios in machine/guest/.
//
//   strain pingpong N [PER_TURN PAUSE_US]  N round trips between two processes on CPU 0, which are 2 N context switches,
//                                          with a pause after each PER_TURN; prints the ns of a switch
//   strain crowd N                         N processes that wait until this one is killed; prints how many there are
//   strain names SECONDS                   a process that changes its name all the time, to any bytes
//   strain fuzz SECONDS SEED               writes commands, nearly commands and noise into the node; prints how many
//                                          were taken and refused; fails if an answer is neither
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <string_view>

namespace {

constexpr const char *kNode = "/proc/vesertra_info";

int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

int fail(const char *what) {
    std::perror(what);
    return 1;
}

int pingpong(long count, long per_turn, long pause_us) {
    std::array<int, 2> there{};
    std::array<int, 2> back{};
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    if (sched_setaffinity(0, sizeof first, &first) != 0) return fail("CPU 0");
    if (pipe2(there.data(), O_CLOEXEC) != 0 || pipe2(back.data(), O_CLOEXEC) != 0) return fail("pipe");
    char byte = 0;
    const pid_t other = fork();
    if (other < 0) return fail("fork");
    if (other == 0) {
        close(there[1]);
        while (read(there[0], &byte, 1) == 1 && write(back[1], &byte, 1) == 1) {
        }
        _exit(0);
    }
    int64_t busy = 0;
    for (long i = 0; i < count;) {
        const int64_t begin = now_ns();
        for (long turn = 0; turn < per_turn && i < count; ++turn, ++i) {
            if (write(there[1], &byte, 1) != 1 || read(back[0], &byte, 1) != 1) return fail("pipe");
        }
        busy += now_ns() - begin;
        if (pause_us > 0) usleep(static_cast<useconds_t>(pause_us));
    }
    close(there[1]);
    waitpid(other, nullptr, 0);
    std::printf("%.1f\n", static_cast<double>(busy) / static_cast<double>(2 * count));
    return 0;
}

int crowd(long count) {
    long made = 0;
    for (; made < count; ++made) {
        const pid_t child = fork();
        if (child < 0) break;
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) pause();
        }
    }
    std::printf("%ld\n", made);
    std::fflush(stdout);
    for (;;) pause();
}

int names(int64_t seconds) {
    std::mt19937 random(static_cast<unsigned>(now_ns()));
    const int64_t end = now_ns() + seconds * 1'000'000'000;
    while (now_ns() < end) {
        std::array<char, 16> name{};
        for (char &byte : name) byte = static_cast<char>(random());
        prctl(PR_SET_NAME, name.data());
    }
    return 0;
}

// A command, possibly with something wrong.
std::string command(std::mt19937 *random) {
    static constexpr std::string_view kCommands[] = {"0",         "1",       "c-0-4-57", "c-1-4-1",
                                                     "c-2-4-2",   "c-3-4-3", "c-4-4-4",  "c-5-9-1|0|3|0|5",
                                                     "c-6-3-cat", "c-6-0-",  "c-0-4--5", "c-5-15-1|2|3|4|99999"};
    const auto below = [&](size_t limit) { return static_cast<size_t>((*random)() % limit); };
    std::string text(kCommands[below(std::size(kCommands))]);
    const size_t changes = below(4);
    for (size_t i = 0; i < changes; ++i) {
        const size_t place = below(text.size() + 1);
        const auto byte = static_cast<char>((*random)());
        switch (below(4)) {
            case 0:
                text.insert(place, 1, byte);
                break;
            case 1:
                if (place < text.size()) text[place] = byte;
                break;
            case 2:
                text.resize(place);
                break;
            default:
                text.append(below(600), byte);
        }
    }
    return text;
}

int fuzz(int64_t seconds, unsigned seed) {
    std::mt19937 random(seed);
    const int node = open(kNode, O_WRONLY | O_CLOEXEC);
    if (node < 0) return fail(kNode);
    const int64_t end = now_ns() + seconds * 1'000'000'000;
    long taken = 0;
    long refused = 0;
    while (now_ns() < end) {
        const std::string text = command(&random);
        const ssize_t result = write(node, text.data(), text.size());
        if (result == static_cast<ssize_t>(text.size()) && !text.empty()) {
            ++taken;
        } else if (result < 0 && errno == EINVAL) {
            ++refused;
        } else {
            std::fprintf(stderr, "%zd for %zu bytes (%s)\n", result, text.size(), std::strerror(errno));
            return 1;
        }
    }
    std::printf("taken %ld\nrefused %ld\n", taken, refused);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    const auto number = [&](int i, long otherwise) { return argc > i ? std::strtol(argv[i], nullptr, 10) : otherwise; };
    if (what == "pingpong") return pingpong(number(2, 1), number(3, number(2, 1)), number(4, 0));
    if (what == "crowd") return crowd(number(2, 1));
    if (what == "names") return names(number(2, 1));
    if (what == "fuzz") return fuzz(number(2, 1), static_cast<unsigned>(number(3, 1)));
    std::fputs("usage: strain pingpong|crowd|names|fuzz NUMBER...\n", stderr);
    return 2;
}
