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
        world().segment_is_gone = false;
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
    } kRows[] = {
        {"posted", 1, 0, -1, nullptr},
        {"posted, signal of another is pending", 1, 1, -1, nullptr},
        {"late at the last wait", 3, 0, 21, [](auto *r) { r->state = 1; }},
        {"never posted", 3, 0, -1, nullptr},
        {"never posted, signal of another is pending", 3, 1, -1, nullptr},
        {"stopped", 3, 0, 2, [](auto *) { exit_flag = 1; }},
        {"segment lost", 3, 0, 2, [](auto *) { shm_unlink(kSegment); }},
        {"segment invalid all along", 1, 0, 0, [](auto *) { world().segment_is_gone = true; }},
    };
    std::string results;
    for (const auto &row : kRows) {
        prepare();
        record_->state = row.state;
        record_->request[0] = {17, INT_MIN, 1, 2, 3, 4, 99, 0};
        record_->request[16] = {0, 10, 1, 2, 3, 4, 99, 0};
        if (row.pending > 0) sem_post(&record_->ready.semaphore);
        world().on_wait = [&](int wait) {
            if (wait == row.wait) row.change(record_);
        };
        world().on_wait(0);
        serve();
        int signals = 0;
        while (sem_trywait(&record_->ready.semaphore) == 0) ++signals;
        results += text("%s: state %d, %d signals\n", row.name, record_->state, signals) + seen_text("3456w");
        for (const int index : {0, 8, 16}) {
            const vestra_api_data &entry = record_->request[index];
            results += text("entry %d: %g %g %g %g, %d\n", index, std::fabs(entry.maximum), std::fabs(entry.minimum),
                            std::fabs(entry.average), std::fabs(entry.variance), entry.answer_type);
        }
    }
    expect_golden("requests-to-the-service", results);
}

TEST_F(VestraIpc, SegmentThatIsNotReadyIsLookedForAgain) {
    record_->state = 1;
    world().no_segment = true;
    world().on_wait = [&](int wait) {
        if (wait == 2) world().no_segment = false;
        record_->marker = wait == 4 ? 1 : 0;
    };
    const std::string notice = "Ves-Tra SHM has been removed or daemon init in progress!!!";
    EXPECT_EQ(printed_by([] { serve({false, false}); }), notice + notice + notice + notice);
    EXPECT_THAT(seen("w"), ElementsAre("wait 200000 *4"));
    EXPECT_EQ(record_->state, 1) << "a wait without a request answers none";
}
