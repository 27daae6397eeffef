// The ring of vitals and its window statistics at their edges: what minutes of a set's life do not bring. Those are in
// vitals_oracle_test.cpp.

#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "decoder_support.h"

using namespace decoder_test;

class Ring : public DecoderTest {
  protected:
    static void put(int64_t time, int64_t user = 0, int64_t iowait = 0, double element10 = 0, int type = 7) {
        _SYSDATA_ data = {};
        data.timestamp = data.switch_timestamp = time;
        data.utime[1] = user;
        data.iowaittime[2] = iowait;
        data.element10 = element10;
        data.element11 = 7;
        groupData(&data, type, 1);
    }
};

TEST_F(Ring, SlotIsEmptiedForASecondMoreThanEightLater) {
    const int64_t rows[][3] = {{kSecond, 9 * kSecond, 0x180}, {kSecond, 9 * kSecond + 1, 0x80},
                               {1, 8 * kSecond + 2, 0x80},    {0, 99 * kSecond, 0x180},
                               {kSecond, INT64_MIN, 0x180},   {INT64_MAX, kSecond, 0x180}};
    for (const auto &[stored, time, flags] : rows) {
        collectedData[30].timestamp = stored;
        collectedData[30].flags = 0x100;
        _SYSDATA_ data = {};
        data.timestamp = time;
        EXPECT_EQ(fillData(30, &data, 7, 1), 30);
        EXPECT_EQ(collectedData[30].flags, flags) << stored << " " << time;
    }
}

TEST_F(Ring, WhatItCannotStoreIsRefused) {
    put(50 * kSecond, 0, 0, 0, 8);
    put(50 * kSecond);  // not newer than what was first of all
    put(-1);
    put(INT64_MIN);
    put(51 * kSecond, 0, 0, 0, 9);
    expect_golden("ring-refuses", log_text());
    EXPECT_EQ(last_index, 0);
    EXPECT_EQ(maxTimeValue, 50 * kSecond);
    put(INT64_MAX);
    EXPECT_EQ(last_index, INT64_MAX / kSecond % 180);
}

TEST_F(Ring, HighIoWaitIsNamedAsAGlitch) {
    put(10 * kSecond);
    put(11 * kSecond, 0, 800);
    EXPECT_EQ(log_text(),
              "5 calculateCPUAvgValues vestra : cpu_io_wait 80.000000 current_cpu_iowait = 800, previous_cpu_iowait=0, "
              "1.000000 11 10 $\n");
}

TEST_F(Ring, CountersMayWrap) {
    put(1 * kSecond, INT64_MAX, INT64_MIN);
    put(2 * kSecond, INT64_MIN, INT64_MAX);
    EXPECT_DOUBLE_EQ(collectedData[2].cpu_user_percent, 0.1) << "one tick";
    for (int64_t &degrees : collectedData[2].temperature) degrees = INT64_MAX;
    calculateCPUAvgValues();
    EXPECT_EQ(collectedData[2].avg_temperature, -1) << "32 bits of each; their sum wraps";
}

TEST_F(Ring, TimesMayCoincide) {
    for (const int second : {1, 2, 3}) put(second * kSecond, second);
    collectedData[3].switch_timestamp = collectedData[2].switch_timestamp;
    calculateCPUAvgValues();
    EXPECT_TRUE(std::isinf(collectedData[3].cpu_user_percent) && std::isnan(collectedData[3].cpu_system_percent));
}

TEST_F(Ring, PassEndsAtSlot179WhenTheDaemonStops) {
    for (const int second : {178, 179, 180}) put(second * kSecond);
    const int samples = g_CPUValidSample;
    exit_flag = 1;
    calculateCPUAvgValues();
    EXPECT_EQ(g_CPUValidSample, samples + 1);
}

TEST_F(Ring, IsPrintedSlotBySlot) {
    double vitals[17];  // they are next to each other in a slot
    std::iota(std::begin(vitals), std::end(vitals), 0);
    memcpy(reinterpret_cast<char *>(&collectedData[1]) + offsetof(_SYSDATA_, element10), vitals, sizeof(vitals));
    collectedData[1].timestamp = 181 * kSecond;
    collectedData[1].flags = 0x180;
    printCollectedData();
    expect_golden("ring-printed", seen_text());
}

// Values of type 0 in consecutive seconds, the last of which is the head.
class Window : public Ring {
  protected:
    Window() {
        for (const int value : {10, 20, 30}) put((value + 90) * kSecond, 0, 0, value);
        find_valid_index();
        begin_transcript();
    }
};

TEST_F(Window, MayHoldNothingAndReachTheEdgesOfTime) {
    for (const int window : {-1, INT_MIN}) {
        _VestraData_ result;
        getTypeResult(&result, 0, window, maxTimeValue, last_index);
        EXPECT_TRUE(result.maximum == -1 && result.minimum == -1);
        EXPECT_TRUE(std::isnan(result.average) && std::isnan(result.variance));
    }
    EXPECT_EQ(calculateMin(0, INT_MAX, maxTimeValue), 30) << "there is a gap between them";
    valid_index = -1;  // no run: the walk goes once around
    EXPECT_EQ(calculateMin(0, 100, maxTimeValue), 10);
    EXPECT_EQ(calculateMax(0, 1, INT64_MIN), 30) << "everything is newer than that";
    collectedData[120].timestamp = INT64_MAX;
    EXPECT_EQ(calculateMax(0, 5, INT64_MAX), 30) << "beyond the largest time";
    EXPECT_EQ(calculateMax(17, 5, INT64_MAX) + calculateMax(-1, 5, INT64_MAX), -2) << "no such vitals";
}

static std::string bytes(const vestra_api_data &request) {
    return {reinterpret_cast<const char *>(&request), sizeof(request)};
}

// Values that the statistics treat specially, in any order. Compared bit for bit, roundings included.
TEST_F(Window, AnswerHasEachVitalOverItsOwnWindow) {
    static constexpr double kValues[] = {-1, -1, -5, -0.0, 0, 0, 0.1, 3, 1e-310, 1e200, HUGE_VAL, NAN};
    std::minstd_rand random;
    for (int round = 0; round < 300; ++round) {
        const size_t choice = 1 + random() % std::size(kValues);  // few values: long runs of the same
        for (int second = 100; second < 280; ++second) {
            put(second * kSecond);
            double vitals[17];
            for (double &value : vitals) value = kValues[random() % choice];
            memcpy(reinterpret_cast<char *>(&collectedData[second % 180]) + 208, vitals, sizeof(vitals));
        }
        vestra_api_data together[17], alone[17];
        for (vestra_api_data &request : together) {
            const int windows[] = {0, 2, static_cast<int>(random() % 200), 179, -1};
            request = {static_cast<int>(random() % 19) - 1, windows[random() % 5], -7, -7, -7, -7, -7, 0};
        }
        memcpy(alone, together, sizeof(alone));
        begin_transcript();
        for (vestra_api_data &request : alone) process_request(&request, 1);
        const std::string log = log_text();
        begin_transcript();
        answer_requests(together);
        ASSERT_EQ(log_text(), log);
        for (int i = 0; i < 17; ++i) ASSERT_EQ(bytes(together[i]), bytes(alone[i]));
        for (const vestra_api_data &request : together) {
            if (request.window == 0 || request.packet_type < 0 || request.packet_type > 16) continue;
            std::vector<double> values;  // newest first
            for (int i = 0; i < std::min(180, request.window + 1); ++i) {
                values.push_back(vital(collectedData[(279 - i) % 180], static_cast<unsigned>(request.packet_type)));
            }
            double greatest = -1, least = -1, sum = 0, count = 0, squares = 0;
            for (const double value : values) {
                if (greatest == -1 || greatest < value) greatest = value;
                if (least == -1 || (value > 0 && value < least)) least = value;
                if (value > 0) sum += value, ++count;
            }
            const double average = static_cast<float>(sum / count);
            for (const double value : values) squares += value > 0 ? (value - average) * (value - average) : 0;
            const float variance = static_cast<float>(squares / count);
            const vestra_api_data plain = {
                request.packet_type, request.window, greatest, least, average, variance, -7, 0};
            ASSERT_EQ(bytes(request), bytes(plain)) << "vital " << request.packet_type;
        }
    }
}

TEST_F(Window, RequestsAreIndexedByTypeUnlessThereIsOne) {
    std::vector<vestra_api_data> reqs(4, {-1, 0, -7, -7, -7, -7, -7, 0});
    process_request(reqs.data(), 1);
    EXPECT_EQ(log_text(), "");
    reqs[0].packet_type = 0;
    process_request(reqs.data(), 1);
    EXPECT_EQ(reqs[0].answer_type, -7) << "the client service's";
    reqs[1].packet_type = 2;  // request 2 is answered: with its own type, which is 1
    reqs[2].packet_type = 1;
    reqs[3].packet_type = 3;
    process_request(reqs.data(), 3);
    EXPECT_EQ(reqs[3].maximum, -7) << "not in the array";
    expect_golden("requests-by-type", log_text());
    reqs[1].packet_type = reqs[2].packet_type = -1;
    for (const int type : {3, 17, -2, INT_MIN, INT_MAX}) {
        reqs[0].packet_type = type;
        process_request(reqs.data(), 3);
        EXPECT_EQ(log_text(), "6 process_request ERR:vestra : Not a valid packetType$\n") << type;
        if (type == 3) continue;
        getResult(&reqs[0], maxTimeValue, last_index);
        EXPECT_EQ(reqs[0].maximum, 30) << type;
        EXPECT_EQ(log_text(), "6 getTypeResult ERR:vestra : Not a valid packetType$\n") << type;
    }
}
