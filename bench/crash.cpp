// Kills the daemon at random moments and checks it after the next start. scripts/crash starts the set for it.
//
//   crash KILLS SEED VESTRAD VESTRA-DUMP

#include <sqlite3.h>

#include <atomic>
#include <thread>

#include "bench/rig.h"

namespace {

using namespace rig;

constexpr char kDatabase[] = "/opt/usr/home/owner/share/tvhistory.db";
constexpr double kAtOnceMs = 2000;  // the daemon must record and answer within this time after its start
constexpr int kTimeoutMs = 1000;    // of a client's question
constexpr double kLateMs = 500;     // allowed beyond the time-out, on a busy machine
constexpr int kClients = 4;

struct Figures {
    std::vector<double> recording, answering;  // ms from the start to the first block, to the first answer
    int in_dump = 0, in_fill = 0;              // kills during a dump, a fill
    int dumps = 0, damaged = 0, missing = 0;   // reported done; of these damaged, missing
    int databases = 0, broken = 0;
    int not_filled = 0;
    int slow_starts = 0;
} figures;

struct Asked {
    std::atomic<long> answered{0}, nobody{0}, timed_out{0}, wrong{0}, late{0};
    std::atomic<bool> over{false};
} asked;

void ask_without_pause(uint64_t seed) {
    std::mt19937_64 random(seed);
    const vestra_api_h client = vestra_api_open();
    while (!asked.over) {
        vestra_api_data request = {};
        request.packet_type = static_cast<int32_t>(random() % VESTRA_API_VITALS);
        request.window = static_cast<int32_t>(random() % (VESTRA_API_WINDOW_MAX + 1));
        const auto begin = Clock::now();
        const int result = vestra_api_ask(client, &request, 1, kTimeoutMs);
        if (ms_since(begin) > kTimeoutMs + kLateMs) ++asked.late;
        if (result == VESTRA_API_OK) {
            ++(request.answer_type == request.packet_type ? asked.answered : asked.wrong);
        } else {
            ++(result == VESTRA_API_NO_DAEMON ? asked.nobody : asked.timed_out);
        }
        pause_ms(2);
    }
    vestra_api_close(client);
}

bool database_is_whole() {
    sqlite3 *handle = nullptr;
    std::string answer;
    const auto take = [](void *out, int, char **values, char **) {
        return *static_cast<std::string *>(out) += values[0], 0;
    };
    const bool asks = sqlite3_open_v2(kDatabase, &handle, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
                      sqlite3_busy_timeout(handle, 5000) == SQLITE_OK &&
                      sqlite3_exec(handle, "PRAGMA integrity_check", take, &answer, nullptr) == SQLITE_OK;
    sqlite3_close(handle);
    return asks && answer == "ok";
}

// Reads each dump that the log reports as done with vestra-dump.
void check_dumps(const std::string &reader) {
    static constexpr char kDone[] = "writefile exit [success] ";
    std::istringstream log(read_file(kLog));
    for (std::string line; std::getline(log, line);) {
        const size_t at = line.find(kDone);
        if (at == std::string::npos) continue;
        std::string path = line.substr(at + sizeof kDone - 1);
        ++figures.dumps;
        // The next continuous dump takes the mark away.
        const bool marked = path.size() > 2 && path.compare(path.size() - 2, 2, "_l") == 0;
        if (!fs::exists(path) && marked) path.resize(path.size() - 2);
        if (!fs::exists(path)) {
            ++figures.missing;
            std::printf("missing: %s\n", path.c_str());
        } else if (std::system(("\"" + reader + "\" info '" + path + "' >/dev/null 2>&1").c_str()) != 0) {
            ++figures.damaged;
            std::printf("damaged: %s\n", path.c_str());
        }
    }
}

bool is_being_dumped() {
    for (const std::string &file : files_in("/tmp")) {
        if (file.rfind("/tmp/temp-vestra", 0) == 0) return true;
    }
    return false;
}

void wait_until_it_records(Clock::time_point started, uint64_t blocks) {
    const vestra_api_h client = vestra_api_open();
    bool records = false, answers = false;
    while (!(records && answers) && ms_since(started) < 10 * kAtOnceMs) {
        if (!records && blocks_handed_out() > blocks) {
            records = true;
            figures.recording.push_back(ms_since(started));
        }
        vestra_api_data request = {};
        if (!answers && vestra_api_ask(client, &request, 1, 5) == VESTRA_API_OK) {
            answers = true;
            figures.answering.push_back(ms_since(started));
        }
        if (!answers) continue;
        pause_ms(1);
    }
    vestra_api_close(client);
    const bool at_once =
        records && answers && figures.recording.back() < kAtOnceMs && figures.answering.back() < kAtOnceMs;
    figures.slow_starts += at_once ? 0 : 1;
}

// One round, from start to kill. Most are short; some are long enough for a full chain and a key dump, some for
// continuous dumps, which need two arguments.
void play_round(Daemon &daemon, Triggers &triggers, const std::string &reader) {
    const uint64_t length = triggers.below(100);
    const bool continuous = length >= 92, full = length >= 80;
    const double ms = continuous ? triggers.between(9000, 12000)
                      : full     ? triggers.between(4500, 6500)
                                 : triggers.between(0, 1000);
    const uint64_t blocks = blocks_handed_out();
    fs::remove(kLog);
    const auto started = Clock::now();
    daemon.start(continuous ? std::vector<std::string>{"1", "1"} : std::vector<std::string>{}, kLog, "debug");
    wait_until_it_records(started, blocks);
    triggers.fire(Triggers::kHistory);
    if (!comes_true([] { return history_key() == 0; }, 5000)) ++figures.not_filled;
    if (full) triggers.fire(Triggers::kKey);
    for (const auto begin = Clock::now(); ms_since(begin) < ms;) {
        triggers.fire_any();
        pause_ms(triggers.between(0, 300));
    }
    for (uint64_t left = 1 + triggers.below(3); left > 0; --left) {
        triggers.fire(triggers.below(2) == 0 ? Triggers::kFault : Triggers::kHistory);
    }
    pause_ms(triggers.between(0, 40));
    daemon.kill_now();
    figures.in_dump += is_being_dumped() ? 1 : 0;
    figures.in_fill += history_key() == 1 ? 1 : 0;
    ++figures.databases;
    figures.broken += database_is_whole() ? 0 : 1;
    check_dumps(reader);
    sweep();
}

void print(const char *name, std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    std::printf("%-44s median %.0f ms, longest %.0f ms\n", name, at_share(ms, 0.5), ms.empty() ? 0.0 : ms.back());
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) return 64;
    const int kills = std::atoi(argv[1]);
    Triggers triggers(std::strtoull(argv[2], nullptr, 10));
    Daemon daemon(argv[3]);
    make_rooms();
    std::vector<std::thread> clients;
    for (uint64_t i = 0; i < kClients; ++i) clients.emplace_back(ask_without_pause, triggers.below(1U << 30));
    for (int round = 0; round < kills; ++round) play_round(daemon, triggers, argv[4]);
    asked.over = true;
    for (std::thread &client : clients) client.join();

    std::printf("%-44s %d; during a dump %d, during a history fill %d\n", "kills", kills, figures.in_dump,
                figures.in_fill);
    std::printf("%-44s keys %d, faults %d, history %d, DOD %d, lists %d\n", "triggers", triggers.count[0],
                triggers.count[1], triggers.count[2], triggers.count[3], triggers.count[4]);
    print("from the start to the first block recorded", figures.recording);
    print("from the start to the first answer", figures.answering);
    std::printf("%-44s %d\n", "starts that took longer than 2 s", figures.slow_starts);
    std::printf("%-44s %d, damaged %d, missing %d\n", "dumps reported done", figures.dumps, figures.damaged,
                figures.missing);
    std::printf("%-44s %d, broken %d\n", "databases checked after the kill", figures.databases, figures.broken);
    std::printf("%-44s %d\n", "fills after a start that did not finish", figures.not_filled);
    std::printf("%-44s answered %ld, no daemon %ld, timed out %ld, wrong %ld, late %ld\n", "questions (time-out 1 s)",
                asked.answered.load(), asked.nobody.load(), asked.timed_out.load(), asked.wrong.load(),
                asked.late.load());
    const bool passed =
        figures.slow_starts + figures.damaged + figures.missing + figures.broken + figures.not_filled == 0 &&
        asked.wrong == 0 && asked.late == 0 && asked.answered > 0 &&
        figures.recording.size() == static_cast<size_t>(kills);
    std::printf("%s\n", passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
