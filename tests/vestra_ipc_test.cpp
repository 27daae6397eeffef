// The client service on a segment whose contents nobody can trust. Real clients are in e2e/clients_test.py.

#include "vestra-daemon/vestra_ipc.h"

#include <sys/mman.h>

#include <cmath>

#include "support/daemon_env.h"

using namespace vestra_test;

static const char kSegment[] = "/vestra_ipc_test";

class VestraIpc : public DaemonTest {
  protected:
    VestraIpc() {
        setenv("VESTRA_API_SHM", kSegment, 1);
        init_collected_data();
        maxTimeValue = -1;
        _SYSDATA_ sample = {};
        for (int second = 1; second <= 30; ++second) {
            sample.timestamp = sample.switch_timestamp = second * int64_t{1'000'000'000};
            sample.element10 = second;
            groupData(&sample, 7, 1);
        }
        prepare();
    }
    ~VestraIpc() override { drop(); }

    void drop() const {
        static_cast<vestra_shm_record *>(get_shm())->marker = 0;  // or the next segment takes it over
        if (record_ != nullptr) record_->marker = 0;
        shm_unlink(kSegment);
    }
    // A new segment, all of whose entries are unused but carry figures.
    void prepare() {
        platform_faults_reset();
        drop();
        begin_transcript();
        record_ = static_cast<vestra_shm_record *>(get_shm());
        record_->marker = 1;
        for (vestra_api_data &entry : record_->request) entry = {-1, 5, 1, 2, 3, 4, 99, 0};
    }
    // Lets the service find requests: one for each true; it is stopped after them.
    static void serve(std::vector<bool> requests = {true}) {
        exit_flag = 0;
        world().on_request = [requests, next = size_t{0}]() mutable {
            if (next < requests.size()) return requests[next++] ? 0 : -1;
            exit_flag = 1;
            return -1;
        };
        EXPECT_EQ(client_request_process(nullptr), nullptr);
    }

    vestra_shm_record *record_ = nullptr;
};

TEST_F(VestraIpc, RequestIsAnsweredWaitedForOrGivenUp) {
    static const struct {
        const char *name;
        int state, pending;  // that the service finds: the record's state, signals that nobody has taken
        int wait;            // wait at which `change` comes; 0: before the first
        void (*change)(vestra_shm_record *);
        int state_after, signals_after;
        Strings waits;
        bool answered;
    } kRows[] = {
        {"Posted", 1, 0, -1, nullptr, 2, 1, {}, true},
        {"SignalOfAnotherIsPending", 1, 1, -1, nullptr, 2, 2, {}, true},
        {"LateAtTheLastWait", 3, 0, 21, [](auto *r) { r->state = 1; }, 2, 1, {"wait 200000 *21"}, true},
        {"NeverPosted", 3, 0, -1, nullptr, 6, 1, {"wait 200000 *21"}, false},
        {"NeverPostedAndPending", 3, 1, -1, nullptr, 3, 1, {"wait 200000 *21"}, false},
        {"Stopped", 3, 0, 2, [](auto *) { exit_flag = 1; }, 6, 1, {"wait 200000 *2"}, false},
        {"SegmentLost", 3, 0, 2, [](auto *) { shm_unlink(kSegment); }, 3, 1, {"wait 200000 *2"}, false},
        {"InvalidAllAlong", 1, 0, 0, [](auto *) { platform_fail_always(FAULT_CHECK_SHM); }, 1, 1, {}, false},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        prepare();
        record_->state = row.state;
        record_->request[0] = {17, INT_MIN, 1, 2, 3, 4, 99, 0};
        record_->request[16] = {0, 10, 1, 2, 3, 4, 99, 0};
        if (row.pending > 0) sem_post(&record_->ready);
        if (row.wait == 0) row.change(record_);
        world().on_wait = [&](int wait) {
            if (wait == row.wait) row.change(record_);
        };
        serve();
        EXPECT_EQ(record_->state, row.state_after);
        int signals = 0;
        while (sem_trywait(&record_->ready) == 0) ++signals;
        EXPECT_EQ(signals, row.signals_after);
        EXPECT_EQ(seen("w"), row.waits);
        EXPECT_EQ(record_->request[0].answer_type, row.answered ? 17 : 99);
        EXPECT_EQ(std::isnan(record_->request[0].maximum), row.answered) << "unknown type: no figures";
        EXPECT_EQ(record_->request[8].maximum, 1) << "unused";
        EXPECT_EQ(record_->request[16].answer_type, row.answered ? 0 : 99);
        EXPECT_THAT(seen(), Contains("3 [client_request_process] 0 16 30.000000 20.000000, 25.000000, 10.000000 *2")
                                .Times(row.answered ? 1 : 0));
    }
}

TEST_F(VestraIpc, SegmentThatIsNotReadyIsLookedForAgain) {
    record_->state = 1;
    platform_fail_always(FAULT_GET_SHM);
    world().on_wait = [&](int wait) {
        if (wait == 2) platform_faults_reset();
        record_->marker = wait == 4 ? 1 : 0;
    };
    const std::string notice = "Ves-Tra SHM has been removed or daemon init in progress!!!";
    EXPECT_EQ(printed_by([] { serve({false, false}); }), notice + notice + notice + notice);
    EXPECT_THAT(seen("w"), ElementsAre("wait 200000 *4"));
    EXPECT_EQ(record_->state, 1) << "a wait without a request answers none";
}
