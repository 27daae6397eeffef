// Minutes of a set's life, decoded from frames, beside a second way to the same figures: ring, derived percentages,
// peak average, CPU history, memory list and window statistics are worked out here from the messages themselves, by
// code that shares nothing with the daemon.

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <map>
#include <random>

#include "decoder_support.h"

using namespace decoder_test;
using vestra_set::InfoMessage;
using vestra_set::SwitchMessage;

namespace {

struct Second {
    int64_t time = 0;
    bool has_switch = false, has_memory = false;
    SwitchMessage message;
    std::array<double, 17> vitals{};
};

struct Known {
    int64_t time, a, b;
    double total, percent_a, percent_b;
};

// What the daemon should hold, in the plainest words.
struct Model {
    std::map<int64_t, Second> seconds;  // by second modulo 180
    int64_t head = -1, newest = -1;     // second of the head; time of the sample that moved it last
    std::vector<double> totals;         // every total percentage ever computed, in order
    double peak = 0;
    std::map<uint64_t, Known> known;  // by pid
    std::deque<ListEntry> list;       // newest first
    size_t charge = 0;

    Second &touch(uint64_t time) {
        Second &second = seconds[static_cast<int64_t>(time) / kSecond % 180];
        if (static_cast<int64_t>(time) - second.time > 8 * kSecond) second.has_switch = second.has_memory = false;
        second.time = static_cast<int64_t>(time);
        return second;
    }

    // The seconds of the run, oldest first.
    std::vector<Second *> run() {
        std::vector<Second *> found;
        for (int64_t slot = head % 180; found.size() < 180; slot = (slot + 179) % 180) {
            const auto second = seconds.find(slot);
            if (second == seconds.end() || !second->second.has_switch) break;
            found.push_back(&second->second);
        }
        std::reverse(found.begin(), found.end());
        return found;
    }

    static double sum(const Second &second, uint64_t vestra_set::CoreTimes::*figure) {
        double all = 0;
        for (const auto &core : second.message.cores) all += static_cast<double>(core.*figure);
        return all;
    }

    void derive() {
        using Times = vestra_set::CoreTimes;
        double iowait_before = 0;
        const std::vector<Second *> seconds_of_run = run();
        for (size_t i = 0; i < seconds_of_run.size(); ++i) {
            Second &now = *seconds_of_run[i];
            for (size_t core = 0; core < 4; ++core) {
                now.vitals[5 + core] = static_cast<double>(now.message.cores[core].temperature);
            }
            if (i == 0) continue;
            const Second &before = *seconds_of_run[i - 1];
            double apart = 1;
            if (i > 1)
                apart =
                    std::fabs(static_cast<double>(now.message.time_ns) - static_cast<double>(before.message.time_ns)) /
                    1e9;
            const auto percent = [&](double ticks) { return std::fabs(ticks * 100 / (apart * 1000)); };
            const double user = sum(now, &Times::user) - sum(before, &Times::user);
            const double system = sum(now, &Times::system) - sum(before, &Times::system);
            now.vitals[2] = percent(user + system);
            now.vitals[3] = percent(system);
            now.vitals[4] = percent(user);
            now.vitals[9] = std::trunc(sum(now, &Times::temperature) / 4);
            const double iowait = percent(sum(now, &Times::iowait) - sum(before, &Times::iowait));
            if (iowait < 80) iowait_before = iowait;
            now.vitals[10] = iowait_before;
            totals.push_back(now.vitals[2]);
            // The average of the newest 500, in the order in which they lie in a ring.
            double all = 0;
            const size_t count = totals.size(), held = std::min<size_t>(count, 500);
            for (size_t place = 0; place < held; ++place) {
                all += totals[place + (count - 1 - place) / 500 * 500];
            }
            peak = std::max(peak, all / static_cast<double>(held));
        }
    }

    void add(const SwitchMessage &message) {
        const auto time = static_cast<int64_t>(message.time_ns);
        if (message.rss != 0 && message.swap != 0) account(message, time);
        Second &second = touch(message.time_ns);
        second.has_switch = true;
        second.message = message;
        second.vitals[0] = static_cast<double>(message.element10);
        second.vitals[1] = static_cast<double>(message.element11);
        if (newest != -1 && (time / kSecond == head || time <= newest)) return;
        const bool first = newest == -1;
        newest = time;
        head = time / kSecond;
        if (!first) derive();
    }

    void account(const SwitchMessage &message, int64_t time) {
        const auto a = static_cast<int64_t>(message.cpu_a), b = static_cast<int64_t>(message.cpu_b);
        const auto found = known.find(message.pid);
        if (found == known.end()) {
            known[message.pid] = {time, a, b, 0, 0, 0};
        } else if (update(&found->second, time, a, b)) {
            found->second.time = time;
            found->second.a = a;
            found->second.b = b;
        }
        const std::string name(message.name.substr(0, 14));
        list.push_front({std::to_string(time), static_cast<int32_t>(message.pid), name,
                         static_cast<int32_t>(message.rss), static_cast<int32_t>(message.swap),
                         known[message.pid].total});
        const auto charge_of = [](const ListEntry &entry) { return 20 + entry.timestamp.size() + entry.name.size(); };
        charge += charge_of(list.front());
        for (; charge > 204800; list.pop_back()) charge -= charge_of(list.back());
    }

    static bool update(Known *process, int64_t time, int64_t a, int64_t b) {
        if (time - process->time <= kSecond || (a == process->a && b == process->b)) return false;
        const double ticks = static_cast<double>(time - process->time) / 1e9 * 1000;
        process->percent_a = std::fabs(static_cast<double>(a - process->a) * 100 / ticks);
        process->percent_b = std::fabs(static_cast<double>(b - process->b) * 100 / ticks);
        process->total = std::fabs(static_cast<double>(a + b - process->a - process->b) * 100 / ticks);
        return true;
    }

    void add(const InfoMessage &message) {
        Second &second = touch(message.time_ns);
        second.has_memory = true;
        for (size_t i = 0; i < 3; ++i) {
            const vestra_set::Decimal &figure = message.decimal[i];
            second.vitals[11 + i] = std::stod(std::to_string(figure.integer) + "." + std::to_string(figure.fraction));
        }
        second.vitals[14] = static_cast<double>(message.figure13);
        second.vitals[15] = static_cast<double>(message.figure16);
        second.vitals[16] = static_cast<double>(message.figure17);
        // Counters of process and cores stay those of the second's switch sample.
    }
};

// A set: processes that come, run and rest; cores that work; seconds without samples; messages that come late.
class Life {
  public:
    explicit Life(unsigned seed) : random_(seed) {
        for (size_t i = 0; i < kProcesses; ++i) {
            processes_[i] = sample(0, 300 + i * 7, names_[i] = "proc-" + std::to_string(i) + "-with-tail");
            processes_[i].swap = i % 5 == 0 ? 0 : i;
            processes_[i].rss = 1 + random_() % 100000;
        }
    }

    // One second's messages in blocks of several frames, given to the daemon and to the model.
    void live(int64_t second, Model *model) {
        for (auto &core : cores_) {
            core.user += random_() % 120;
            core.system += random_() % 60;
            core.idle += 40;
            core.temperature = 40 + random_() % 30;
            core.iowait += random_() % 17 == 0 ? 500 : random_() % 20;
        }
        std::vector<Bytes> frames;
        const size_t messages = 100 + random_() % 200;
        for (size_t i = 0; i < messages; ++i) {
            SwitchMessage message = processes_[random_() % kProcesses];
            message.time_ns = static_cast<uint64_t>(second * kSecond) + i * (kSecond / messages);
            if (random_() % 40 == 0 && second > 20) message.time_ns -= (1 + random_() % 4) * kSecond;
            if (random_() % 40 == 0) message = last_;  // once more
            message.cores = cores_;
            message.element10 = random_() % 3000;
            message.element11 = random_() % 900;
            SwitchMessage &process = processes_[(message.pid - 300) / 7];
            process.cpu_a += random_() % 30;
            process.cpu_b += random_() % 3;
            last_ = message;
            model->add(message);
            frames.push_back(frame(vestra_set::kSwitchFrame, message));
            if (i % 50 == 0) frames.push_back(memory(second, model));
        }
        EXPECT_NE(decode(block(frames)), -1);
    }

  private:
    static constexpr size_t kProcesses = 400;

    Bytes memory(int64_t second, Model *model) {
        InfoMessage message;
        message.time_ns = static_cast<uint64_t>(second * kSecond) + random_() % kSecond;
        message.name = "meminfo";
        for (auto &figure : message.decimal) figure = {random_() % 100, random_() % 2000};
        message.figure13 = random_();
        message.figure16 = random_();
        message.figure17 = random_() % 7;
        model->add(message);
        return frame(vestra_set::kInfoFrame, message);
    }

    std::mt19937 random_;
    std::array<std::string, kProcesses> names_;
    std::array<SwitchMessage, kProcesses> processes_;
    std::array<vestra_set::CoreTimes, 4> cores_{};
    SwitchMessage last_ = sample(10, 300, "proc-0");
};

void compare_ring(Model *model) {
    std::vector<Second *> run = model->run();
    ASSERT_EQ(last_index, model->head % 180);
    ASSERT_EQ(valid_index, (last_index + 181 - static_cast<int>(run.size())) % 180);
    EXPECT_EQ(maxTimeValue, model->newest);
    for (const auto &[slot, second] : model->seconds) {
        SCOPED_TRACE(slot);
        const _SYSDATA_ &data = collectedData[slot];
        EXPECT_EQ(data.timestamp, second.time);
        EXPECT_EQ(data.flags, (second.has_switch ? 0x80U : 0U) | (second.has_memory ? 0x100U : 0U));
        EXPECT_EQ(data.pid, second.has_switch ? static_cast<int32_t>(second.message.pid) : data.pid);
        for (size_t type = 0; type < 17; ++type) {
            EXPECT_NEAR(vital(data, static_cast<unsigned>(type)), second.vitals[type], 1e-9 * second.vitals[type])
                << type;
        }
    }
    EXPECT_EQ(g_CPUValidSample, static_cast<int>(std::min<size_t>(model->totals.size(), 500)));
    EXPECT_EQ(g_CPUSampleCnt, static_cast<int>(model->totals.size() % 500));
    EXPECT_NEAR(g_CPUTotalPercent, model->peak, 1e-9 * model->peak);
}

void compare_processes(const Model &model) {
    const std::vector<ListEntry> listed = list();
    ASSERT_EQ(listed.size(), model.list.size());
    for (size_t i = 0; i < listed.size(); ++i) {
        ListEntry expected = model.list[i];
        EXPECT_NEAR(listed[i].cpu, expected.cpu, 1e-9 * expected.cpu);
        expected.cpu = listed[i].cpu;
        ASSERT_EQ(listed[i], expected) << i;
    }
    for (const auto &[pid, process] : model.known) {
        __VestraProcCPUUsageHist__ record;
        ASSERT_NE(vesrta_get_process_data_hist(static_cast<int>(pid), 0, &record), -1) << pid;
        EXPECT_EQ(record.timestamp, process.time) << pid;
        EXPECT_EQ(record.cpu_time_a, process.a);
        EXPECT_EQ(record.cpu_time_b, process.b);
        EXPECT_NEAR(record.total_percent, process.total, 1e-9 * process.total);
        EXPECT_NEAR(record.percent_a, process.percent_a, 1e-9 * process.percent_a);
        EXPECT_NEAR(record.percent_b, process.percent_b, 1e-9 * process.percent_b);
    }
}

void compare_statistics(Model *model, int window) {
    for (size_t type = 0; type < 17; ++type) {
        std::vector<double> values;  // newest first
        std::vector<Second *> run = model->run();
        for (auto second = run.rbegin(); second != run.rend(); ++second) {
            if ((*second)->time + window * kSecond >= model->newest) values.push_back((*second)->vitals[type]);
        }
        ASSERT_FALSE(values.empty());
        std::vector<double> positive;
        std::copy_if(values.begin(), values.end(), std::back_inserter(positive),
                     [](double value) { return value > 0; });
        double sum = 0, squares = 0;
        for (const double value : positive) sum += value;
        const double average = sum / static_cast<double>(positive.size());
        for (const double value : positive) squares += (value - average) * (value - average);
        const double variance = squares / static_cast<double>(positive.size());

        vestra_api_data request = {static_cast<int32_t>(type), window, 0, 0, 0, 0, 0, 0};
        process_request(&request, 1);
        EXPECT_NEAR(request.maximum, *std::max_element(values.begin(), values.end()), 1e-9 * request.maximum) << type;
        const double least = positive.empty() ? 0 : *std::min_element(positive.begin(), positive.end());
        EXPECT_NEAR(request.minimum, values[0] > 0 ? least : std::min(values[0], least), 1e-9 * least) << type;
        if (positive.empty()) {
            EXPECT_TRUE(std::isnan(request.average) && std::isnan(request.variance));
        } else {
            EXPECT_NEAR(request.average, average, 1e-6 * average) << type;
            EXPECT_NEAR(request.variance, variance, 1e-5 * (variance + average * average)) << type;
        }
    }
}

class MinutesOfLife : public DecoderTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(MinutesOfLife, AreKeptAsTheyWere) {
    Life life(GetParam());
    Model model;
    // A steady start, a gap, two laps of the ring, a long gap, and on.
    std::vector<int64_t> seconds;
    for (int64_t second = 20; second < 120; ++second) seconds.push_back(second);
    for (int64_t second = 123; second < 500; ++second) seconds.push_back(second);
    for (int64_t second = 900; second < 950; ++second) seconds.push_back(second);
    for (const int64_t second : seconds) {
        take_log();
        life.live(second, &model);
        if (second % 45 != 0 && second != seconds.back()) continue;
        SCOPED_TRACE(second);
        compare_processes(model);
        compare_ring(&model);
        for (const int window : {1, 7, 60, 180}) compare_statistics(&model, window);
        if (HasFatalFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(, MinutesOfLife, ::testing::Values(1U, 2U, 3U));

}  // namespace
