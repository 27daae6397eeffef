#include "platform/vestra_api.h"

#include <grp.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "platform_env.h"

namespace {

using Clock = std::chrono::steady_clock;

// Shared with the process or thread that plays the daemon.
struct Play {
    std::atomic<bool> hold{false};  // the daemon stays in the middle of its answer meanwhile
    std::atomic<bool> mute{false};  // does not look for requests
    std::atomic<bool> quit{false};
    std::atomic<int> taken{0};        // requests taken
    std::atomic<int> give_up{0};      // this many requests are given up
    std::atomic<int> unanswered{-1};  // packet type that is left out
};

// The daemon's service. Answers maximum = type * 1000 + window.
void serve(Play *play) {
    while (!play->quit) {
        void *address = get_shm();
        if (address == nullptr || play->mute) {
            usleep(1000);
            continue;
        }
        auto *shm = static_cast<vestra_shm_record *>(address);
        __atomic_store_n(&shm->marker, 1, __ATOMIC_RELEASE);
        if (vestra_request_sem_lock_func("client_request_process", 6) < 0) continue;
        ++play->taken;
        const bool give_up = play->give_up > 0;
        if (give_up) --play->give_up;
        __atomic_store_n(&shm->state, VESTRA_REQUEST_ANSWERING, __ATOMIC_RELEASE);
        vestra_api_data local[kVestraVitals];
        for (int i = 0; i < kVestraVitals; ++i) local[i] = shm->request[i];
        while (play->hold) usleep(500);
        for (int i = 0; i < kVestraVitals && !give_up; ++i) {
            if (local[i].packet_type == kVestraUnused || local[i].packet_type == play->unanswered) continue;
            shm->request[i].maximum = local[i].packet_type * 1000 + local[i].window;
            shm->request[i].answer_type = shm->request[i].packet_type;
        }
        __atomic_store_n(&shm->state, give_up ? VESTRA_REQUEST_GIVEN_UP : VESTRA_REQUEST_ANSWERED, __ATOMIC_RELEASE);
        vestra_ready_sem_unlock_func("client_request_process");
    }
}

class VestraApi : public PlatformTest {
  protected:
    VestraApi() {
        static int serial = 0;
        name_ = "/vestra_api_unit_" + std::to_string(getpid()) + "_" + std::to_string(++serial);
        setenv("VESTRA_API_SHM", name_.c_str(), 1);
        void *shared = mmap(nullptr, sizeof(Play), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        play_ = new (shared) Play;
        client_ = vestra_api_open();
    }
    ~VestraApi() override {
        play_->hold = false;
        play_->quit = true;
        if (thread_.joinable()) thread_.join();
        kill_daemon();
        vestra_api_close(client_);
        shm_unlink(name_.c_str());
        munmap(play_, sizeof(Play));
        unsetenv("VESTRA_API_SHM");
        unsetenv("VESTRA_API_GROUP");
    }

    template <typename Body>
    static pid_t in_process(const Body &body) {
        const pid_t pid = fork();
        if (pid == 0) {
            body();
            _exit(0);
        }
        return pid;
    }
    static void end(pid_t pid) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    void start_daemon() {
        daemon_ = in_process([this] { serve(play_); });
        ASSERT_TRUE(soon([this] { return ask(0, 0, 500) == VESTRA_API_OK; }));
    }
    void start_thread() {
        thread_ = std::thread([this] { serve(play_); });
        ASSERT_TRUE(soon([this] { return ask(0, 0, 500) == VESTRA_API_OK; }));
    }
    void kill_daemon() {
        if (daemon_ > 0) end(daemon_);
        daemon_ = 0;
    }

    // One question; the answer, or the result where there is none.
    int ask(int type, int window, int timeout_ms) const {
        vestra_api_data request = {};
        request.packet_type = type;
        request.window = window;
        request.maximum = -77;
        const int result = vestra_api_ask(client_, &request, 1, timeout_ms);
        if (result != VESTRA_API_OK) {
            EXPECT_EQ(request.maximum, -77) << "touched on failure";
            return result;
        }
        EXPECT_EQ(request.answer_type, type);
        return static_cast<int>(request.maximum);
    }
    static bool soon(const std::function<bool()> &happened) {
        for (const auto limit = Clock::now() + std::chrono::seconds(5); !happened(); usleep(500)) {
            if (Clock::now() > limit) return false;
        }
        return true;
    }
    static int64_t ms_since(Clock::time_point begin) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    }
    std::string file() const { return "/dev/shm" + name_; }

    std::string name_;
    Play *play_;
    vestra_api_h client_;
    pid_t daemon_ = 0;
    std::thread thread_;
};

}  // namespace

TEST_F(VestraApi, SeventeenAtOnceAndThreadsWithOneHandle) {
    start_thread();
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round) {
                vestra_api_data all[kVestraVitals] = {};
                for (int i = 0; i < kVestraVitals; ++i) {
                    all[i].packet_type = 16 - i;
                    all[i].window = t * 20 + round;
                }
                if (vestra_api_ask(client_, all, kVestraVitals, 10000) != VESTRA_API_OK) continue;
                int good = 0;
                for (int i = 0; i < kVestraVitals; ++i)
                    good += all[i].maximum == (16 - i) * 1000 + t * 20 + round ? 1 : 0;
                if (good == kVestraVitals) ++right;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(right, 80);
}

TEST_F(VestraApi, TheNextClientNeverGetsAnAbandonedRequestsAnswer) {
    start_thread();
    for (int round = 0; round < 5; ++round) {
        play_->hold = true;
        EXPECT_EQ(ask(3, 33, 30), VESTRA_API_TIMEOUT);
        std::thread release([this] {
            usleep(20000);
            play_->hold = false;
        });
        // Posts only when the daemon is done with the other one, and another time if that took too long.
        EXPECT_EQ(ask(5, round, 5000), 5000 + round);
        release.join();
    }
}

TEST_F(VestraApi, AClientKilledInItsTurnFreesTheTurnAndTheDaemon) {
    start_daemon();
    for (int round = 0; round < 5; ++round) {
        play_->hold = true;
        const int before = play_->taken;
        const pid_t victim = in_process([this] { ask(3, 33, 60000); });
        ASSERT_TRUE(soon([&] { return play_->taken > before; }));
        end(victim);  // it held the turn and waited for the answer
        play_->hold = false;
        EXPECT_EQ(ask(7, round, 5000), 7000 + round);
    }
    // Before the daemon has taken the request: the next client withdraws it.
    play_->mute = true;
    usleep(1200000);  // the daemon's wait for a request ends within 1 s
    const int before = play_->taken;
    const pid_t victim = in_process([this] { ask(3, 33, 60000); });
    usleep(50000);
    end(victim);
    EXPECT_EQ(ask(8, 1, 50), VESTRA_API_TIMEOUT);
    play_->mute = false;
    EXPECT_EQ(ask(8, 2, 5000), 8002);
    EXPECT_EQ(play_->taken, before + 1) << "the dead client's request was still served";
}

TEST_F(VestraApi, ADaemonKilledInTheMiddleIsNoticedLongBeforeTheTimeOut) {
    start_daemon();
    play_->hold = true;
    const int before = play_->taken;
    std::thread killer([&] {
        soon([&] { return play_->taken > before; });
        kill_daemon();
    });
    const auto begin = Clock::now();
    EXPECT_EQ(ask(3, 33, 30000), VESTRA_API_NO_DAEMON);
    EXPECT_LT(ms_since(begin), 5000);
    killer.join();
    EXPECT_EQ(ask(3, 33, 1000), VESTRA_API_NO_DAEMON);
    play_->hold = false;
    start_daemon();
    EXPECT_EQ(ask(4, 44, 5000), 4044);
}

TEST_F(VestraApi, TheTimeOutHoldsForTurnsToo) {
    start_daemon();
    play_->hold = true;
    std::thread holder([this] { EXPECT_EQ(ask(3, 33, 2000), VESTRA_API_TIMEOUT); });
    usleep(50000);
    const auto begin = Clock::now();
    EXPECT_EQ(ask(3, 33, 50), VESTRA_API_TIMEOUT) << "the handle's turn";
    EXPECT_EQ(in_child([] {
                  vestra_api_h other = vestra_api_open();
                  vestra_api_data request = {};
                  return vestra_api_ask(other, &request, 1, 50) == VESTRA_API_TIMEOUT ? 0 : 1;
              }),
              0)
        << "the segment's turn";
    EXPECT_LT(ms_since(begin), 1500);
    holder.join();
}

TEST_F(VestraApi, WhatTheDaemonLeavesOutIsNoAnswer) {
    start_daemon();
    play_->give_up = 1;
    EXPECT_EQ(ask(3, 33, 5000), VESTRA_API_TIMEOUT) << "given up";
    EXPECT_EQ(ask(3, 33, 5000), 3033);
    play_->unanswered = 9;
    EXPECT_EQ(ask(9, 33, 5000), VESTRA_API_REFUSED);
    vestra_api_data two[2] = {};
    two[1].packet_type = 9;
    two[0].maximum = -77;
    EXPECT_EQ(vestra_api_ask(client_, two, 2, 5000), VESTRA_API_REFUSED);
    EXPECT_EQ(two[0].maximum, -77);
}

TEST_F(VestraApi, ADaemonThatIsNotReadyIsNone) {
    auto *shm = static_cast<vestra_shm_record *>(get_shm());
    ASSERT_NE(shm, nullptr);
    shm->marker = 0;
    EXPECT_EQ(ask(0, 0, 100), VESTRA_API_NO_DAEMON);
    shm->marker = 1;
    EXPECT_EQ(ask(0, 0, 100), VESTRA_API_TIMEOUT);
}

TEST_F(VestraApi, OnlyOneDaemonServesASegment) {
    start_daemon();
    LogText log;
    EXPECT_EQ(get_shm(), nullptr);
    EXPECT_NE(log.take().find("another daemon"), std::string::npos);
    EXPECT_EQ(ask(4, 44, 5000), 4044);
    kill_daemon();
    EXPECT_NE(get_shm(), nullptr) << "what a dead daemon left is replaced";
}

TEST_F(VestraApi, ForeignAndWrongSegmentsAreRefused) {
    const auto refused = [this](const char *what) {
        LogText log;
        EXPECT_EQ(ask(0, 0, 100), VESTRA_API_NO_DAEMON) << what;
        EXPECT_NE(log.take().find(name_), std::string::npos) << what;
    };
    for (const size_t size : {size_t{1}, size_t{912}, size_t{1} << 20}) {
        std::ofstream(file(), std::ios::binary) << std::string(size, '\xff');
        refused("another size");
    }
    std::filesystem::remove(file());
    std::filesystem::create_symlink("/etc/passwd", file());
    refused("a link");
    LogText log;
    EXPECT_EQ(get_shm(), nullptr);
    EXPECT_NE(log.take(), "");
    EXPECT_TRUE(std::filesystem::exists("/etc/passwd"));
    std::filesystem::remove(file());
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a segment away";
    start_daemon();
    if (chown(file().c_str(), 12345, 12345) != 0) GTEST_SKIP() << "no other users here";
    vestra_api_close(client_);
    client_ = vestra_api_open();
    refused("another user's");
    kill_daemon();
    start_daemon();  // a daemon of root's takes its name back from whoever put something there
}

TEST_F(VestraApi, OnlyAGroupThatIsNamedMayOpenTheSegment) {
    struct stat info;
    ASSERT_NE(get_shm(), nullptr);
    ASSERT_EQ(stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    shm_unlink(name_.c_str());
    setenv("VESTRA_API_GROUP", "no such group", 1);
    LogText log;
    ASSERT_NE(get_shm(), nullptr);
    EXPECT_NE(log.take().find("no such group"), std::string::npos);
    ASSERT_EQ(stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    shm_unlink(name_.c_str());
    const group *own = getgrgid(getegid());
    if (own == nullptr) GTEST_SKIP() << "no group database";
    setenv("VESTRA_API_GROUP", own->gr_name, 1);
    ASSERT_NE(get_shm(), nullptr);
    ASSERT_EQ(stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0660U);
    EXPECT_EQ(info.st_gid, getegid());
}

TEST_F(VestraApi, ARemovedSegmentsAddressStaysMemory) {
    std::vector<void *> addresses;
    for (int round = 0; round < 12; ++round) {
        void *shm = get_shm();
        ASSERT_NE(shm, nullptr);
        EXPECT_EQ(get_shm(), shm);
        EXPECT_EQ(check_if_valid_shm(&shm), 1);
        auto *record = static_cast<vestra_shm_record *>(shm);
        if (round == 0) record->marker = 1;  // as the daemon's main does, once
        EXPECT_EQ(record->marker, 1) << "not carried over";
        addresses.push_back(shm);
        ASSERT_EQ(shm_unlink(name_.c_str()), 0);
        EXPECT_EQ(check_if_valid_shm(&shm), 0);
        for (void *old : addresses) static_cast<vestra_shm_record *>(old)->state = VESTRA_REQUEST_ANSWERED;
    }
    void *now = get_shm();
    EXPECT_EQ(check_if_valid_shm(&addresses.back()), 0);
    EXPECT_EQ(check_if_valid_shm(&now), 1);
    void *none = nullptr;
    EXPECT_EQ(check_if_valid_shm(&none), 0);
    EXPECT_EQ(check_if_valid_shm(nullptr), 0);
}

TEST_F(VestraApi, TheDaemonsWaitEndsAlsoWithoutARequest) {
    auto *shm = static_cast<vestra_shm_record *>(get_shm());
    ASSERT_NE(shm, nullptr);
    const auto begin = Clock::now();
    EXPECT_LT(vestra_request_sem_lock_func("client_request_process", 6), 0);
    EXPECT_LT(ms_since(begin), 5000);
}

TEST_F(VestraApi, EachOperationFailsOnPurpose) {
    start_thread();
    platform_fail_nth(FAULT_API_ASK, 1);
    EXPECT_EQ(ask(1, 1, 5000), VESTRA_API_NO_DAEMON);
    EXPECT_EQ(ask(1, 1, 5000), 1001);
    platform_fail_nth(FAULT_API_OPEN, 1);
    EXPECT_EQ(vestra_api_open(), nullptr);
    platform_fail_nth(FAULT_READY_POST, 1);
    EXPECT_EQ(ask(1, 2, 5000), 1002) << "a lost signal costs time, not the answer";
    for (const auto operation : {FAULT_GET_SHM, FAULT_REQUEST_WAIT}) {
        platform_fail_nth(operation, 1);
        EXPECT_EQ(ask(1, 3, 5000), 1003);
    }
    play_->quit = true;
    thread_.join();
    void *shm = get_shm();
    platform_fail_nth(FAULT_CHECK_SHM, 1);
    EXPECT_EQ(check_if_valid_shm(&shm), 0);
    EXPECT_EQ(check_if_valid_shm(&shm), 1);
}
