// What other programs and people do to the running daemon: history fills, process lists, requests, sticks, a module
// that goes. Where vestra-set has a command for it, that command does it.
//
// By hand: vestra-set sandbox --node --block-size 131072 -- trigger_set_test.

#include <sqlite3.h>
#include <sys/mount.h>

#include "e2e/vestrad_set.h"
#include "platform/vconf.h"
#include "trace_reader.h"

namespace vestra_test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

constexpr char kShare[] = "/opt/usr/home/owner/share";
constexpr char kDatabase[] = "/opt/usr/home/owner/share/tvhistory.db";
constexpr char kHistoryKey[] = "memory/SHM/trigger_db_write";
constexpr char kRobustKey[] = "system/vestra/robust";
constexpr char kMove[] = "/bin/mv";

struct Ran {
    int code;
    std::string text;  // standard output and error
};

// A command of vestra-set, as the shell takes it.
Ran remote(const std::string &words) {
    FILE *pipe = popen((VESTRA_SET_PROGRAM " " + words + " 2>&1").c_str(), "re");
    if (pipe == nullptr) return {-1, ""};
    Ran ran = {};
    char piece[4096];
    for (size_t size = 0; (size = fread(piece, 1, sizeof piece, pipe)) > 0;) ran.text.append(piece, size);
    ran.code = WEXITSTATUS(pclose(pipe));
    return ran;
}

int64_t handed_out(const char *what) {
    return module_status().value(what, int64_t{-1});
}

class TriggerSet : public VestradSet {
  protected:
    ~TriggerSet() override {
        for (const char *mounted : {kShare, kStick, kMove}) umount2(mounted, MNT_DETACH);
        remote("module load");  // where the test has unloaded it
    }

    // A dump without its trailer.
    static std::string payload(const fs::path &dump) {
        std::string bytes = read_file(dump);
        EXPECT_THAT(bytes, EndsWith(kTrailer)) << dump;
        bytes.resize(bytes.size() - std::min(bytes.size(), strlen(kTrailer)));
        return bytes;
    }

    // The file in `directory` whose name begins with `head`; empty when there is none.
    static std::string file_of(const std::string &directory, const std::string &head) {
        if (!fs::is_directory(directory)) return "";
        for (const std::string &name : names_in(directory)) {
            if (name.rfind(head, 0) == 0) return directory + "/" + name;
        }
        return "";
    }

    // A robustness dump of the whole chain, into /tmp/fault.
    static std::string dump_chain(int id) {
        fs::create_directories("/tmp/fault");
        EXPECT_EQ(remote("robust /tmp/fault procd " + std::to_string(id)).code, 0);
        const std::string head = "0000000000_" + std::to_string(id) + "_procd_";
        EXPECT_TRUE(comes_true([&] { return !file_of("/tmp/fault", head).empty(); }));
        return payload(file_of("/tmp/fault", head));
    }

    static bool records() {
        const int64_t before = handed_out("blocks");
        return comes_true([&] { return handed_out("blocks") > before + 1; });
    }
};

/* ------------------------------ History ------------------------------ */

TEST_F(TriggerSet, HistoryNeedsADatabaseThatCanBeWritten) {
    static const auto remount = [](unsigned long flags) {
        EXPECT_EQ(mount(nullptr, kShare, nullptr, MS_REMOUNT | flags, "size=16m"), 0) << strerror(errno);
    };
    static sqlite3 *other;
    static const struct {
        const char *name;
        void (*spoil)(), (*mend)();
        const char *message;
    } kRows[] = {
        {"FullFileSystem", [] {}, [] { remount(0); }, "Can't fill the table because there is no disk space left"},
        {"ReadOnly", [] { remount(MS_RDONLY); }, [] { remount(0); }, "SQL error: attempt to write a readonly database"},
        {"Locked",
         [] {
             sqlite3_open(kDatabase, &other);
             EXPECT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
         },
         [] { sqlite3_close(other); }, "SQL error: database is locked"},
    };
    ASSERT_EQ(mount("share", kShare, "tmpfs", 0, "size=64k"), 0);
    start();
    ASSERT_TRUE(records());
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        row.spoil();
        const Ran failed = remote("history --timeout 1");
        EXPECT_EQ(failed.code, 1);
        EXPECT_THAT(failed.text, HasSubstr("the history was not filled: key memory/SHM/trigger_db_write still stands "
                                           "at 1 after 1 s"));
        EXPECT_TRUE(comes_true([&] { return logged(row.message); }));
        EXPECT_TRUE(records());
        row.mend();
        const Ran filled = remote("history --timeout 60 --rows 3");
        EXPECT_EQ(filled.code, 0);
        EXPECT_THAT(filled.text, AllOf(HasSubstr(" rows in /opt/usr/"), Not(StartsWith("0 rows"))));
    }
}

// The history that a reader of the recorded bytes expects: the newest samples, as many as the list's limit allows.
json newest_samples(const std::string &recorded) {
    const ReadBlock read = read_block({recorded.begin(), recorded.end()});
    json rows = json::array();
    size_t charged = 0;
    for (auto message = read.messages.rbegin(); message != read.messages.rend(); ++message) {
        const uint64_t pid = message->frame_type == 7 ? message->switch_element(2) : 0;
        const uint64_t rss = message->frame_type == 7 ? message->switch_element(8) : 0;
        if (pid == 0 || rss == 0 || message->switch_element(9) == 0) continue;
        const std::string name = message->name.substr(0, 14);
        charged += 20 + std::to_string(message->time()).size() + name.size();
        if (charged > 204800) break;
        rows.push_back({{"time_ns", message->time()},
                        {"pid", pid},
                        {"name", name},
                        {"rss_kib", rss},
                        {"swap_kib", message->switch_element(9)}});
    }
    return rows;
}

TEST_F(TriggerSet, FillsAndDumpsUnderFullInputLoseNothing) {
    constexpr int kRounds = 6;
    configure({"max_file_size=10"});  // nothing falls off the chain
    const int64_t others = handed_out("bytes");
    start();
    std::string dumped[kRounds];
    for (int round = 0; round < kRounds; ++round) {
        const int64_t before = handed_out("blocks");
        ASSERT_EQ(vconf_set_int(kHistoryKey, 1), 0);
        dumped[round] = dump_chain(100 + round);
        int key = 1;
        ASSERT_TRUE(comes_true([&] { return vconf_get_int(kHistoryKey, &key) == 0 && key == 0; }));
        ASSERT_TRUE(comes_true([&] { return handed_out("blocks") > before; }));
    }
    ASSERT_EQ(remote("module unload").code, 0);
    EXPECT_TRUE(comes_true([] {
        return logged("ERROR: read_data failed (19:No such device)") && logged("ERROR: tud write failed (19:");
    }));
    EXPECT_TRUE(comes_true([&] {
        const auto names = threads();
        return std::find(names.begin(), names.end(), "QXReadData") == names.end();
    })) << "without its node the reader ends, and nothing else";
    EXPECT_THAT(threads(), IsSupersetOf({"QXClientProcess", "QXUserDataHndl", "QXProcess"}));

    const std::string all = dump_chain(99);
    EXPECT_TRUE(comes_true([&] { return handed_out("bytes") - others == static_cast<int64_t>(all.size()); }))
        << all.size() << " bytes of " << module_status();
    for (const std::string &bytes : dumped) {
        EXPECT_FALSE(bytes.empty());
        EXPECT_TRUE(all.compare(0, bytes.size(), bytes) == 0) << "a dump holds the chain's oldest bytes";
    }
    json history = json::parse(remote("history --timeout 60 --rows 100000 --json").text, nullptr, false);
    ASSERT_TRUE(history.is_object());
    for (json &row : history["rows"]) row.erase("cpu_percent");
    const json expected = newest_samples(all);
    EXPECT_GT(expected.size(), 1000U);
    EXPECT_EQ(history["total"], expected.size());
    EXPECT_TRUE(history["rows"] == expected) << history["rows"][0] << expected[0];
}

/* ------------------------------ Process lists, temperature ------------------------------ */

TEST_F(TriggerSet, WatchedDirectoryTakesListsAndClearsTheRest) {
    const std::string directory = "/tmp/vestra_processes/";
    const auto filter_is = [](const json &names) {
        return comes_true([&] { return module_status()["filter"]["names"] == names; });
    };
    fs::create_directories("/tmp/daemon-cwd");
    fs::current_path("/tmp/daemon-cwd");  // where the daemon's shell would leave what a name made it do
    start();
    fs::current_path("/");
    EXPECT_EQ(remote("filter --timeout 60 browser 'launcher x'").code, 0);
    EXPECT_TRUE(filter_is({"browser", "launcher x"})) << module_status();

    write_file("/tmp/renamed", "renamed\n");
    fs::create_directories(directory + "directory");
    for (const char *name :
         {" a  b ", "it's \"quoted\" `touch ran`", "x; touch $(echo ran) && touch ran #", "$(touch ran)",
          "a\ntouch ran\n", "-rf", "a\\", "*", "\xff\x80", ">ran", "processes.txt ", ".processes.txt"}) {
        write_file(directory + name, "hostile\n");
    }
    for (int i = 0; i < 60; ++i) write_file(directory + "many" + std::to_string(i), "many\n");
    fs::rename("/tmp/renamed", directory + "processes.txt");
    EXPECT_TRUE(comes_true([&] { return names_in(directory).size() == 2; }));
    EXPECT_THAT(names_in(directory), UnorderedElementsAre("directory", "processes.txt"))
        << "one that is renamed into place is not noticed";
    EXPECT_THAT(names_in("/tmp/daemon-cwd"), IsEmpty());
    EXPECT_EQ(remote("filter --timeout 60 tuner").code, 0);
    EXPECT_TRUE(filter_is({"browser", "launcher x", "tuner"})) << module_status();
    EXPECT_THAT(names_in(directory), UnorderedElementsAre("directory"));
}

TEST_F(TriggerSet, TemperatureGoesToTheModuleAndRaisesTheAlarm) {
    log_level_ = "debug";
    start();
    for (const int degrees : {125, 126}) {
        EXPECT_EQ(remote("temperature " + std::to_string(degrees)).code, 0);
        const json command = "c-0-4-" + std::to_string(degrees);
        EXPECT_TRUE(comes_true([&] {
            const json recent = module_status()["recent"];
            return !recent.empty() && recent.back()["command"] == command && recent.back()["count"] >= 2;
        })) << module_status();
        EXPECT_EQ(logged("ERR: Temperature exceeded 90. Current Temperature = 126. UpTime = "), degrees == 126);
    }
    EXPECT_TRUE(logged("[vestra] : Temp msg {stemperature=126;du="));
    EXPECT_FALSE(logged("Current Temperature = 125"));
    EXPECT_THAT(remote("module status").text, AllOf(HasSubstr("c-1-4-1"), HasSubstr("c-0-4-125   ")));
}

/* ------------------------------ Requests and sticks ------------------------------ */

TEST_F(TriggerSet, RobustnessRequestsOfEveryForm) {
    static const struct {
        const char *name;
        std::string value;
        std::string directory, head;
        const char *message;  // about a directory that is not there yet
    } kRows[] = {
        {"NoSeparator", "/tmp/fault", "/tmp/fault", "0000000000_0__", nullptr},
        {"TenKilobytes", "/tmp/fault|procd|" + std::string(10240, '7'), "/tmp/fault", "0000000000_2147483647_procd_",
         nullptr},
        {"DirectoryComesLate", "/tmp/late|procd|8", "/tmp/late", "0000000000_8_procd_",
         "path does not exist(path:/tmp/late)"},
        {"FileInItsPlace", "/tmp/file|procd|9", "/tmp/file", "0000000000_9_procd_",
         "path is not a directory(path:/tmp/file)"},
    };
    fs::create_directories("/tmp/fault");
    fs::remove_all("/tmp/late");
    fs::remove_all("/tmp/file");
    write_file("/tmp/file", "");
    start();
    ASSERT_TRUE(records());
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(vconf_set_str(kRobustKey, row.value.c_str()), 0);
        if (row.message != nullptr) {
            EXPECT_TRUE(comes_true([&] { return logged(row.message); }));
            EXPECT_TRUE(records()) << "the wait holds up requests only";
            fs::remove_all(row.directory);
            fs::create_directories(row.directory);
        }
        ASSERT_TRUE(comes_true([&] { return !file_of(row.directory, row.head).empty(); }));
        EXPECT_THAT(payload(file_of(row.directory, row.head)), Not(IsEmpty()));
    }
}

TEST_F(TriggerSet, DodDumpsAreCopiedOnceTheirFolderIsThere) {
    const std::string folder = std::string(kStick) + "/issue_report_agent_DOD/Vestra";
    configure({"cont_data_collect=1", "no_of_files=2"});
    start({"1", "4"});
    ASSERT_EQ(remote("dod on").code, 0);
    ASSERT_TRUE(comes_true([] { return dumps().size() == 1; }));
    EXPECT_TRUE(comes_true([] { return read_file(kErrors).find("cp: cannot create") != std::string::npos; }));
    fs::create_directories(folder);
    ASSERT_TRUE(comes_true([] { return dumps().size() == 2; }));
    EXPECT_THAT(dumps()[1].string(), EndsWith("_vestrad_2_l"));
    EXPECT_TRUE(comes_true([&] {
        const auto names = names_in(folder);
        return names.size() == 1 && read_file(folder + "/" + names[0]) == read_file(dumps()[1]);
    }));
}

TEST_F(TriggerSet, StickThatFailsDuringTheMoveCostsNoBytes) {
    // Copies a part, waits, and goes on as the mv that it stands for.
    static constexpr char kSlowMove[] =
        "#!/bin/sh\n"
        "head -c 65536 \"$2\" >\"$3\"; : >/tmp/half\n"
        "while [ ! -e /tmp/pulled ]; do sleep 0.05; done\n"
        "exec /tmp/mv \"$@\"\n";
    static const struct {
        const char *name, *size;
        void (*pull)();
        const char *message;
    } kRows[] = {
        {"Full", "size=256k", [] {}, "No space left on device"},
        {"Pulled", "size=8m",
         [] {
             EXPECT_TRUE(comes_true([] { return fs::exists("/tmp/half"); }));
             EXPECT_EQ(umount2(kStick, MNT_DETACH), 0);
             fs::remove(kStick);
             write_file("/tmp/pulled", "");
         },
         "No such file or directory"},
    };
    fs::remove("/tmp/half");
    fs::remove("/tmp/pulled");
    fs::copy_file(kMove, "/tmp/mv", fs::copy_options::overwrite_existing);
    write_file("/tmp/slow-mv", kSlowMove);
    fs::permissions("/tmp/slow-mv", fs::perms::all);
    configure({"max_file_size=10", "min_time_diff_dump=2147483647"});  // no copy beside the dump that is moved
    const int64_t others = handed_out("bytes");
    start();
    ASSERT_TRUE(comes_true([&] { return handed_out("bytes") - others > 524288; }));
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        const bool pulled = row.name == std::string("Pulled");
        ASSERT_EQ(mount("stick", kStick, "tmpfs", 0, row.size), 0);
        if (pulled && mount("/tmp/slow-mv", kMove, nullptr, MS_BIND, nullptr) != 0) FAIL() << strerror(errno);
        ASSERT_EQ(remote(std::string("robust ") + kStick + " procd 5").code, 0);
        row.pull();
        EXPECT_TRUE(comes_true([&] { return read_file(kErrors).find(row.message) != std::string::npos; }));
        if (pulled) umount2(kMove, MNT_DETACH);
        umount2(kStick, MNT_DETACH);
        fs::create_directories(kStick);

        const std::string left = file_of("/tmp", "temp-vestra-ira_");
        ASSERT_FALSE(left.empty()) << "what the stick did not take stays in /tmp";
        const std::string kept = payload(left);
        fs::remove(left);
        EXPECT_GT(kept.size(), 262144U) << "more than the small stick holds";
        EXPECT_TRUE(records());
        const std::string next = dump_chain(pulled ? 7 : 6);
        EXPECT_TRUE(next.compare(0, kept.size(), kept) == 0) << "the chain still has them";
    }
}

}  // namespace
}  // namespace vestra_test
