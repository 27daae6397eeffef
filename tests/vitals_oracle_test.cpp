// Minutes of a set's life, decoded from frames, beside a second way to the same figures: ring, derived percentages,
// peak average, CPU history, memory list and window statistics are worked out here from the messages themselves, by
// code that shares nothing with the daemon.

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <map>

#include "made_up_set.h"

using namespace decoder_test;
using trace::CoreTimes;
using trace::MeminfoMessage;
using trace::SwitchMessage;

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

double number(uint64_t figure) {
    return static_cast<double>(static_cast<int64_t>(figure));
}

// What the daemon should hold, in the plainest words.
struct Model {
    std::map<int64_t, Second> seconds;  // by second modulo 180
    int64_t head = 0, newest = -1;      // second of the head; time of the sample that moved it last
    std::vector<double> totals;         // every total percentage ever computed, in order
    double peak = 0;
    std::map<uint64_t, Known> known;  // by pid
    std::deque<ListEntry> list;       // newest first
    std::deque<size_t> charges;       // of its entries
    size_t charge = 0;

    Second &touch(uint64_t time_ns) {
        const auto time = static_cast<int64_t>(time_ns);
        Second &second = seconds[time / kSecond % 180];
        if (time - second.time > 8 * kSecond) second.has_switch = second.has_memory = false;
        second.time = time;
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

    static double sum(const Second &second, uint64_t CoreTimes::*figure) {
        double all = 0;
        for (const CoreTimes &core : second.message.cores) all += number(core.*figure);
        return all;
    }

    void derive() {
        double iowait_before = 0;
        const std::vector<Second *> seconds_of_run = run();
        for (size_t i = 0; i < seconds_of_run.size(); ++i) {
            Second &now = *seconds_of_run[i];
            for (size_t core = 0; core < 4; ++core) now.vitals[5 + core] = number(now.message.cores[core].temperature);
            if (i == 0) continue;
            const Second &before = *seconds_of_run[i - 1];
            const double apart =
                i == 1 ? 1 : std::fabs(number(now.message.time_ns) - number(before.message.time_ns)) / 1e9;
            const auto percent = [&](uint64_t CoreTimes::*figure) {
                return (sum(now, figure) - sum(before, figure)) * 100 / (apart * 1000);
            };
            now.vitals[2] = std::fabs(percent(&CoreTimes::user) + percent(&CoreTimes::system));
            now.vitals[3] = std::fabs(percent(&CoreTimes::system));
            now.vitals[4] = std::fabs(percent(&CoreTimes::user));
            now.vitals[9] = std::trunc(sum(now, &CoreTimes::temperature) / 4);
            const double iowait = std::fabs(percent(&CoreTimes::iowait));
            if (iowait < 80) iowait_before = iowait;
            now.vitals[10] = iowait_before;
            totals.push_back(now.vitals[2]);
            // The average of the newest 500, in the order in which they lie in a ring.
            double all = 0;
            const size_t count = totals.size(), held = std::min<size_t>(count, 500);
            for (size_t place = 0; place < held; ++place) all += totals[place + (count - 1 - place) / 500 * 500];
            peak = std::max(peak, all / static_cast<double>(held));
        }
    }

    void add(const SwitchMessage &message) {
        const auto time = static_cast<int64_t>(message.time_ns);
        if (message.rss != 0 && message.swap != 0) account(message, time);
        Second &second = touch(message.time_ns);
        second.has_switch = true;
        second.message = message;
        second.vitals[0] = number(message.element10);
        second.vitals[1] = number(message.element11);
        if (newest != -1 && (time / kSecond == head || time <= newest)) return;
        const bool first = newest == -1;
        newest = time;
        head = time / kSecond;
        if (!first) derive();
    }

    void account(const SwitchMessage &message, int64_t time) {
        const auto a = static_cast<int64_t>(message.cpu_a), b = static_cast<int64_t>(message.cpu_b);
        Known &process = known.try_emplace(message.pid, Known{time, a, b, 0, 0, 0}).first->second;
        if (time - process.time > kSecond && (a != process.a || b != process.b)) {
            const double ticks = static_cast<double>(time - process.time) / 1e9 * 1000;
            const auto percent = [&](int64_t more) { return std::fabs(static_cast<double>(more) * 100 / ticks); };
            process = {
                time, a, b, percent(a + b - process.a - process.b), percent(a - process.a), percent(b - process.b)};
        }
        const std::string name(message.name.substr(0, 14)), stamp = std::to_string(time);
        list.push_front({stamp + " " + std::to_string(message.pid) + " " + name + " " + std::to_string(message.rss) +
                             " " + std::to_string(message.swap),
                         process.total});
        charges.push_front(20 + stamp.size() + name.size());
        charge += charges.front();
        for (; charge > 204800; list.pop_back(), charges.pop_back()) charge -= charges.back();
    }

    void add(const MeminfoMessage &message) {
        Second &second = touch(message.time_ns);
        second.has_memory = true;
        for (size_t i = 0; i < 3; ++i) {
            const trace::Decimal &figure = message.decimal[i];
            second.vitals[11 + i] = std::stod(std::to_string(figure.integer) + "." + std::to_string(figure.fraction));
        }
        second.vitals[14] = number(message.figure13);
        second.vitals[15] = number(message.figure16);
        second.vitals[16] = number(message.figure17);
        if (newest == -1) newest = static_cast<int64_t>(message.time_ns);  // the head is where it was
    }
};

// Equal but for the last digits of a sum.
void expect_close(double is, double should_be, double tolerance = 1e-9) {
    EXPECT_NEAR(is, should_be, tolerance * std::fabs(should_be));
}

void compare_ring(Model *model) {
    ASSERT_EQ(last_index, model->head % 180);
    find_valid_index();  // as each request does: memory figures of a new second may have ended the run
    ASSERT_EQ(valid_index, (last_index + 181 - static_cast<int>(model->run().size())) % 180);
    EXPECT_EQ(maxTimeValue, model->newest);
    for (const auto &[slot, second] : model->seconds) {
        const _SYSDATA_ &data = collectedData[slot];
        EXPECT_EQ(data.timestamp, second.time);
        EXPECT_EQ(data.flags, (second.has_switch ? 0x80U : 0U) | (second.has_memory ? 0x100U : 0U));
        for (unsigned type = 0; type < 17; ++type) expect_close(vital(data, type), second.vitals[type]);
        if (!second.has_switch) continue;
        EXPECT_EQ(data.pid, static_cast<int32_t>(second.message.pid));
        EXPECT_EQ(data.element1, static_cast<int32_t>(second.message.element1));
        EXPECT_EQ(data.cpu_time_a, static_cast<int64_t>(second.message.cpu_a));
        EXPECT_EQ(data.cpu_time_b, static_cast<int64_t>(second.message.cpu_b));
        EXPECT_EQ(data.idletime[3], static_cast<int64_t>(second.message.cores[3].idle));
    }
    EXPECT_EQ(g_CPUValidSample, static_cast<int>(std::min<size_t>(model->totals.size(), 500)));
    EXPECT_EQ(g_CPUSampleCnt, static_cast<int>(model->totals.size() % 500));
    expect_close(g_CPUTotalPercent, model->peak);
}

void compare_processes(const Model &model) {
    const std::vector<ListEntry> listed = list();
    ASSERT_EQ(listed.size(), model.list.size());
    for (size_t i = 0; i < listed.size(); ++i) {
        ASSERT_EQ(listed[i].text, model.list[i].text) << i;
        expect_close(listed[i].cpu, model.list[i].cpu);
    }
    for (const auto &[pid, process] : model.known) {
        __VestraProcCPUUsageHist__ record;
        ASSERT_NE(vesrta_get_process_data_hist(static_cast<int>(pid), 0, &record), -1) << pid;
        EXPECT_EQ(record.timestamp, process.time) << pid;
        EXPECT_EQ(record.cpu_time_a, process.a);
        EXPECT_EQ(record.cpu_time_b, process.b);
        expect_close(record.total_percent, process.total);
        expect_close(record.percent_a, process.percent_a);
        expect_close(record.percent_b, process.percent_b);
    }
}

void compare_statistics(Model *model, int window) {
    for (size_t type = 0; type < 17; ++type) {
        std::vector<double> values;  // newest first
        std::vector<Second *> run = model->run();
        for (auto second = run.rbegin(); second != run.rend(); ++second) {
            const bool within = (*second)->time + window * kSecond >= model->newest;
            if (window == 0 ? values.empty() : within) values.push_back((*second)->vitals[type]);
        }
        double greatest = values.at(0), least = values[0], sum = 0, squares = 0, count = 0;
        for (const double value : values) {
            greatest = greatest == -1 ? value : std::max(greatest, value);
            if (least == -1 || (value > 0 && value < least)) least = value;
            if (value > 0) sum += value, ++count;
        }
        for (const double value : values) squares += value > 0 ? (value - sum / count) * (value - sum / count) : 0;
        if (window == 0) sum = values[0], count = 1;
        vestra_api_data request = {static_cast<int32_t>(type), window, 0, 0, 0, 0, 0, 0};
        process_request(&request, 1);
        expect_close(request.maximum, greatest);
        expect_close(request.minimum, least);
        EXPECT_EQ(std::isnan(request.average) && std::isnan(request.variance), count == 0);
        if (count == 0) continue;
        expect_close(request.average, sum / count, 1e-6);
        EXPECT_NEAR(request.variance, squares / count, 1e-5 * (squares / count + sum / count * sum / count));
    }
}

// A steady start, a gap, two laps of the ring, a long gap, and on.
TEST_F(DecoderTest, MinutesOfLifeAreKeptAsTheyWere) {
    for (const unsigned seed : {1U, 2U}) {
        MadeUpSet made_up(seed);
        Model model;
        for (int64_t second = 20; second < 950; ++second) {
            if ((second >= 120 && second < 123) || (second >= 500 && second < 900)) continue;
            begin_transcript();
            made_up.decode_second(second, [&](const auto &message) { model.add(message); });
            if (second % 45 != 0 && second != 949) continue;
            SCOPED_TRACE(text("seed %u, second %d", seed, static_cast<int>(second)));
            compare_processes(model);
            compare_ring(&model);
            g_CPUTotalPercent = model.peak = 0;  // what comes later may have a lower peak
            for (const int window : {0, 1, 7, 60, 180}) compare_statistics(&model, window);
            ASSERT_FALSE(HasFailure());
        }
        reset_decoder();  // as the daemon starts: nothing of this life is left for the next
    }
}

}  // namespace
