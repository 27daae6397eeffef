// The client library's two sides without a whole daemon: what is refused, and whose segment it is. What happens to a
// client when another client or the daemon dies is in e2e/clients_test.py.

#include "client/vestra_api.h"

#include <grp.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include "platform_env.h"

using namespace vestra_test;

constexpr int kLong = 30000;  // ms

struct Play {
    std::atomic<bool> quit{false};
    std::atomic<int> taken{0};        // requests taken
    std::atomic<int> give_up{0};      // this many requests are given up
    std::atomic<int> unanswered{-1};  // packet type that is left out
};

// The daemon's service. Answers maximum = type * 1000 + window.
static void serve(Play *play) {
    while (!play->quit) {
        auto *shm = static_cast<vestra_shm_record *>(get_shm());
        if (shm == nullptr) {
            usleep(1000);
            continue;
        }
        __atomic_store_n(&shm->marker, 1, __ATOMIC_RELEASE);
        if (vestra_request_sem_lock_func("client_request_process", 6) < 0) continue;
        ++play->taken;
        const bool give_up = play->give_up > 0;
        if (give_up) --play->give_up;
        for (vestra_api_data &entry : shm->request) {
            if (give_up || entry.packet_type == VESTRA_API_UNUSED || entry.packet_type == play->unanswered) continue;
            entry.maximum = entry.packet_type * 1000 + entry.window;
            entry.answer_type = entry.packet_type;
        }
        __atomic_store_n(&shm->state, give_up ? VESTRA_REQUEST_GIVEN_UP : VESTRA_REQUEST_ANSWERED, __ATOMIC_RELEASE);
        vestra_ready_sem_unlock_func("client_request_process");
    }
}

class VestraApi : public PlatformTest {
  protected:
    VestraApi() { setenv("VESTRA_API_SHM", name_.c_str(), 1); }
    ~VestraApi() override {
        play_.quit = true;
        if (thread_.joinable()) thread_.join();
        end_daemon();
        vestra_api_close(client_);
        shm_unlink(name_.c_str());
        shm_unlink((name_ + ".daemon").c_str());
        unsetenv("VESTRA_API_SHM");
        unsetenv("VESTRA_API_GROUP");
    }

    static vestra_shm_record *record() { return static_cast<vestra_shm_record *>(get_shm()); }
    // The service in a thread.
    void start_thread() {
        thread_ = std::thread(serve, &play_);
        EXPECT_TRUE(run_loop_until([&] { return ask(4, 44, 500) == 4044; }));
    }
    // The service in a process, in place of the one before.
    void start_daemon() {
        end_daemon();
        daemon_ = fork();
        if (daemon_ == 0) {
            serve(&play_);
            _exit(0);
        }
        EXPECT_TRUE(run_loop_until([&] { return ask(4, 44, 500) == 4044; }));
    }
    void end_daemon() {
        if (daemon_ <= 0) return;
        kill(daemon_, SIGKILL);
        waitpid(daemon_, nullptr, 0);
    }

    // One question; the answer, or the result where there is none.
    int ask(int type, int window, int timeout_ms) const {
        vestra_api_data request = {type, window, -77, 0, 0, 0, 0, 0};
        const int result = vestra_api_ask(client_, &request, 1, timeout_ms);
        EXPECT_EQ(request.maximum == -77, result != VESTRA_API_OK) << "touched on failure";
        return result != VESTRA_API_OK ? result : static_cast<int>(request.maximum);
    }
    // A client waits for the answer to its question.
    static bool posted() { return __atomic_load_n(&record()->state, __ATOMIC_ACQUIRE) == VESTRA_REQUEST_POSTED; }
    std::string file() const { return "/dev/shm" + name_; }
    void expect_refused() {
        vestra_api_close(client_);
        client_ = vestra_api_open();
        EXPECT_THAT(logged([&] { EXPECT_EQ(ask(0, 0, 100), VESTRA_API_NO_DAEMON); }), HasSubstr(name_));
        EXPECT_EQ(logged([&] { EXPECT_EQ(ask(0, 0, 100), VESTRA_API_NO_DAEMON); }), "") << "said once";
    }
    void expect_mode(mode_t mode) const {
        struct stat info;
        ASSERT_NE(get_shm(), nullptr);
        ASSERT_EQ(stat(file().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, mode);
        shm_unlink(name_.c_str());
    }

    const std::string name_ = "/vestra_api_unit_" + std::to_string(getpid());
    Play play_;
    vestra_api_h client_ = vestra_api_open();
    pid_t daemon_ = 0;
    std::thread thread_;
};

TEST_F(VestraApi, DaemonThatIsNotReadyIsNone) {
    vestra_shm_record *shm = record();
    EXPECT_EQ(ask(0, 0, 100), VESTRA_API_NO_DAEMON);
    shm->marker = 1;
    EXPECT_EQ(ask(0, 0, 100), VESTRA_API_TIMEOUT);
}

TEST_F(VestraApi, WhatTheDaemonLeavesOutIsNoAnswer) {
    start_thread();
    play_.give_up = 1;
    EXPECT_EQ(ask(3, 33, kLong), VESTRA_API_TIMEOUT) << "given up";
    EXPECT_EQ(ask(3, 33, kLong), 3033);
    play_.unanswered = 9;
    EXPECT_EQ(ask(9, 33, kLong), VESTRA_API_REFUSED);
}

TEST_F(VestraApi, RequestOutOfRangeIsRefused) {
    start_thread();
    const auto ask_for = [&](int type, int window, int count) {
        std::vector<vestra_api_data> requests(18, {type, window, 0, 0, 0, 0, 0, 0});
        return vestra_api_ask(client_, requests.data(), count, kLong);
    };
    EXPECT_EQ(ask_for(16, 180, 1) + ask_for(0, 0, 17), 2 * VESTRA_API_OK);
    for (const int type : {17, -1}) EXPECT_EQ(ask_for(type, 0, 1), VESTRA_API_REFUSED);
    for (const int window : {181, -1}) EXPECT_EQ(ask_for(0, window, 1), VESTRA_API_REFUSED);
    for (const int count : {0, 18}) EXPECT_EQ(ask_for(0, 0, count), VESTRA_API_REFUSED);
}

TEST_F(VestraApi, RequestOfADeadClientIsWithdrawnByTheNext) {
    record()->marker = 1;
    const pid_t victim = fork();
    if (victim == 0) _exit(ask(3, 33, kLong));
    EXPECT_TRUE(run_loop_until([&] { return posted(); }));
    kill(victim, SIGKILL);
    waitpid(victim, nullptr, 0);
    EXPECT_EQ(ask(8, 1, 50), VESTRA_API_TIMEOUT);
    thread_ = std::thread(serve, &play_);
    EXPECT_EQ(ask(8, 2, kLong), 8002);
    EXPECT_EQ(play_.taken, 1) << "nobody waits for the others any more";
}

TEST_F(VestraApi, TruncationEndsNoClientThatBlocksEverySignal) {
    record()->marker = 1;
    const pid_t client = fork();
    if (client == 0) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        _exit(ask(3, 33, 500) == 3033 ? 1 : 0);
    }
    EXPECT_TRUE(run_loop_until([&] { return posted(); }));
    fs::resize_file(file(), 0);
    int status = -1;
    waitpid(client, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(VestraApi, ChildIsAnsweredThatWasForkedDuringAnotherThreadsQuestion) {
    record()->marker = 1;
    std::thread other([&] { EXPECT_EQ(ask(3, 33, kLong), 3033); });
    EXPECT_TRUE(run_loop_until([&] { return posted(); }));
    const pid_t child = fork();
    if (child == 0) _exit(ask(8, 2, kLong) == 8002 ? 0 : 1);
    thread_ = std::thread(serve, &play_);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    other.join();
}

TEST_F(VestraApi, CancellationWaitsForTheEndOfAQuestion) {
    record();  // not ready: the question sleeps, where a thread can be cancelled
    std::atomic<bool> ended{false};
    std::thread asks([&] {
        ended = ask(0, 0, 300) == VESTRA_API_NO_DAEMON;
        pthread_testcancel();
    });
    pthread_cancel(asks.native_handle());
    asks.join();
    EXPECT_TRUE(ended);
}

TEST_F(VestraApi, ProgramWithoutStandardErrorWritesNoMessageIntoTheSegment) {
    const std::string refused(912, '\xff');
    write_file(file(), refused);
    EXPECT_EQ(in_child([this] { return close(STDERR_FILENO) + (ask(0, 0, 0) == VESTRA_API_NO_DAEMON ? 0 : 1); }), 0);
    EXPECT_EQ(read_file(file()), refused);
}

TEST_F(VestraApi, SegmentOfAnotherSizeAndLinkAreRefusedAndReplaced) {
    for (const size_t size : {size_t{1}, size_t{912}, size_t{1} << 20}) {
        write_file(file(), std::string(size, '\xff'));
        expect_refused();
    }
    fs::remove(file());
    fs::create_symlink("/etc/passwd", file());
    expect_refused();
    const std::string target = read_file("/etc/passwd");
    EXPECT_NE(get_shm(), nullptr);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file())));
    EXPECT_EQ(read_file("/etc/passwd"), target);
}

TEST_F(VestraApi, SegmentOfADeadDaemonIsReplacedThatOfALivingOneIsNot) {
    start_daemon();
    EXPECT_THAT(logged([] { EXPECT_EQ(get_shm(), nullptr); }), HasSubstr("another daemon"));
    start_daemon();
}

TEST_F(VestraApi, SegmentOfAnotherUserIsRefusedAndReplacedByRootsDaemon) {
    start_daemon();
    if (geteuid() != 0 || chown(file().c_str(), 12345, 12345) != 0) GTEST_SKIP() << "no other users here";
    expect_refused();
    start_daemon();
}

TEST_F(VestraApi, OnlyAGroupThatIsNamedMayOpenTheSegment) {
    expect_mode(0600);
    setenv("VESTRA_API_GROUP", "no such group", 1);
    EXPECT_THAT(logged([this] { expect_mode(0600); }), HasSubstr("no such group"));
    const group *own = getgrgid(getegid());
    if (own == nullptr) GTEST_SKIP() << "no group database";
    setenv("VESTRA_API_GROUP", own->gr_name, 1);
    expect_mode(0660);
}

TEST_F(VestraApi, ARemovedSegmentsAddressStaysMemory) {
    std::vector<void *> addresses;
    for (int round = 0; round < 12; ++round) {
        void *shm = get_shm();
        ASSERT_NE(shm, nullptr);
        EXPECT_EQ(get_shm(), shm);
        EXPECT_EQ(check_if_valid_shm(&shm), 1);
        if (round == 0) record()->marker = 1;  // as the daemon's main does, once
        EXPECT_EQ(record()->marker, 1) << "not carried over";
        addresses.push_back(shm);
        ASSERT_EQ(shm_unlink(name_.c_str()), 0);
        EXPECT_EQ(check_if_valid_shm(&shm), 0);
        for (void *old : addresses) static_cast<vestra_shm_record *>(old)->state = VESTRA_REQUEST_ANSWERED;
    }
    void *now = get_shm();
    EXPECT_EQ(check_if_valid_shm(&addresses.back()), 0);
    EXPECT_EQ(check_if_valid_shm(&now), 1);
    EXPECT_EQ(check_if_valid_shm(nullptr), 0);
    EXPECT_LT(vestra_request_sem_lock_func("client_request_process", 6), 0) << "returns without a request, too";
}
