// Seconds recovered from the daemon's own answers, from rings with gaps, zeros and constant figures.

#include "tools/stat/history.h"
#include "tools/stat/sparkline.h"

#include <cmath>
#include <map>
#include <random>
#include <sstream>

#include "decoder_support.h"

using namespace decoder_test;
using vestra_stat::Second;

namespace {

constexpr int kNewest = 777;  // second
constexpr int64_t kEnd = kNewest * kSecond + kSecond / 10;
using Row = std::array<double, VESTRA_API_VITALS>;

class StatHistory : public DecoderTest {
  protected:
    // Second kNewest - `back`, whose last sample is at this time.
    static void put(int back, int64_t time, const Row &row) {
        _SYSDATA_ &data = collectedData[(kNewest - back) % kSlotCount];
        data.timestamp = time;
        data.flags = 0x80;
        std::copy(row.begin(), row.end(), &data.element10);
        maxTimeValue = kEnd;
        last_index = kNewest % kSlotCount;
    }

    static std::vector<Second> recovered() {
        vestra_stat::WindowPairs pairs;
        for (int type = 0; type < VESTRA_API_VITALS; ++type) {
            const auto asked = [&](int window) {
                vestra_api_data request = {};
                request.packet_type = type;
                request.window = window;
                process_request(&request, 1);
                return request;
            };
            for (int age = 1; age <= VESTRA_API_WINDOW_MAX; ++age) {
                pairs[static_cast<size_t>(type)][static_cast<size_t>(age - 1)] = {asked(age - 1), asked(age)};
            }
        }
        return recover(pairs);
    }
};

TEST_F(StatHistory, SecondsOfRandomRingsComeBack) {
    const Row scales = {100, 100, 100, 100, 100, 45, 47, 46, 100, 0, 80, 100, 100, 100, 1500200, 8e6, 1e9};
    int known = 0, unknown = 0;
    for (unsigned seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto uniform = [&](double most) { return std::uniform_real_distribution<double>(0, most)(random); };
        std::map<int, std::vector<Row>> planned;  // by age
        const double gaps = seed % 2 == 0 ? 0 : uniform(0.3), early = seed % 4 < 2 ? 0 : uniform(0.2);
        for (int back = 0; back < VESTRA_API_WINDOW_MAX; ++back) {
            Row row;
            for (double &value : row) value = std::round(1 + uniform(9999)) / 100;
            row[5] = 45;
            row[6] = 45 + back / 60;
            row[7] = uniform(1) < 0.5 ? 45 : 46;
            row[9] = 0;
            if (uniform(1) < 0.8) row[10] = 0;
            row[14] = 1500000 + std::round(uniform(200));
            row[15] = std::round(uniform(8e6));
            row[16] = uniform(1e9);
            const bool gap = back > 0 && uniform(1) < gaps;
            const double fraction = back > 0 && uniform(1) < early ? 0.05 : 0.9;
            const int64_t time = (kNewest - back) * kSecond + static_cast<int64_t>(fraction * kSecond);
            put(back, gap ? time - 180 * kSecond : time, row);
            if (!gap) planned[back + (fraction < 0.1 ? 1 : 0)].push_back(row);
        }
        planned.erase(181);
        for (const Second &second : recovered()) {
            ASSERT_EQ(planned[second.age].size(), 1u) << second.age;
            for (size_t type = 0; type < VESTRA_API_VITALS; ++type) {
                const double value = second.vitals[type];
                ++(std::isnan(value) ? unknown : known);
                if (std::isnan(value) && early > 0) continue;  // after two seconds at once, counts are less certain
                ASSERT_NEAR(value, planned[second.age][0][type], 4.4e-5 * scales[type]) << second.age << " " << type;
            }
            planned.erase(second.age);
        }
        for (const auto &[age, rows] : planned) ASSERT_EQ(rows.size(), 2u) << age;
    }
    EXPECT_LT(unknown * 1000, known);
}

// The first vital, newest second first; the second one always varies. "?" is unknown.
TEST_F(StatHistory, FigureThatIsRepeatedMayBeZero) {
    const double infinite = std::numeric_limits<double>::infinity();
    const struct {
        const char *name;
        size_t type;
        std::vector<double> figures;
        const char *recovered;
    } rows[] = {{"one more", 5, {45, 45, 45}, "45 45 45"},
                {"zeros look the same", 5, {45, 0, 0}, "45 45 45"},
                {"until a figure shows it", 5, {45, 0, 0, 46}, "45 0 0 46"},
                {"some of them", 5, {45, 0, 45, 46, 0}, "45 ? ? 46 0"},
                {"zeros before", 5, {0, 45, 45, 45}, "0 45 ? ?"},
                {"zeros before, settled", 5, {0, 45, 45, 45, 44}, "0 45 45 45 44"},
                {"share of time", 10, {4, 0, 0}, "4 ? ?"},
                {"share of time, settled", 10, {4, 0, 0, 2.5, 0}, "4 0 0 2.5 0"},
                {"not a float", 11, {0.1, 0.1, 0.1, 0.7}, "0.1 0.1 0.1 0.7"},
                {"negative", 6, {-3, -4, 5}, "-3 0 5"},
                {"infinite", 11, {1, 2, infinite, 3}, "1 2 ? ?"},
                {"square does not fit", 11, {1, 2, 1e30, 3}, "1 2 ? ?"}};
    for (const auto &row : rows) {
        init_collected_data();
        for (size_t back = 0; back < row.figures.size(); ++back) {
            Row figures = {};
            figures[0] = 100.0 + static_cast<double>(back * back);
            figures[row.type] = row.figures[back];
            put(static_cast<int>(back), kEnd - static_cast<int64_t>(back) * kSecond, figures);
        }
        std::string text;
        for (const Second &second : recovered()) {
            std::ostringstream figure;
            figure << second.vitals[row.type];
            text += (text.empty() ? "" : " ") + (std::isnan(second.vitals[row.type]) ? "?" : figure.str());
        }
        EXPECT_EQ(text, row.recovered) << row.name;
    }
}

TEST_F(StatHistory, SparklineShowsFiguresOnTheirOwnScale) {
    EXPECT_EQ(vestra_stat::sparkline({20, NAN, 50, 10, INFINITY, 70, 30}, false), ". +_ #-");
    EXPECT_EQ(vestra_stat::sparkline({1e308, -1e308}, true), "\u2588\u2581");
    EXPECT_EQ(vestra_stat::sparkline({5, 5 + 1e-9}, false), "__");
}

TEST_F(StatHistory, EmptyRingHasNoSeconds) {
    EXPECT_TRUE(recovered().empty());
}

}  // namespace
