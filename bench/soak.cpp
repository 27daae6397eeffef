// An hour of stream time at the highest rate, with triggers firing at random. scripts/soak starts the set for it.
//
//   soak SECONDS_OF_STREAM_TIME SECONDS_IN_A_BLOCK SEED VESTRAD
//
// Compares memory, descriptors and threads between the first and the last third of the time during which the chain is
// full. Frames are counted twice: by the module when it hands them out, and here when the daemon walks them. The daemon
// logs each frame at debug level into a pipe that is read here, also those that it refuses or does not reach.

#include <sys/stat.h>

#include <atomic>
#include <map>
#include <thread>

#include "bench/rig.h"

namespace {

using namespace rig;

constexpr char kLogPipe[] = "/tmp/log.pipe";
constexpr uint64_t kChainBytes = 4U << 20;
constexpr long kFlatKib = 256;  // allowed growth of the median of resident memory
constexpr double kSampleMs = 500;

struct Counted {
    std::atomic<uint64_t> walked{0}, refused{0}, unreached{0}, errors{0}, dumps{0};
} counted;

// Runs until the daemon, the only writer, has ended.
void count_log() {
    FILE *log = fopen(kLogPipe, "re");
    char *line = nullptr;
    size_t size = 0;
    while (log != nullptr && getline(&line, &size, log) > 0) {
        if (strstr(line, "vestra : frame_len ") != nullptr) ++counted.walked;
        if (strstr(line, "Corrupted frame") != nullptr || strstr(line, "Invalid core id") != nullptr) ++counted.refused;
        if (strstr(line, "Invalid frame_len") != nullptr || strstr(line, "No more data") != nullptr)
            ++counted.unreached;
        if (strstr(line, "writefile exit [success]") != nullptr) ++counted.dumps;
        if (strstr(line, " failed") != nullptr && strstr(line, "remove failed") == nullptr) ++counted.errors;
    }
    free(line);
    if (log != nullptr) fclose(log);
}

struct Sample {
    double seconds;  // of stream time
    long rss, descriptors, threads;
};

Sample look_at(pid_t pid, double seconds) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const auto figure = [&](const char *name) {
        const size_t at = status.find(name);
        return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + strlen(name), nullptr, 10);
    };
    std::error_code none;
    const fs::directory_iterator open("/proc/" + std::to_string(pid) + "/fd", none);
    return {seconds, figure("VmRSS:"), static_cast<long>(std::distance(open, fs::directory_iterator())),
            figure("Threads:")};
}

long lowest(std::vector<Sample>::const_iterator begin, std::vector<Sample>::const_iterator end, long Sample::*figure) {
    const auto least =
        std::min_element(begin, end, [&](const Sample &a, const Sample &b) { return a.*figure < b.*figure; });
    return least == end ? 0 : (*least).*figure;
}

long median(std::vector<Sample>::const_iterator begin, std::vector<Sample>::const_iterator end, long Sample::*figure) {
    std::vector<long> figures;
    for (; begin != end; ++begin) figures.push_back((*begin).*figure);
    std::sort(figures.begin(), figures.end());
    return at_share(figures, 0.5);
}

uint64_t frames_handed_out() {
    uint64_t frames = 0;
    const nlohmann::json status = module();
    for (const auto &[type, count] : status["frames"].items()) frames += count.get<uint64_t>();
    return frames;
}

void print(const Sample &sample) {
    std::printf("%10.0f %12ld %12ld %8ld\n", sample.seconds, sample.rss, sample.descriptors, sample.threads);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) return 64;
    const double target = std::atof(argv[1]), in_a_block = std::atof(argv[2]);
    Triggers triggers(std::strtoull(argv[3], nullptr, 10));
    Daemon daemon(argv[4]);
    make_rooms();
    mkfifo(kLogPipe, 0600);
    std::thread reader(count_log);
    daemon.start({"4", "1"}, kLogPipe, "debug");

    const auto begin = Clock::now();
    std::vector<Sample> full;  // samples since the chain is full
    uint64_t blocks = 0, samples = 0;
    double next_trigger = 0;
    std::printf("%10s %12s %12s %8s\n", "stream s", "resident KiB", "descriptors", "threads");
    while (static_cast<double>(blocks) * in_a_block < target && daemon.alive()) {
        if (ms_since(begin) > next_trigger) {
            triggers.fire(static_cast<Triggers::Kind>(triggers.below(Triggers::kKinds)));
            next_trigger = ms_since(begin) + triggers.between(50, 2000);
            // The stick cannot hold an hour of dumps.
            if (triggers.below(20) == 0) sweep();
        }
        pause_ms(kSampleMs);
        blocks = blocks_handed_out();
        const Sample sample = look_at(daemon.pid(), static_cast<double>(blocks) * in_a_block);
        if (blocks * 131072 > kChainBytes + kChainBytes / 4) full.push_back(sample);
        if (samples++ % 60 == 0) print(sample);
    }
    const double minutes = ms_since(begin) / 60000;
    const bool alive = daemon.alive() && hand_out_nothing_more();
    const uint64_t handed_out = frames_handed_out();
    const bool counted_all = comes_true([&] { return counted.walked + counted.unreached >= handed_out; }, 10000);
    daemon.kill_now();
    reader.join();

    const auto third = static_cast<std::ptrdiff_t>(full.size() / 3);
    const long rss =
        median(full.end() - third, full.end(), &Sample::rss) - median(full.begin(), full.begin() + third, &Sample::rss);
    // An unfinished dump has descriptors open, so the lowest counts are compared.
    const auto growth = [&](long Sample::*figure) {
        return lowest(full.end() - third, full.end(), figure) - lowest(full.begin(), full.begin() + third, figure);
    };
    const long descriptors = growth(&Sample::descriptors), threads = growth(&Sample::threads);
    std::printf("%-44s %.0f s in %.1f minutes, %llu blocks of 128 KiB\n", "stream time",
                static_cast<double>(blocks) * in_a_block, minutes, static_cast<unsigned long long>(blocks));
    std::printf("%-44s keys %d, faults %d, history %d, DOD %d, lists %d\n", "triggers", triggers.count[0],
                triggers.count[1], triggers.count[2], triggers.count[3], triggers.count[4]);
    std::printf("%-44s %llu; log lines with \" failed\" %llu\n", "dumps written",
                static_cast<unsigned long long>(counted.dumps), static_cast<unsigned long long>(counted.errors));
    std::printf("%-44s %+ld KiB, %+ld, %+ld\n", "growth of memory, descriptors, threads", rss, descriptors, threads);
    std::printf("%-44s %llu handed out, %llu walked (%llu of these refused), %llu not reached\n", "frames",
                static_cast<unsigned long long>(handed_out), static_cast<unsigned long long>(counted.walked),
                static_cast<unsigned long long>(counted.refused), static_cast<unsigned long long>(counted.unreached));
    const bool passed = alive && counted_all && third > 0 && rss <= kFlatKib && descriptors <= 0 && threads <= 0 &&
                        counted.walked + counted.unreached == handed_out && counted.dumps > 0;
    std::printf("%s\n", passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
