// Measures how long a client waits for the running daemon's answer, for several kinds of question. The baseline is two
// processes that post semaphores to each other. Both sides go to sleep between questions.
//
//   ask_bench [QUESTIONS]      inside a set; bench/ask_latency starts one

#include <semaphore.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "client/vestra_api.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTimeoutMs = 10000;
constexpr useconds_t kPauseUs = 1000;  // between questions, so that the daemon has gone to sleep again

struct Kind {
    int vitals;
    int window;
};
constexpr Kind kKinds[] = {{1, 0},   {1, 60},  {17, 0},  {17, 1},   {17, 10},
                           {17, 30}, {17, 60}, {17, 90}, {17, 120}, {17, 180}};

// One kind of question and its waiting times in us.
class Row {
  public:
    Row(std::string vitals, std::string window, std::function<bool()> ask)
        : vitals_(std::move(vitals)), window_(std::move(window)), ask_(std::move(ask)) {}
    bool measure() {
        usleep(kPauseUs);
        const auto begin = Clock::now();
        const bool answered = ask_();
        waits_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        return answered;
    }
    void print() {
        std::sort(waits_.begin(), waits_.end());
        std::printf("%6s %8s %10.1f %10.1f %10.1f\n", vitals_.c_str(), window_.c_str(), waits_[waits_.size() / 2],
                    waits_[waits_.size() * 99 / 100], waits_.back());
    }

  private:
    std::string vitals_, window_;
    std::function<bool()> ask_;
    std::vector<double> waits_;
};

bool ask(vestra_api_h client, const Kind &kind) {
    vestra_api_data requests[VESTRA_API_VITALS] = {};
    for (int type = 0; type < kind.vitals; ++type) {
        requests[type].packet_type = type;
        requests[type].window = kind.window;
    }
    const int result = vestra_api_ask(client, requests, kind.vitals, kTimeoutMs);
    if (result != VESTRA_API_OK) std::fprintf(stderr, "ask_bench: %s\n", vestra_api_result_text(result));
    return result == VESTRA_API_OK;
}

// A partner process that posts back.
class PingPong {
  public:
    PingPong() {
        void *shared = mmap(nullptr, sizeof(Table), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) std::exit(1);
        table_ = static_cast<Table *>(shared);
        sem_init(&table_->ping, 1, 0);
        sem_init(&table_->pong, 1, 0);
        partner_ = fork();
        if (partner_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            sem_wait(&table_->ping);
            sem_post(&table_->pong);
        }
    }
    PingPong(const PingPong &) = delete;
    PingPong &operator=(const PingPong &) = delete;
    ~PingPong() {
        kill(partner_, SIGKILL);
        waitpid(partner_, nullptr, 0);
    }
    bool play() {
        sem_post(&table_->ping);
        return sem_wait(&table_->pong) == 0;
    }

  private:
    struct Table {
        sem_t ping, pong;
    };
    Table *table_;
    pid_t partner_;
};

}  // namespace

int main(int argc, char **argv) {
    const long questions = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 2000;
    if (questions < 1) return 64;
    PingPong partner;
    const vestra_api_h client = vestra_api_open();
    std::vector<Row> rows = {{"-", "pingpong", [&] { return partner.play(); }}};
    for (const Kind &kind : kKinds) {
        rows.emplace_back(std::to_string(kind.vitals), std::to_string(kind.window),
                          [client, &kind] { return ask(client, kind); });
    }
    // The rows take turns, so that other load on the machine affects all of them.
    bool answered = true;
    for (long i = 0; i < questions && answered; ++i) {
        answered = std::all_of(rows.begin(), rows.end(), [](Row &row) { return row.measure(); });
    }
    vestra_api_close(client);
    if (!answered) return 1;
    std::printf("%6s %8s %10s %10s %10s   us, of %ld questions\n", "vitals", "window", "median", "p99", "longest",
                questions);
    for (Row &row : rows) row.print();
    return 0;
}
