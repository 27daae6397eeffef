// Loads the guest of an emulated machine, and strains the control node. See the scenarios in machine/guest/.
//
//   strain pingpong N [PER_TURN PAUSE_US]  N round trips between two processes on CPU 0, which are 2 N context switches,
//                                          with a pause after each PER_TURN; prints the ns of a switch
//   strain crowd N                         N processes that wait until this one is killed; prints how many there are
//   strain swarm N SPARE                   the same, with the memory of this one, so that there is room for more. Ends SPARE of
//                                          them again if there is no room for all; prints how many are left, and why
//   strain names SECONDS                   a process that changes its name all the time, to any bytes
//   strain spin MS                         works that long
//   strain restless                        works most of the time, and sleeps for a moment a thousand times a second
//   strain threads                         lets one thread after the other work for a while and end
//   strain swapped MIB DISK                has so much swapped out, and reads from the disk all the time
//   strain look FILE...                    prints files, each between two lines of its name and the clock's nanoseconds
//   strain measured FILE COMMAND...        runs a command; writes its largest memory and its CPU time into the file
//   strain fuzz SECONDS SEED               writes commands, nearly commands and noise into the node; prints how many
//                                          were taken and refused; fails if an answer is neither
//   strain read SECONDS SEED               reads the node with buffers of any size until it is gone; prints how many frames and
//                                          blocks it got; fails if an answer is not whole frames and the empty one
//   strain watch                           watches the node with epoll until it has been gone for two seconds
#include <fcntl.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
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
#include <thread>
#include <vector>

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

int wait_in_swarm(void * /*unused*/) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
}

int swarm(long count, long spare) {
    constexpr size_t kStack = 2048;  // bytes; nothing but pause runs there
    std::vector<char> stacks(static_cast<size_t>(count) * kStack);
    std::vector<pid_t> made;
    std::signal(SIGCHLD, SIG_IGN);  // those that are ended leave nothing
    while (static_cast<long>(made.size()) < count) {
        char *end = stacks.data() + (made.size() + 1) * kStack;
        end -= reinterpret_cast<uintptr_t>(end) % 16;
        const pid_t child =
            clone(wait_in_swarm, end, CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | SIGCHLD, nullptr);
        if (child < 0) break;
        made.push_back(child);
    }
    const char *reason = static_cast<long>(made.size()) < count ? std::strerror(errno) : "all";
    for (; spare > 0 && !made.empty(); --spare, made.pop_back()) kill(made.back(), SIGKILL);
    std::printf("%zu %s\n", made.size(), reason);
    std::fflush(stdout);
    for (;;) pause();
}

int spin(int64_t milliseconds) {
    const int64_t end = now_ns() + milliseconds * 1'000'000;
    while (now_ns() < end) {
    }
    return 0;
}

int restless() {
    for (;; usleep(1)) {
        const int64_t end = now_ns() + 300'000;
        while (now_ns() < end) {
        }
    }
}

int threads() {
    for (;; usleep(20'000)) std::thread([] { spin(5); }).join();
}

int swapped(size_t mib, const char *disk) {
    constexpr size_t kPage = 4096;
    const size_t size = mib << 20;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const int file = open(disk, O_RDONLY | O_DIRECT | O_CLOEXEC);
    if (memory == MAP_FAILED || file < 0) return fail(disk);
    auto *bytes = static_cast<volatile unsigned char *>(memory);
    for (size_t at = 0; at < size; at += kPage) bytes[at] = 1;
    if (madvise(memory, size, MADV_PAGEOUT) != 0) return fail("MADV_PAGEOUT");
    alignas(kPage) std::array<char, kPage> page{};
    while (read(file, page.data(), page.size()) > 0) usleep(50'000);
    return fail(disk);
}

int look(int count, char **paths) {
    std::array<char, 16384> text{};  // more than any of the files has here
    for (int i = 0; i < count; ++i) {
        const int64_t before = now_ns();
        const int file = open(paths[i], O_RDONLY | O_CLOEXEC);
        const ssize_t size = file < 0 ? -1 : read(file, text.data(), text.size());
        const int64_t after = now_ns();
        if (size < 0) return fail(paths[i]);
        close(file);
        std::printf("%s %lld\n", paths[i], static_cast<long long>(before));
        std::fwrite(text.data(), 1, static_cast<size_t>(size), stdout);
        std::printf("%s %lld\n", paths[i], static_cast<long long>(after));
    }
    return 0;
}

int measured(const char *path, char **command) {
    const pid_t child = fork();
    if (child < 0) return fail("fork");
    if (child == 0) {
        execvp(command[0], command);
        _exit(127);
    }
    int status = 0;
    rusage used{};
    if (wait4(child, &status, 0, &used) != child) return fail(command[0]);
    std::FILE *file = std::fopen(path, "we");
    if (file == nullptr) return fail(path);
    const auto microseconds = [](const timeval &time) {
        return static_cast<long long>(time.tv_sec) * 1'000'000 + time.tv_usec;
    };
    std::fprintf(file, "resident_kib %ld\ncpu_us %lld\n", used.ru_maxrss,
                 microseconds(used.ru_utime) + microseconds(used.ru_stime));
    std::fclose(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
    // Tracing is switched seldom, because that takes as long as a thousand of the others.
    static constexpr std::string_view kSwitches[] = {"0", "1"};
    static constexpr std::string_view kCommands[] = {
        "c-0-4-57",        "c-1-4-1",   "c-2-4-2", "c-3-4-3",  "c-4-4-4",
        "c-5-9-1|0|3|0|5", "c-6-3-cat", "c-6-0-",  "c-0-4--5", "c-5-15-1|2|3|4|99999"};
    const auto below = [&](size_t limit) { return static_cast<size_t>((*random)() % limit); };
    std::string text(below(50) == 0 ? kSwitches[below(std::size(kSwitches))] : kCommands[below(std::size(kCommands))]);
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

// True if the bytes are records, of which the last is the empty one; counts the others.
bool is_block(const unsigned char *bytes, size_t size, long *frames) {
    size_t at = 0;
    while (size - at >= 4) {
        uint32_t length = 0;
        for (size_t i = 0; i < 4; ++i) length |= static_cast<uint32_t>(bytes[at + i]) << (8 * i);
        at += 4;
        if (length == 0) return at == size;
        if (length > size - at) return false;
        at += length;
        ++*frames;
    }
    return false;
}

int read_node(int64_t seconds, unsigned seed) {
    constexpr size_t kBlockMost = 131072;
    constexpr size_t kFrameMost = 2500;  // bytes, about; buffers without room for that may be refused
    constexpr unsigned char kUntouched = 0xee;
    std::mt19937 random(seed);
    std::vector<unsigned char> bytes(2 * kBlockMost + 1);
    const int node = open(kNode, O_RDONLY | O_CLOEXEC);
    if (node < 0) return errno == ENOENT ? 0 : fail(kNode);
    const int64_t end = now_ns() + seconds * 1'000'000'000;
    long frames = 0;
    long blocks = 0;
    while (now_ns() < end) {
        const size_t room = random() % (random() % 2 == 0 ? 2 * kFrameMost : 2 * kBlockMost);
        bytes[room] = kUntouched;
        const ssize_t size = read(node, bytes.data(), room);
        if (size < 0 && (errno == ENODEV || errno == EIO)) break;
        if (size < 0 && errno == EINVAL && room < kFrameMost) continue;
        const long before = frames;
        if (size <= 0 || static_cast<size_t>(size) > kBlockMost || bytes[room] != kUntouched ||
            !is_block(bytes.data(), static_cast<size_t>(size), &frames)) {
            std::fprintf(stderr, "read %zd of %zu bytes (%s)\n", size, room, std::strerror(errno));
            return 1;
        }
        blocks += frames > before ? 1 : 0;
    }
    std::printf("frames_read %ld\nblocks %ld\n", frames, blocks);
    return 0;
}

int watch() {
    const int node = open(kNode, O_RDONLY | O_CLOEXEC);
    const int watching = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    if (node < 0 || watching < 0 || epoll_ctl(watching, EPOLL_CTL_ADD, node, &event) != 0) return fail(kNode);
    std::puts("watching");
    std::fflush(stdout);
    while (access(kNode, F_OK) == 0) usleep(100'000);
    sleep(2);
    return close(watching);
}

}  // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    const auto number = [&](int i, long otherwise) { return argc > i ? std::strtol(argv[i], nullptr, 10) : otherwise; };
    if (what == "pingpong") return pingpong(number(2, 1), number(3, number(2, 1)), number(4, 0));
    if (what == "crowd") return crowd(number(2, 1));
    if (what == "swarm") return swarm(number(2, 1), number(3, 0));
    if (what == "spin") return spin(number(2, 1));
    if (what == "restless") return restless();
    if (what == "threads") return threads();
    if (what == "swapped" && argc > 3) return swapped(static_cast<size_t>(number(2, 1)), argv[3]);
    if (what == "look") return look(argc - 2, argv + 2);
    if (what == "measured" && argc > 3) return measured(argv[2], argv + 3);
    if (what == "names") return names(number(2, 1));
    if (what == "fuzz") return fuzz(number(2, 1), static_cast<unsigned>(number(3, 1)));
    if (what == "read") return read_node(number(2, 1), static_cast<unsigned>(number(3, 1)));
    if (what == "watch") return watch();
    std::fputs(
        "usage: strain pingpong|crowd|swarm|spin|restless|threads|swapped|look|measured|names|fuzz|read|watch "
        "ARGUMENT...\n",
        stderr);
    return 2;
}
