// The cost of filling the process history. Compares the daemon's fill of a full list with the same statements passed to
// the SQLite library and to the sqlite3 shell, in the same run and on the same file system. Watch rows/s of the fill
// divided by rows/s of the shell (at least 1), and held_ms: the longest time that a thread which needs the capture
// chain's lock, like the reader, waits for one fill.
//
// The database is in the working directory, or in VESTRA_BENCH_DIR. On a disk the syncs of its 53 transactions
// dominate, on a tmpfs the computation. On a busy machine the three are comparable only if they take turns:
//
//   history_bench --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/dlog.h"
#include "set/trace/source.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestrad.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A temporary directory with the state directory that the trigger key needs. Removed at the end.
class Workplace {
  public:
    Workplace() {
        const char *base = getenv("VESTRA_BENCH_DIR");
        std::string name = (fs::absolute(base != nullptr ? base : ".") / "vestra-bench.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            perror(name.c_str());
            exit(1);
        }
        path_ = name;
        fs::create_directories(path_ / "vconf");
        setenv("VESTRA_SET_DIR", path_.c_str(), 1);
    }
    ~Workplace() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string file(const char *name) const { return path_ / name; }

  private:
    fs::path path_;
};

// Fills the daemon's list to its limit with the synthetic source.
void fill_list() {
    if (ghead_shm != nullptr) return;
    init_collected_data();
    vestra_set::SourceOptions options;
    options.block_size = trace::kBlockMax;
    std::string error;
    const auto source = vestra_set::make_source(options, &error);
    std::vector<uint8_t> block(trace::kBlockMax);
    for (int i = 0; i < 10; ++i) {
        const size_t size = source->next_block(block.data(), block.size());
        decode_file(block.data(), static_cast<unsigned>(size));
    }
}

// The fill's statements, traced from a fill by the daemon's code, and the number of rows in them.
struct Statements {
    std::vector<std::string> texts;
    int64_t rows = 0;
};

const Statements &prepare(const std::string &database) {
    static Statements statements;
    static std::string path;
    dlog_set_threshold(DLOG_ERROR + 1);  // a fill logs five lines at error level
    fill_list();
    path = database;
    dbPath = path.data();
    openDB();
    createTables();
    closeDB();
    if (!statements.texts.empty()) return statements;

    sqlite3_auto_extension(reinterpret_cast<void (*)()>(+[](sqlite3 *opened, char **, const void *) {
        return sqlite3_trace_v2(
            opened, SQLITE_TRACE_STMT,
            [](unsigned, void *, void *, void *text) {
                statements.texts.emplace_back(static_cast<const char *>(text));
                return 0;
            },
            nullptr);
    }));
    Process_Info_fill();
    sqlite3_reset_auto_extension();
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; node = node->next) ++statements.rows;
    return statements;
}

// Runs `work` once per iteration and reports rows per second.
template <class Work>
void run(benchmark::State &state, int64_t rows, Work work) {
    for (auto unused : state) {
        (void)unused;
        work();
    }
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["rows/s"] =
        benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsIterationInvariantRate);
}

// As the trigger's callback does it, while another thread takes the lock every 200 us.
void DaemonFill(benchmark::State &state) {
    const Workplace place;
    const Statements &statements = prepare(place.file("history.db"));
    std::atomic<bool> stop{false};
    double longest_ms = 0;
    std::thread reader([&] {
        while (!stop) {
            const auto begin = Clock::now();
            pthread_mutex_lock(&lock);
            const std::chrono::duration<double, std::milli> waited = Clock::now() - begin;
            pthread_mutex_unlock(&lock);
            longest_ms = std::max(longest_ms, waited.count());
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    run(state, statements.rows, [] {
        pthread_mutex_lock(&lock);
        Process_Info_fill();
        pthread_mutex_unlock(&lock);
    });
    stop = true;
    reader.join();
    state.counters["held_ms"] = longest_ms;
}

void SqliteLibrary(benchmark::State &state) {
    const Workplace place;
    const std::string database = place.file("history.db");
    const Statements &statements = prepare(database);
    run(state, statements.rows, [&] {
        sqlite3 *opened = nullptr;
        sqlite3_open(database.c_str(), &opened);
        for (const std::string &text : statements.texts) {
            if (sqlite3_exec(opened, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
                state.SkipWithError(sqlite3_errmsg(opened));
            }
        }
        sqlite3_close(opened);
    });
}

// Including the start of the shell.
void SqliteShell(benchmark::State &state) {
    const Workplace place;
    const std::string database = place.file("history.db");
    const std::string script = place.file("fill.sql");
    const Statements &statements = prepare(database);
    std::ofstream out(script);
    for (const std::string &text : statements.texts) out << text << ";\n";
    out.close();
    const std::string command = "sqlite3 '" + database + "' <'" + script + "'";
    run(state, statements.rows, [&] {
        if (system(command.c_str()) != 0) state.SkipWithError("the sqlite3 shell failed, or is not installed");
    });
}

// Real time, because callers wait for the fill.
BENCHMARK(DaemonFill)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(SqliteLibrary)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(SqliteShell)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
