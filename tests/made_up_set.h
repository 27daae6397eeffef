// A made-up set, second by second, for the tests that compare what is derived from its messages.
#pragma once

#include <array>
#include <random>
#include <string>
#include <vector>

#include "decoder_support.h"

namespace decoder_test {

// Processes that come, run and rest, some with process ids that share a place in the history; cores that work; seconds
// with a single sample; messages that are repeated or up to `late_max` ns late; memory figures that are up to half a
// second early.
class MadeUpSet {
  public:
    explicit MadeUpSet(unsigned seed, uint64_t late_max = 5 * kSecond) : random_(seed), late_max_(late_max) {
        for (size_t i = 0; i < kProcesses; ++i) {
            names_[i] = "proc-" + std::to_string(i) + "-of-many";
            processes_[i] = sample(0, 300 + i / 2 * 7 + i % 2 * 32768, names_[i]);
            processes_[i].swap = i % 5 == 0 ? 0 : i;
            processes_[i].rss = 1 + random_() % 100000;
        }
    }

    // Makes a block with the messages of one second in several frames, has the daemon decode it and returns it. `seen` is
    // called with each message.
    template <class Seen>
    Bytes decode_second(int64_t second, const Seen &seen) {
        const bool glitch = random_() % 9 == 0;  // 80 percent, exactly if both seconds have one sample
        std::array<trace::CoreTimes, 4> passed;  // in this second
        for (size_t i = 0; i < passed.size(); ++i) {
            const uint64_t iowait = glitch ? 200 : random_() % 17 == 0 ? 500 : random_() % 20;
            passed[i] = {random_() % 120, random_() % 60, 40, 0, iowait};
            cores_[i].temperature = random_() % 60 - uint64_t{30};
        }
        // The counters after a part of the second.
        const auto counters = [&](size_t part, size_t parts) {
            auto cores = cores_;
            for (size_t i = 0; i < cores.size(); ++i) {
                cores[i].user += passed[i].user * part / parts;
                cores[i].system += passed[i].system * part / parts;
                cores[i].idle += passed[i].idle * part / parts;
                cores[i].iowait += passed[i].iowait * part / parts;
            }
            return cores;
        };
        std::vector<Bytes> frames;
        const size_t messages = random_() % 2 == 0 ? 1 : 100 + random_() % 200;
        for (size_t i = 0; i < messages; ++i) {
            const uint64_t now = static_cast<uint64_t>(second * kSecond) + i * (kSecond / messages);
            if (i % 50 == 0) frames.push_back(memory(now, seen));
            const size_t chosen = messages == 1 ? 1 + static_cast<size_t>(second) / 4 % 2 : random_() % kProcesses;
            trace::SwitchMessage message = processes_[chosen];
            message.time_ns = now;
            if (late_max_ > 0 && i > 0 && random_() % 40 == 0 && second > 20) message.time_ns -= random_() % late_max_;
            if (i > 0 && random_() % 40 == 0) message = last_;  // repeated
            message.cores = counters(i, messages);
            message.element1 = random_();
            message.element10 = random_() % 3000;
            message.element11 = random_() % 900;
            processes_[chosen].cpu_a += random_() % 30;
            processes_[chosen].cpu_b -= random_() % 3;
            last_ = message;
            seen(message);
            frames.push_back(frame(trace::kSwitchFrame, message));
        }
        cores_ = counters(1, 1);
        Bytes bytes = block(frames);
        EXPECT_NE(decode_block(bytes), -1);
        return bytes;
    }

  private:
    static constexpr size_t kProcesses = 400;

    template <class Seen>
    Bytes memory(uint64_t now, const Seen &seen) {
        trace::MeminfoMessage message;
        message.time_ns = now + random_() % (kSecond / 2);
        message.name = "meminfo";
        for (trace::Decimal &figure : message.decimal) figure = {random_() % 100, random_() % 2000};
        for (uint64_t *figure : {&message.figure13, &message.figure16}) *figure = random_();
        message.figure17 = random_() % 7;
        seen(message);
        return frame(trace::kMeminfoFrame, message);
    }

    std::mt19937 random_;
    const uint64_t late_max_;
    std::array<std::string, kProcesses> names_;
    std::array<trace::SwitchMessage, kProcesses> processes_;
    std::array<trace::CoreTimes, 4> cores_{};
    trace::SwitchMessage last_;
};

}  // namespace decoder_test
