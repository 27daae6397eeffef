// The ring of vitals: which sample ends where, what moves the head, and the figures derived from neighbouring seconds.

#include <cmath>
#include <limits>

#include "decoder_support.h"
#include "vestra-daemon/vestrad.h"

using namespace decoder_test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr int64_t kLeast = std::numeric_limits<int64_t>::min(), kMost = std::numeric_limits<int64_t>::max();

class Ring : public DecoderTest {};

_SYSDATA_ switch_sample(int64_t time, int64_t user = 0, int64_t iowait = 0) {
    _SYSDATA_ data = {};
    data.timestamp = data.switch_timestamp = time;
    data.utime[1] = user;
    data.iowaittime[2] = iowait;
    return data;
}

void put(_SYSDATA_ data, int type = 7) {
    groupData(&data, type, 1);
}

TEST_F(Ring, StartsEmpty) {
    collectedData[3].flags = 0x180;
    collectedData[3].meminfo[5] = 4;
    pos = last_index = valid_index = g_CPUSampleCnt = g_CPUValidSample = 7;
    for (double &percent : g_CPUTotalPer) percent = 7;
    gProcCpuUsageHist[9].name = "x";
    init_collected_data();
    EXPECT_EQ(pos + last_index + g_CPUSampleCnt + g_CPUValidSample, 0);
    EXPECT_EQ(valid_index, -1);
    EXPECT_EQ(collectedData[3].flags, 0U);
    EXPECT_EQ(collectedData[3].meminfo[5], 0);
    EXPECT_EQ(collectedData[179].pid, -1);
    EXPECT_EQ(collectedData[179].element1, -1);
    EXPECT_THAT(timestampToIndex, Each(-1));
    EXPECT_THAT(indexToTimestamp, Each(-1));
    EXPECT_EQ(g_CPUTotalPer[250], 0);
    EXPECT_EQ(g_CPUTotalPer[251], 7) << "the rest is written before it is read";
    EXPECT_EQ(vesrta_checkhash_hist(9), -1);
}

TEST_F(Ring, SwitchSampleIsStoredWhole) {
    _SYSDATA_ data = switch_sample(185 * kSecond + 5);
    data.element1 = 1, data.pid = 2, data.cpu_time_a = 3, data.cpu_time_b = 4, data.element10 = 5, data.element11 = 6;
    for (int core = 0; core < 4; ++core) {
        data.utime[core] = 10 + core, data.stime[core] = 20 + core, data.idletime[core] = 30 + core;
        data.temperature[core] = 40 + core, data.iowaittime[core] = 50 + core;
    }
    put(data);
    const _SYSDATA_ &slot = collectedData[5];
    EXPECT_EQ(slot.timestamp, data.timestamp);
    EXPECT_EQ(slot.switch_timestamp, data.timestamp);
    EXPECT_THAT((std::vector<int64_t>{slot.element1, slot.pid, slot.cpu_time_a, slot.cpu_time_b, slot.utime[3],
                                      slot.stime[3], slot.idletime[3], slot.temperature[3], slot.iowaittime[3]}),
                ElementsAre(1, 2, 3, 4, 13, 23, 33, 43, 53));
    EXPECT_EQ(vital(slot, 0), 5);
    EXPECT_EQ(vital(slot, 1), 6);
    EXPECT_EQ(slot.flags, 0x80U);
    EXPECT_EQ(last_index, 5);
    EXPECT_EQ(maxTimeIndex, 5);
    EXPECT_EQ(gProcCpuUsageHist[2].cpu_time_b, 4);
}

TEST_F(Ring, MemorySampleFillsItsSlotAndMovesNothing) {
    put(switch_sample(10 * kSecond));
    _SYSDATA_ memory = {};
    memory.timestamp = 12 * kSecond;
    for (int i = 0; i < 6; ++i) memory.meminfo[i] = i + 0.5;
    put(memory, 8);
    EXPECT_EQ(last_index, 10);
    EXPECT_EQ(maxTimeValue, 10 * kSecond);
    EXPECT_EQ(collectedData[12].flags, 0x100U);
    EXPECT_EQ(collectedData[12].timestamp, 12 * kSecond);
    for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(vital(collectedData[12], 11 + i), i + 0.5);
    put(switch_sample(12 * kSecond + 1));
    EXPECT_EQ(collectedData[12].flags, 0x180U);
    EXPECT_EQ(last_index, 12);
}

TEST_F(Ring, FirstSampleOfAllSetsTheTimeWhateverItIs) {
    _SYSDATA_ memory = {};
    memory.timestamp = 50 * kSecond;
    put(memory, 8);
    EXPECT_EQ(maxTimeValue, 50 * kSecond);
    EXPECT_EQ(last_index, 0);
    EXPECT_EQ(valid_index, -1);
}

TEST_F(Ring, LateAndRepeatedSamplesChangeTheirSlotOnly) {
    for (int second = 10; second < 14; ++second) put(switch_sample(second * kSecond, second * 100));
    const double before = collectedData[12].cpu_user_percent;
    put(switch_sample(12 * kSecond + 7, 9999));
    put(switch_sample(5 * kSecond, 1));
    EXPECT_EQ(collectedData[12].utime[1], 9999);
    EXPECT_EQ(collectedData[12].cpu_user_percent, before);
    EXPECT_EQ(collectedData[5].flags, 0x80U);
    EXPECT_EQ(last_index, 13);
    EXPECT_EQ(valid_index, 10);
    put(switch_sample(13 * kSecond + 500, 1400));
    EXPECT_EQ(maxTimeValue, 13 * kSecond) << "the time of the sample that moved the head";
    EXPECT_EQ(collectedData[13].timestamp, 13 * kSecond + 500);
}

TEST_F(Ring, SecondOfTheLapBeforeIsNotMerged) {
    _SYSDATA_ memory = {};
    memory.timestamp = 20 * kSecond;
    put(memory, 8);
    put(switch_sample(20 * kSecond));
    EXPECT_EQ(collectedData[20].flags, 0x180U);
    put(switch_sample(200 * kSecond));
    EXPECT_EQ(collectedData[20].flags, 0x80U);
    // The rule needs more than 8 s, and a slot that was ever written.
    const struct {
        int64_t stored, time;
        uint32_t flags;
    } kRows[] = {{kSecond, 9 * kSecond, 0x180},
                 {kSecond, 9 * kSecond + 1, 0x80},
                 {0, 99 * kSecond, 0x180},
                 {kSecond, kLeast, 0x180},
                 {99 * kSecond, kSecond, 0x180}};
    for (const auto &row : kRows) {
        collectedData[30].timestamp = row.stored;
        collectedData[30].flags = 0x100;
        _SYSDATA_ data = switch_sample(row.time);
        EXPECT_EQ(fillData(30, &data, 7, 1), 30);
        EXPECT_EQ(collectedData[30].flags, row.flags) << row.stored << " " << row.time;
    }
}

TEST_F(Ring, WhatItCannotStoreIsRefused) {
    put(switch_sample(10 * kSecond));
    take_log();
    put(switch_sample(-1));
    put(switch_sample(kLeast));
    EXPECT_THAT(take_log(), ElementsAre(LogLine{kError, "groupData", "ERR:vestrad : Not handling timestamp -1\n"},
                                        LogLine{kError, "groupData",
                                                "ERR:vestrad : Not handling timestamp -9223372036854775808\n"}));
    put(switch_sample(11 * kSecond), 9);
    EXPECT_THAT(take_log(), ElementsAre(LogLine{kError, "fillData", "ERR:vestrad : Not handling frametype 9\n"}));
    EXPECT_EQ(last_index, 10);
    EXPECT_EQ(maxTimeValue, 10 * kSecond);
    EXPECT_EQ(collectedData[179].timestamp + collectedData[11].timestamp, 0);
    _SYSDATA_ data = switch_sample(5);
    EXPECT_EQ(fillData(180, &data, 7, 1), 10);
    EXPECT_EQ(fillData(-1, &data, 7, 1), 10);
}

TEST_F(Ring, LatestPossibleTimeHasASlot) {
    put(switch_sample(kMost));
    EXPECT_EQ(last_index, kMost / kSecond % 180);
}

/* ------------------------------ The run ------------------------------ */

TEST_F(Ring, RunEndsAtAGapAndAtTheHead) {
    for (const int second : {170, 171, 173, 174, 178, 179, 180, 181}) put(switch_sample(second * kSecond));
    EXPECT_EQ(last_index, 1);
    EXPECT_EQ(valid_index, 178);
    collectedData[0].flags = 0x100;
    find_valid_index();
    EXPECT_EQ(valid_index, 1);
    collectedData[1].timestamp = 0;
    find_valid_index();
    EXPECT_EQ(valid_index, 2) << "no run at all begins behind the head";
}

TEST_F(Ring, FullRingIsOneRun) {
    for (int second = 1; second <= 400; ++second) put(switch_sample(second * kSecond, second));
    EXPECT_EQ(last_index, 40);
    EXPECT_EQ(valid_index, 41);
    EXPECT_EQ(collectedData[41].timestamp, 221 * kSecond);
    EXPECT_EQ(g_CPUValidSample, 500);
    EXPECT_GE(g_CPUSampleCnt, 0);
    EXPECT_LT(g_CPUSampleCnt, 500);
}

TEST_F(Ring, DamagedIndicesAreLeftAlone) {
    for (const int index : {-1, 180, std::numeric_limits<int>::min()}) {
        last_index = index;
        valid_index = 5;
        find_valid_index();
        EXPECT_EQ(valid_index, 5);
        calculateCPUAvgValues();
        last_index = 5;
        valid_index = index;
        calculateCPUAvgValues();
        EXPECT_EQ(g_CPUValidSample, 0);
    }
}

/* ------------------------------ Derived figures ------------------------------ */

TEST_F(Ring, PercentagesCountTheFirstStepAsOneSecond) {
    put(switch_sample(10 * kSecond, 1000));
    put(switch_sample(11 * kSecond + kSecond / 2, 1300));  // 1.5 s later
    put(switch_sample(12 * kSecond, 1500));                // 0.5 s later
    EXPECT_EQ(collectedData[10].cpu_user_percent, 0);
    EXPECT_DOUBLE_EQ(collectedData[11].cpu_user_percent, 30);
    EXPECT_DOUBLE_EQ(collectedData[12].cpu_user_percent, 40);
    EXPECT_DOUBLE_EQ(collectedData[12].cpu_total_percent, 40);
    EXPECT_EQ(collectedData[12].cpu_system_percent, 0);
}

TEST_F(Ring, TemperaturesAreCutTowardZero) {
    _SYSDATA_ data = switch_sample(10 * kSecond);
    put(data);
    data = switch_sample(11 * kSecond);
    const int64_t kDegrees[] = {-3, -2, -1, -1};
    std::copy(std::begin(kDegrees), std::end(kDegrees), data.temperature);
    put(data);
    EXPECT_EQ(collectedData[11].avg_temperature, -1);
    EXPECT_EQ(vital(collectedData[11], 5), -3);
    EXPECT_EQ(vital(collectedData[11], 8), -1);
    data = switch_sample(12 * kSecond);
    for (int64_t &degrees : data.temperature) degrees = kMost;
    put(data);
    EXPECT_EQ(collectedData[12].avg_temperature, -1) << "32 bits of each, whose sum wraps";
}

TEST_F(Ring, HighIoWaitIsTakenForAGlitch) {
    put(switch_sample(10 * kSecond, 0, 0));
    put(switch_sample(11 * kSecond, 0, 800));  // 80 percent, and nothing accepted before
    EXPECT_EQ(collectedData[11].iowait_percent, 0);
    EXPECT_TRUE(
        take_line({kWarning, "calculateCPUAvgValues",
                   "vestra : cpu_io_wait 80.000000 current_cpu_iowait = 800, previous_cpu_iowait=0, 1.000000 11 "
                   "10 \n"}));
    put(switch_sample(12 * kSecond, 0, 1599));
    EXPECT_DOUBLE_EQ(collectedData[12].iowait_percent, 79.9);
    put(switch_sample(13 * kSecond, 0, 3000));
    EXPECT_DOUBLE_EQ(collectedData[13].iowait_percent, 79.9) << "the last one accepted";
}

TEST_F(Ring, CountersMayWrapAndTimesCoincide) {
    put(switch_sample(10 * kSecond, kMost, kLeast));
    put(switch_sample(11 * kSecond, kLeast, kMost));
    EXPECT_DOUBLE_EQ(collectedData[11].cpu_user_percent, 0.1) << "one tick";
    collectedData[9] = collectedData[12] = collectedData[11];
    collectedData[12].utime[1] = 5;
    last_index = 12;
    valid_index = 10;
    calculateCPUAvgValues();  // slots 11 and 12 have one time
    EXPECT_TRUE(std::isinf(collectedData[12].cpu_user_percent));
    EXPECT_TRUE(std::isnan(collectedData[12].cpu_system_percent));
}

TEST_F(Ring, PassStopsAtTheRingsEndWhenTheDaemonStops) {
    for (int second = 177; second < 183; ++second) put(switch_sample(second * kSecond, second * 100));
    const int samples = g_CPUValidSample;
    exit_flag = 1;
    calculateCPUAvgValues();
    EXPECT_EQ(g_CPUValidSample, samples + 2) << "slots 178 and 179";
}

TEST_F(Ring, PeakAverageNeverFalls) {
    int64_t user = 0;
    for (int second = 1; second <= 40; ++second) {
        const double before = g_CPUTotalPercent;
        put(switch_sample(second * kSecond, user += second < 20 ? 500 : 10));
        EXPECT_GE(g_CPUTotalPercent, before);
    }
    EXPECT_DOUBLE_EQ(g_CPUTotalPercent, 50);
}

TEST_F(Ring, IsPrintedSlotBySlot) {
    collectedData[1].timestamp = 181 * kSecond;
    double *const kFirst[] = {&collectedData[1].element10, &collectedData[1].cpu_user_percent,
                              &collectedData[1].meminfo[5]};
    for (double *value : kFirst) *value = 1.5;
    collectedData[1].flags = 0x180;
    printCollectedData();
    const auto lines = take_log();
    ASSERT_EQ(lines.size(), 180U);
    std::string expected = "vestra : 181000000000";
    for (int i = 0; i < 17; ++i) expected += i == 0 || i == 4 || i == 16 ? " 1.500000" : " 0.000000";
    EXPECT_EQ(lines[1], (LogLine{kInfo, "printCollectedData", expected + " 0X180\n"}));
}

/* ------------------------------ Window statistics ------------------------------ */

class Window : public DecoderTest {
  protected:
    // Values of type 0 in consecutive seconds from 100 on; the last is the head.
    static void fill(const std::vector<double> &values) {
        int64_t second = 100;
        for (const double value : values) {
            _SYSDATA_ data = switch_sample(second++ * kSecond);
            data.element10 = value;
            put(data);
        }
        find_valid_index();
    }
    static _VestraData_ ask(int type, int window) {
        _VestraData_ result = {-7, -7, -7, -7};
        getTypeResult(&result, type, window, maxTimeValue, last_index);
        return result;
    }
};

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

TEST_F(Window, StatisticsFollowTheRules) {
    const struct {
        const char *name;
        std::vector<double> values;
        int window;
        double maximum, minimum, average, variance;
    } kRows[] = {
        {"AllOfThem", {10, 20, 30}, 9, 30, 10, 20, static_cast<double>(200.0F / 3)},
        {"EndIsIncluded", {10, 20, 30}, 1, 30, 20, 25, 25},
        {"OneSecondEach", {10, 20, 30, 40}, 2, 40, 20, 30, static_cast<double>(200.0F / 3)},
        {"ZerosAreLeftOut", {0, 8, 0, 4}, 9, 8, 4, 6, 4},
        {"NewestIsAlwaysAMinimum", {5, 8, -2}, 9, 8, -2, 6.5, 2.25},
        {"OnlyZeros", {0, 0, 0}, 9, 0, 0, kNone, kNone},
        {"MinusOneCountsAsNothing", {3, -1}, 9, 3, 3, 3, 0},
        {"EmptyWindow", {1, 2, 3}, -1, -1, -1, kNone, kNone},
        {"MostNegativeWindow", {1, 2, 3}, std::numeric_limits<int>::min(), -1, -1, kNone, kNone},
        {"LongestWindow", {1, 2, 3}, std::numeric_limits<int>::max(), 3, 1, 2, static_cast<double>(2.0F / 3)},
        {"CurrentValue", {10, 20, 30}, 0, 30, 30, 30, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        init_collected_data();
        maxTimeValue = -1;
        fill(row.values);
        const _VestraData_ result = ask(0, row.window);
        EXPECT_EQ(result.maximum, row.maximum);
        EXPECT_EQ(result.minimum, row.minimum);
        EXPECT_TRUE(std::isnan(row.average) ? std::isnan(result.average) : result.average == row.average);
        EXPECT_TRUE(std::isnan(row.variance) ? std::isnan(result.variance) : result.variance == row.variance)
            << result.variance;
    }
}

TEST_F(Window, EveryTypeNamesItsVital) {
    put(switch_sample(10 * kSecond));
    _SYSDATA_ &slot = collectedData[10];
    double *const kVitals[] = {&slot.element10,           &slot.element11,           &slot.cpu_total_percent,
                               &slot.cpu_system_percent,  &slot.cpu_user_percent,    &slot.core_temperature[0],
                               &slot.core_temperature[1], &slot.core_temperature[2], &slot.core_temperature[3],
                               &slot.avg_temperature,     &slot.iowait_percent,      &slot.meminfo[0],
                               &slot.meminfo[1],          &slot.meminfo[2],          &slot.meminfo[3],
                               &slot.meminfo[4],          &slot.meminfo[5]};
    for (int type = 0; type < 17; ++type) *kVitals[type] = 100 + type;
    for (int type = 0; type < 17; ++type) {
        EXPECT_EQ(ask(type, 0).average, 100 + type);
        EXPECT_EQ(ask(type, 5).maximum, 100 + type);
    }
}

TEST_F(Window, UnknownTypesAreRefused) {
    fill({1, 2, 3});
    take_log();
    for (const int type : {17, -2, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_EQ(ask(type, 3).maximum, -7) << type;
        EXPECT_THAT(take_log(), ElementsAre(LogLine{kError, "getTypeResult", "ERR:vestra : Not a valid packetType\n"}));
    }
}

TEST_F(Window, WalkEndsWithoutARunAndAtTheEdgesOfTime) {
    fill({1, 2, 3});
    valid_index = -1;
    EXPECT_EQ(calculateMax(0, 100, maxTimeValue), 3);
    EXPECT_EQ(calculateMax(0, 1, kLeast), 3) << "everything is newer than that";
    collectedData[102].timestamp = kMost;
    EXPECT_EQ(calculateMax(0, 5, kMost), 3) << "beyond the largest time";
    EXPECT_EQ(calculateMax(0, 0, kMost), 3);
    _VestraData_ result = {-7, -7, -7, -7};
    getTypeResult(&result, 0, 0, 0, 180);
    getTypeResult(&result, 0, 0, 0, -1);
    EXPECT_EQ(result.maximum, -7);
}

TEST_F(Window, ArrayOfRequestsIsIndexedByType) {
    fill({10, 20, 30});
    take_log();
    std::vector<vestra_api_data> reqs(4);
    for (vestra_api_data &req : reqs) req = {-1, 0, -7, -7, -7, -7, -7, 0};
    reqs[0].packet_type = 0;
    reqs[1].packet_type = 2;  // request 2 is answered: with its own type, which is 1
    reqs[2].packet_type = 1;
    reqs[3].packet_type = 3;
    process_request(reqs.data(), 3);
    EXPECT_EQ(reqs[0].maximum, 30);
    EXPECT_EQ(reqs[1].maximum, 0);
    EXPECT_EQ(reqs[2].maximum, 0);
    EXPECT_EQ(reqs[3].maximum, -7) << "not in the array";
    EXPECT_THAT(take_log(),
                ElementsAre(LogLine{kDebug, "process_request",
                                    "[vestra] [process_request] 0 0 30.000000 30.000000, 30.000000, 0.000000\n"},
                            LogLine{kDebug, "process_request",
                                    "[vestra] [process_request] 2 1 0.000000 0.000000, 0.000000, 0.000000\n"},
                            LogLine{kDebug, "process_request",
                                    "[vestra] [process_request] 1 2 0.000000 0.000000, 0.000000, 0.000000\n"}));
    for (const int type : {3, 4, 17, -2, std::numeric_limits<int>::min()}) {
        reqs[0].packet_type = type;
        process_request(reqs.data(), 3);
        EXPECT_TRUE(take_line({kError, "process_request", "ERR:vestra : Not a valid packetType\n"})) << type;
        EXPECT_EQ(reqs[3].maximum, -7);
    }
}

TEST_F(Window, SingleRequestNeedNotBeIndexed) {
    fill({10, 20, 30});
    take_log();
    vestra_api_data req = {0, 9, -7, -7, -7, -7, -7, 0};
    process_request(&req, 1);
    EXPECT_EQ(req.average, 20);
    EXPECT_EQ(req.answer_type, -7) << "the client service's";
    EXPECT_THAT(take_log(),
                ElementsAre(LogLine{kDebug, "process_request",
                                    "[vestra] [process_request] 0 30.000000 10.000000, 20.000000, 66.666664\n"}));
    req.packet_type = -1;
    process_request(&req, 1);
    EXPECT_EQ(req.average, 20);
    EXPECT_THAT(take_log(), IsEmpty());
}

}  // namespace
