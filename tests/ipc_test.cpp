// The client service with its thread running, asked through the clients' half of the library and through segments whose
// contents nobody can trust.

#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>

#include "decoder_support.h"
#include "platform/dlog.h"
#include "platform/fault.h"
#include "vestra-daemon/vestra_ipc.h"
#include "vestra-daemon/vestrad.h"

using namespace decoder_test;
using namespace std::chrono_literals;

// Requests that a test posts itself, past the clients' half of the library: the daemon's wait takes these while a
// record is written by hand.
static std::atomic<bool> by_hand;
static sem_t hand_posted;

extern "C" int __real_vestra_request_sem_lock_func(const char *caller, int n);
extern "C" int __wrap_vestra_request_sem_lock_func(const char *caller, int n) {
    EXPECT_STREQ(caller, "client_request_process");
    EXPECT_EQ(n, 6);
    if (!by_hand) return __real_vestra_request_sem_lock_func(caller, n);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return sem_trywait(&hand_posted);
}

namespace {

constexpr char kSegment[] = "/vestra_ipc_test";

bool soon(const std::function<bool()> &condition, std::chrono::milliseconds limit = 8000ms) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(5ms);
    }
    return condition();
}

class Service : public DecoderTest {
  protected:
    Service() {
        setenv("VESTRA_API_SHM", kSegment, 1);
        for (int second = 1; second <= 30; ++second) {
            _SYSDATA_ data = {};
            data.timestamp = data.switch_timestamp = second * kSecond;
            data.element10 = second;
            data.utime[0] = second * second;
            groupData(&data, 7, 1);
        }
        take_log();
        start();
    }
    ~Service() override {
        stop();
        platform_faults_reset();
        shm_unlink(kSegment);
    }

    void start() {
        exit_flag = 0;
        by_hand = false;
        sem_init(&hand_posted, 0, 0);
        record = static_cast<vestra_shm_record *>(get_shm());
        record->marker = 1;
        thread_ = std::thread([] { EXPECT_EQ(client_request_process(nullptr), nullptr); });
    }
    void stop() {
        exit_flag = 1;
        if (thread_.joinable()) thread_.join();
    }

    // Posts the record as it is, as a client would that writes it itself.
    void post(int32_t state) const {
        by_hand = true;
        __atomic_store_n(&record->state, state, __ATOMIC_RELEASE);
        sem_post(&hand_posted);
    }
    int ready() const {
        int value = -1;
        sem_getvalue(&record->ready, &value);
        return value;
    }
    bool reaches(int32_t state) const {
        return soon([&] { return __atomic_load_n(&record->state, __ATOMIC_ACQUIRE) == state && ready() > 0; });
    }

    vestra_shm_record *record = nullptr;

  private:
    std::thread thread_;
};

// A client of its own for each question.
int ask(vestra_api_data *requests, int count, int timeout_ms = 5000) {
    const vestra_api_h client = vestra_api_open();
    const int result = vestra_api_ask(client, requests, count, timeout_ms);
    vestra_api_close(client);
    return result;
}

vestra_api_data request(int type, int window) {
    return {type, window, 0, 0, 0, 0, 0, 0};
}

TEST_F(Service, ClientGetsAllSeventeenAtOnce) {
    vestra_api_data requests[17];
    for (int i = 0; i < 17; ++i) requests[i] = request(16 - i, i % 3 * 10);  // in no particular order
    ASSERT_EQ(ask(requests, 17), VESTRA_API_OK);
    for (const vestra_api_data &answer : requests) {
        _VestraData_ expected;
        getTypeResult(&expected, answer.packet_type, answer.window, maxTimeValue, last_index);
        const double figures[] = {answer.maximum, answer.minimum, answer.average, answer.variance};
        EXPECT_EQ(memcmp(&expected, figures, sizeof(expected)), 0) << answer.packet_type;
        EXPECT_EQ(answer.answer_type, answer.packet_type);
    }
    EXPECT_EQ(requests[16].maximum, 30);
    EXPECT_TRUE(take_line({kDebug, "client_request_process",
                           "[client_request_process] 0 16 30.000000 20.000000, 25.000000, 10.000000\n"}));
}

TEST_F(Service, UnusedEntriesAreLeftAlone) {
    for (vestra_api_data &entry : record->request) entry = {-1, 5, 1, 2, 3, 4, 99, 0};
    record->request[7] = request(0, 0);
    post(1);
    ASSERT_TRUE(reaches(2));
    for (int i = 0; i < 17; ++i) {
        EXPECT_EQ(record->request[i].maximum, i == 7 ? 30 : 1) << i;
        EXPECT_EQ(record->request[i].answer_type, i == 7 ? 0 : 99) << i;
    }
}

TEST_F(Service, HostileEntriesGetNoFigures) {
    const int32_t kTypes[] = {17, -2, std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::min(),
                              0x7f7f7f7f};
    const int32_t kWindows[] = {-1, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max(), 181, 0};
    for (int i = 0; i < 5; ++i) {
        record->request[i] = request(kTypes[i], kWindows[i]);
        record->request[i + 5] = request(3 * i, kWindows[i]);
    }
    post(1);
    ASSERT_TRUE(reaches(2));
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(std::isnan(record->request[i].maximum) && std::isnan(record->request[i].variance)) << i;
        uint64_t bits = 0;
        memcpy(&bits, &record->request[i].average, sizeof(bits));
        EXPECT_EQ(bits, ~uint64_t{0}) << i;
        EXPECT_EQ(record->request[i].answer_type, kTypes[i]);
    }
    EXPECT_EQ(record->request[5].maximum, -1) << "an empty window";
    int refused = 0;
    for (const LogLine &line : take_log()) refused += line.text == "ERR:vestra : Not a valid packetType\n" ? 1 : 0;
    EXPECT_EQ(refused, 5);
}

TEST_F(Service, RecordThatChangesAllTheTimeDoesNoHarm) {
    std::atomic<bool> done{false};
    dlog_set_threshold(7);
    std::thread liar([&] {
        for (unsigned i = 1; !done; i = i * 1664525 + 1013904223) {
            __atomic_store_n(&record->request[i % 17].packet_type, static_cast<int32_t>(i >> 3), __ATOMIC_RELAXED);
            __atomic_store_n(&record->request[i % 17].window, static_cast<int32_t>(i), __ATOMIC_RELAXED);
            __atomic_store_n(&record->state, static_cast<int32_t>(i >> 7 & 7), __ATOMIC_RELAXED);
        }
    });
    for (int i = 0; i < 50; ++i) {
        post(1);
        std::this_thread::sleep_for(1ms);
    }
    done = true;
    liar.join();
    by_hand = false;
    vestra_api_data question = request(0, 0);
    // It may be waiting for the last of those requests; what is asked meanwhile is given up with it.
    EXPECT_TRUE(soon([&] { return ask(&question, 1, 10000) == VESTRA_API_OK; }, 15000ms));
    EXPECT_EQ(question.maximum, 30);
}

TEST_F(Service, GivesUpOnARequestThatNeverComes) {
    const auto start = std::chrono::steady_clock::now();
    post(3);
    EXPECT_TRUE(reaches(6));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4200ms);
    EXPECT_EQ(ready(), 1);
}

TEST_F(Service, WaitsForARequestThatComesLate) {
    record->request[0] = request(0, 0);
    post(3);
    std::this_thread::sleep_for(500ms);
    __atomic_store_n(&record->state, 1, __ATOMIC_RELEASE);
    EXPECT_TRUE(reaches(2));
    EXPECT_EQ(record->request[0].maximum, 30);
}

TEST_F(Service, WakesTheClientAlsoWhenASignalIsPending) {
    sem_post(&record->ready);
    post(1);
    EXPECT_TRUE(soon([&] { return ready() == 2; }));
    EXPECT_EQ(record->state, 2);
}

TEST_F(Service, SurvivesTheLossOfTheSegment) {
    vestra_api_data question = request(0, 0);
    ASSERT_EQ(ask(&question, 1), VESTRA_API_OK);
    post(3);
    std::this_thread::sleep_for(50ms);
    ASSERT_EQ(shm_unlink(kSegment), 0);  // while it waits for the request
    by_hand = false;
    EXPECT_TRUE(soon([&] { return ask(&question, 1, 500) == VESTRA_API_OK; })) << "a new one is served";
}

TEST_F(Service, LooksAgainWhileThereIsNoSegment) {
    platform_fail_always(FAULT_GET_SHM);
    testing::internal::CaptureStdout();
    std::this_thread::sleep_for(1600ms);
    fflush(stdout);
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string notice = "Ves-Tra SHM has been removed or daemon init in progress!!!";
    EXPECT_EQ(printed.substr(0, 2 * notice.size()), notice + notice);
    platform_faults_reset();
    vestra_api_data question = request(0, 0);
    EXPECT_EQ(ask(&question, 1), VESTRA_API_OK);
}

TEST_F(Service, WaitsUntilTheDaemonIsReady) {
    stop();
    start();
    record->marker = 0;
    std::this_thread::sleep_for(1200ms);  // the wait that it may be in ends by itself
    record->request[0] = request(0, 0);
    post(1);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(record->state, 1);
    record->marker = 1;
    EXPECT_TRUE(reaches(2));
}

TEST_F(Service, ManyClientsTakeTurnsWhileTheRingMoves) {
    dlog_set_threshold(7);
    std::atomic<int> answered{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([&answered, i] {
            for (int n = 0; n < 20; ++n) {
                vestra_api_data question = request(i, 10);
                answered += ask(&question, 1, 10000) == VESTRA_API_OK && question.answer_type == i ? 1 : 0;
            }
        });
    }
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(answered, 80);
}

}  // namespace
