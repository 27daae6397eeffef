// What the screen shows of a second is what an analysis of the whole dump says, whatever is in the dump.

#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <tuple>

#include "dump_support.h"
#include "hostile_dump.h"
#include "tools/dump/text.h"
#include "tools/view/dump_recording.h"
#include "tools/view/live_recording.h"
#include "tools/view/view.h"

using namespace dump_test;
using vestra_view::DumpRecording;
using vestra_view::ProcessRow;

namespace {

// Of each process the last sample in each second: cpu, user and system percent, resident memory and swap.
struct LastSamples : vestra_dump::DumpSink {
    using Figures = std::tuple<int64_t, double, double, double, uint64_t, uint64_t>;
    std::map<int64_t, std::map<uint64_t, Figures>> seconds;
    void on_process(const vestra_dump::SwitchSample &sample, const vestra_dump::Process &process) override {
        const auto &usage = process.usage;
        const auto percent = [&](double value) { return usage.known ? value : -1; };
        const Figures now = {sample.time_ns,        percent(usage.total), percent(usage.user),
                             percent(usage.system), sample.rss,           sample.swap};
        const auto [place, is_new] = seconds[sample.time_ns / 1'000'000'000].emplace(process.number, now);
        if (!is_new && std::get<0>(place->second) <= sample.time_ns) place->second = now;
    }
};

struct Opened {
    explicit Opened(vestra_dump::ByteSource &source)
        : survey(vestra_dump::survey(source)), recording(source, survey, {}, "dump") {}
    vestra_dump::Survey survey;
    DumpRecording recording;
};

// A source that fails from some moment on.
struct Failing : vestra_dump::MemorySource {
    using MemorySource::MemorySource;
    int problem = 0;
    int64_t read_at(uint64_t offset, uint8_t *out, size_t count) override {
        if (problem == 0) return MemorySource::read_at(offset, out, count);
        errno = problem;
        return -1;
    }
};

std::string flipped(std::string bytes, int times) {
    std::mt19937 random(7);
    for (; times > 0; --times) bytes[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
    return bytes;
}

// 40,000 processes, some of which are sampled every second.
std::string many_processes() {
    std::vector<uint8_t> bytes;
    trace::FrameWriter writer(&bytes);
    for (uint64_t second = 1; second <= 40; ++second) {
        for (uint64_t i = 0; i < 1200; ++i) {
            trace::SwitchMessage message;
            message.time_ns = second * 1'000'000'000 + i * 500'000;
            message.pid = i < 200 ? 1 + i : second * 1000 + i;
            const std::string name = "p" + std::to_string(i);
            message.name = name;
            message.cpu_a = second * i % 50;
            message.rss = 1000 + i;
            if (i % 100 == 0) writer.begin_frame(trace::kSwitchFrame, 1);
            writer.add(message);
        }
        writer.end_block();
    }
    return {bytes.begin(), bytes.end()};
}

std::string line_of(const vestra_view::Canvas &canvas, int row) {
    std::string line;
    for (int column = 0; column < canvas.columns(); ++column) {
        line += static_cast<char>(canvas.at(row, column).character);
    }
    return line;
}

}  // namespace

TEST(ViewedDump, HasTheProcessesOfEverySecondAsTheWholeAnalysisHasThem) {
    const std::string everyday = synthetic("everyday", 300, 60'000, 90, 3);
    const struct {
        const char *name;
        std::string bytes;
    } dumps[] = {{"everyday", everyday},
                 {"bits flipped", flipped(everyday, 300)},
                 {"damaged by its module", synthetic("hostile", 40, 60'000, 60)},
                 {"two recordings", synthetic("steady", 40, 60'000, 20, 1) + synthetic("burst", 50, 60'000, 40, 2)},
                 {"more processes than are kept", many_processes()},
                 {"hostile names", hostile_dump()}};
    for (const auto &[name, bytes] : dumps) {
        SCOPED_TRACE(name);
        vestra_dump::MemorySource source(bytes);
        Opened opened(source);
        LastSamples all;
        analyse(source, &opened.survey.timeline, {}, 0, all);
        std::vector<size_t> order(opened.recording.size());
        for (size_t i = 0; i < order.size(); ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), std::mt19937(1));
        ASSERT_GT(order.size(), 5U);
        for (const size_t index : order) {
            const int64_t second = opened.recording.second(index).second;
            SCOPED_TRACE(second);
            std::multiset<LastSamples::Figures> seen, expected;
            for (const ProcessRow &row : opened.recording.processes(index)) {
                const auto percent = [&](double value) { return std::isnan(value) ? -1 : value; };
                seen.emplace(row.time_ns, percent(row.cpu), percent(row.user), percent(row.system), row.rss, row.swap);
            }
            for (const auto &[number, figures] : all.seconds[second]) expected.insert(figures);
            ASSERT_EQ(seen, expected);
        }
    }
}

TEST(ViewedDump, WhoseStickWasPulledSaysSoAndKeepsItsVitals) {
    const std::string bytes = synthetic("steady", 40, 30'000, 30);
    for (const auto &[problem, says] : {std::pair{ESTALE, "Stale file handle"}, {EIO, "cannot be read"}}) {
        Failing source(bytes);
        Opened opened(source);
        vestra_view::View view(opened.recording, {2, 3});
        source.problem = problem;
        EXPECT_TRUE(view.handle(U'h'));
        vestra_view::Canvas canvas(24, 80, false);
        view.draw(&canvas);
        std::string shown;
        for (int row = 0; row < 24; ++row) shown += line_of(canvas, row);
        EXPECT_NE(shown.find(says), std::string::npos) << shown;
        EXPECT_NE(shown.find(vestra_dump::fixed(opened.recording.second(view.cursor()).vitals[2], 2)),
                  std::string::npos);
        source.problem = 0;
        EXPECT_TRUE(view.handle(U'h'));
        EXPECT_EQ(opened.recording.problem(), "");
    }
}

TEST(ViewedDump, ReadsRecordsBackFromMemoryAndFile) {
    vestra_view::Spill<uint64_t> spill(1000);
    for (uint64_t i = 0; i < 100'000; ++i) spill.add(i * i);
    for (const uint64_t i : {0U, 1U, 124U, 125U, 50'000U, 99'999U}) EXPECT_EQ(spill.at(i), i * i);
    std::vector<uint64_t> all(static_cast<size_t>(spill.size()));
    spill.read(0, all.data(), all.size());
    EXPECT_EQ(all[99'998], uint64_t{99'998} * 99'998);
}

// Peaks, by hand: a stretch above the middle between average and maximum; its highest second.
TEST(ViewedDump, PeaksAreTheSameForwardAndBackward) {
    const std::string bytes = synthetic("everyday", 60, 20'000, 300, 11);
    vestra_dump::MemorySource source(bytes);
    Opened opened(source);
    const DumpRecording &recording = opened.recording;
    size_t found = 0;
    for (const size_t vital : {size_t{0}, size_t{2}, size_t{10}, size_t{14}}) {
        const double sign = vestra_view::low_tells(vital) ? -1 : 1;
        std::vector<double> figures;
        double sum = 0, known = 0, top = -1e300;
        for (size_t i = 0; i < recording.size(); ++i) {
            figures.push_back(sign * recording.second(i).vitals[vital]);
            if (std::isnan(figures.back())) continue;
            sum += figures.back();
            ++known;
            top = std::max(top, figures.back());
        }
        std::vector<size_t> peaks, forward, backward;
        for (size_t i = 0; i < figures.size(); ++i) {
            if (!(figures[i] > (sum / known + top) / 2)) continue;
            const bool goes_on = i > 0 && figures[i - 1] > (sum / known + top) / 2;
            if (!goes_on) peaks.push_back(i);
            if (figures[i] > figures[peaks.back()]) peaks.back() = i;
        }
        for (auto at = recording.peak(vital, 0, true); at; at = recording.peak(vital, *at, true))
            forward.push_back(*at);
        for (auto at = recording.peak(vital, recording.size() - 1, false); at; at = recording.peak(vital, *at, false)) {
            backward.insert(backward.begin(), *at);
        }
        EXPECT_EQ(forward, peaks);
        EXPECT_EQ(backward, peaks);
        found += peaks.size();
    }
    EXPECT_GT(found, 10U);
}

TEST(ViewedDump, HasNoFigureWithoutItsLastDigits) {
    std::vector<uint8_t> bytes;
    trace::FrameWriter writer(&bytes);
    for (uint64_t second = 1; second < 4; ++second) {
        trace::SwitchMessage message;
        message.time_ns = second * 1'000'000'000;
        message.pid = 2147483647;
        message.name = "large";
        message.rss = message.swap = second * 98'765'432'101;
        writer.begin_frame(trace::kSwitchFrame, 1);
        writer.add(message);
        writer.end_block();
    }
    const std::string large(bytes.begin(), bytes.end()), everyday = synthetic("everyday", 40, 20'000, 30);
    vestra_dump::MemorySource large_source(large), source(everyday);
    Opened of_large(large_source), opened(source);
    const auto expect_near = [](const std::string &shown, double figure) {
        if (shown == "#") return;
        EXPECT_NEAR(std::stod(shown), figure, 0.06 * figure) << shown;
    };
    vestra_view::View processes(of_large.recording, {2});
    vestra_view::Canvas canvas(24, 100, false);
    processes.draw(&canvas);
    std::istringstream row(line_of(canvas, 5));
    std::string pid, name, cpu, user, system, rss, swap, growth;
    row >> pid >> name >> cpu >> user >> system >> rss >> swap >> growth;
    expect_near(pid, 2147483647);
    expect_near(rss, 3 * 98'765'432'101.0);
    expect_near(swap, 3 * 98'765'432'101.0);
    expect_near(growth, 2 * 98'765'432'101.0);
    vestra_view::View view(opened.recording, {2});
    for (int width = 2; width <= 13; ++width) {
        vestra_view::Canvas narrow(10, width, false);
        view.draw(&narrow);
        const std::string line = line_of(narrow, 3);
        expect_near(line.substr(line.find_first_not_of("> ")), opened.recording.second(view.cursor()).vitals[2]);
    }
}

TEST(ViewedDaemon, FindsATimeOfDayOnBothSidesOfMidnight) {
    setenv("TZ", "UTC", 1);
    tzset();
    const auto answer = [](vestra_view::Snapshot *snapshot) {
        snapshot->time = 1795651210;  // 2026-11-26T00:00:10Z
        for (int age = 0; age < 100; ++age) snapshot->seconds.push_back({age, {}});
    };
    vestra_view::LiveRecording live(answer, std::chrono::hours(1), 0);
    while (live.size() == 0) live.take();
    const std::pair<const char *, size_t> times[] = {
        {"00:00:05", 94}, {"23:59:50", 79}, {"23:59", 29}, {"12:00", 99}, {"00:00:20", 99}};
    for (const auto &[text, index] : times) {
        std::string error;
        EXPECT_EQ(live.find_time(text, 0, &error), index) << text;
    }
}
