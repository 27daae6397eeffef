// The recorder from the module to dumps and history: key presses, requests of other programs, sticks that are pulled
// out, databases that cannot be written, a module that is unloaded. A read takes a whole block (131072 bytes), so a
// chain of 1 MiB is full after some five seconds.
//
// By hand: vestra-set sandbox --node --block-size 131072 -- e2e_test --gtest_filter='Recorder.*'.

#include <sqlite3.h>

#include "e2e/set_env.h"
#include "platform/vconf.h"
#include "trace_reader.h"

namespace vestra_test {
namespace {

constexpr char kShare[] = "/opt/usr/home/owner/share";

class Recorder : public SetTest {
  protected:
    ~Recorder() override {
        for (const char *mounted : {kShare, kStick}) umount2(mounted, MNT_DETACH);
        remote("module load");  // where the test has unloaded it
    }

    // A dump without its trailer.
    static std::string payload(const fs::path &dump) {
        std::string bytes = read_file(dump);
        EXPECT_THAT(bytes, EndsWith(kTrailer)) << dump;
        bytes.resize(bytes.size() - std::min(bytes.size(), strlen(kTrailer)));
        return bytes;
    }
    // A robustness dump of the whole chain, into /tmp/fault.
    static std::string dump_chain(int id) {
        EXPECT_EQ(remote("robust /tmp/fault /usr/bin/procd " + std::to_string(id)).code, 0);
        std::vector<std::string> found;
        EXPECT_TRUE(comes_true([&] {
            found = dumps("/tmp/fault");
            return !found.empty() && found.back().find("_" + std::to_string(id) + "_procd_") != std::string::npos;
        }));
        return found.empty() ? "" : payload(found.back());
    }
    static bool records() {
        const int64_t before = handed_out("blocks");
        return comes_true([&] { return handed_out("blocks") > before + 1; });
    }
    static void press_key(size_t times) {
        EXPECT_EQ(remote("key 87").code, 0);
        ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", times); }));
    }
};

TEST_F(Recorder, TellsTheModuleAndStopsAllThreadsButOne) {
    setenv("VESTRA_DLOG_LEVEL", "debug", 1);
    start();
    unsetenv("VESTRA_DLOG_LEVEL");
    EXPECT_EQ(remote("temperature 126").code, 0);
    EXPECT_TRUE(comes_true([] {
        const json status = module_status();
        return status.value("tracing", false) && status.value("disk_read", false) &&
               status.value("disk_write", false) && status["temperature"] == 126 && status.value("blocks", 0) > 2;
    })) << module_status();
    EXPECT_EQ(remote("filter --timeout 60 browser 'launcher x'").code, 0);
    EXPECT_TRUE(comes_true([] { return module_status()["filter"]["names"] == json({"browser", "launcher x"}); }));
    EXPECT_EQ(handed_out("refused"), 0);
    EXPECT_TRUE(comes_true([] { return count(remote("module status").out, "c-0-4-126   ") == 1; })) << "repeated";
    EXPECT_TRUE(logged("[vestra] : Temp msg {stemperature=126;du="));

    kill(daemon_->pid(), SIGRTMIN + 6);
    EXPECT_TRUE(comes_true([&] { return Matches(Not(ContainsRegex("ReadData|ClientProc|UserData")))(threads()); }));
    EXPECT_TRUE(comes_true([] { return logged("INFO: main loop exit"); }));
    usleep(500'000);
    EXPECT_THAT(threads(), AllOf(HasSubstr("QXProcess"), HasSubstr("vestrad")))
        << "main waits for a thread that does not end";
    EXPECT_TRUE(daemon_->runs());
    EXPECT_FALSE(logged("INFO: Stop the vestra driver"));
    EXPECT_EQ(module_status().value("tracing", false), true);
    EXPECT_THAT(read_file(kPrinted),
                AllOf(HasSubstr("SIGRTMIN+6 handled\n"), EndsWith("[Vestra]  INFO: main loop exit\n")));
}

TEST_F(Recorder, DumpsForFaultDodAndKey) {
    const std::string folder = std::string(kStick) + "/issue_report_agent_DOD/Vestra";
    start({"1", "2"});  // two arguments: the reader's clock counts seconds
    ASSERT_TRUE(records());
    const std::string fault = dump_chain(77);
    EXPECT_TRUE(comes_true([&] { return dumps().size() == 1 && payload(dumps()[0]) == fault; })) << "a copy";
    fs::create_directories(folder);
    EXPECT_EQ(remote("dod on").code, 0);
    EXPECT_TRUE(comes_true([&] { return !names_in(folder).empty(); }));
    EXPECT_EQ(remote("dod off").code, 0);
    EXPECT_EQ(dumps().size(), 1U) << "moved, not copied";
    press_key(1);
    press_key(2);
    const auto files = dumps();
    ASSERT_THAT(files, SizeIs(AnyOf(2, 3))) << "two of the same second have one name";
    for (const std::string &file : files) {
        if (file.find("_" + std::to_string(daemon_->pid()) + "_vestrad_") == std::string::npos) continue;
        EXPECT_GT(payload(file).size(), 7U << 17) << "full but for a part of a block";
        EXPECT_LE(payload(file).size(), 1U << 20);
    }
    const std::string notices = read_file(state_path("notifications.jsonl"));
    EXPECT_EQ(count(notices, "Successfully") + count(notices, "\n"), 4U);
}

TEST_F(Recorder, OutlivesAStickThatIsPulledOutDuringADump) {
    ASSERT_EQ(mount("stick", kStick, "tmpfs", 0, "size=32m"), 0);
    start();
    EXPECT_EQ(remote("key 87").code, 0);
    ASSERT_TRUE(comes_true([] { return logged("INFO: Waiting for buffer to fill.."); }));
    usb_device_unplug("stick");
    umount2(kStick, MNT_DETACH);
    fs::remove_all(kStick);
    ASSERT_TRUE(comes_true([] { return logged("INFO:key handler 87 exited"); }));
    EXPECT_THAT(names_in("/tmp"), Contains(StartsWith("temp-vestra-user_"))) << "still there";
    fs::create_directories("/media/other");
    usb_device_plug("other", "/media/other", USB_DEVICE_CLASS_MASS_STORAGE);
    fs::create_directories(kStick);  // as an automounter leaves it behind: the cached directory stays good
    press_key(2);
    EXPECT_EQ(dumps().size(), 1U);
}

TEST_F(Recorder, HistoryNeedsADatabaseThatCanBeWritten) {
    static sqlite3 *other;
    static const struct {
        const char *name;
        void (*spoil)(), (*mend)();
        const char *message;
    } kRows[] = {
        {"FullFileSystem", [] {}, [] { mount(nullptr, kShare, nullptr, MS_REMOUNT, "size=16m"); },
         "Can't fill the table because there is no disk space left"},
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
        EXPECT_THAT(failed.err, HasSubstr("the history was not written: key memory/SHM/trigger_db_write is still "
                                          "1 after 1 s"));
        EXPECT_TRUE(comes_true([&] { return logged(row.message); }));
        EXPECT_TRUE(records());
        row.mend();
        const Ran filled = remote("history --timeout 60 --rows 3");
        EXPECT_EQ(filled.code, 0);
        EXPECT_THAT(filled.out, AllOf(HasSubstr(" rows in /opt/usr/"), Not(StartsWith("0 rows"))));
    }
}

// The history that a reader of the recorded bytes expects: the newest samples, as many as the list's limit allows.
json newest_samples(const std::string &recorded) {
    const std::vector<uint8_t> bytes(recorded.begin(), recorded.end());
    const auto messages = read_block(bytes);
    json rows = json::array();
    size_t charged = 0;
    for (auto message = messages.rbegin(); message != messages.rend(); ++message) {
        const uint64_t rss = message->element(trace::kSwitchRss), swap = message->element(trace::kSwitchSwap);
        if (message->pid == 0 || rss == 0 || swap == 0) continue;
        const std::string name = message->name.substr(0, 14);
        charged += 20 + std::to_string(message->time).size() + name.size();
        if (charged > 204800) break;
        rows.push_back(
            {{"time_ns", message->time}, {"pid", message->pid}, {"name", name}, {"rss_kib", rss}, {"swap_kib", swap}});
    }
    return rows;
}

TEST_F(Recorder, FillsAndDumpsUnderFullInputLoseNothing) {
    constexpr int kRounds = 6;
    configure({"max_file_size=10", "min_time_diff_dump=2147483647"});  // nothing falls off; dumps are not copied
    ASSERT_EQ(mount("stick", kStick, "tmpfs", 0, "size=256k"), 0);
    const int64_t others = handed_out("bytes");
    start();
    ASSERT_TRUE(records());
    std::vector<std::string> dumped;
    for (int round = 0; round < kRounds; ++round) {
        const int64_t before = handed_out("blocks");
        ASSERT_EQ(vconf_set_int(kHistoryKey, 1), 0);
        dumped.push_back(dump_chain(100 + round));
        int key = 1;
        ASSERT_TRUE(comes_true([&] { return vconf_get_int(kHistoryKey, &key) == 0 && key == 0; }));
        ASSERT_TRUE(comes_true([&] { return handed_out("blocks") > before; }));
    }
    ASSERT_EQ(remote(std::string("robust ") + kStick + " procd 5").code, 0);
    EXPECT_TRUE(comes_true([] { return read_file(kErrors).find("No space left on device") != std::string::npos; }));
    for (const std::string &name : names_in("/tmp")) {
        if (name.rfind("temp-vestra-ira_", 0) == 0) dumped.push_back(payload("/tmp/" + name));
    }
    ASSERT_THAT(dumped, SizeIs(kRounds + 1)) << "what the stick did not take stays in /tmp";
    EXPECT_GT(dumped.back().size(), 262144U) << "more than the stick holds";
    ASSERT_EQ(remote("module unload").code, 0);
    EXPECT_TRUE(comes_true([] {
        return logged("ERROR: read_data failed (19:No such device)") && logged("ERROR: tud write failed (19:");
    }));
    EXPECT_TRUE(comes_true([&] { return Matches(Not(HasSubstr("QXReadData")))(threads()); }))
        << "without its node the reader ends, and nothing else";
    EXPECT_THAT(threads(), AllOf(HasSubstr("QXClientProcess"), HasSubstr("QXUserDataHndl"), HasSubstr("QXProcess")));

    const std::string all = dump_chain(999);
    EXPECT_TRUE(comes_true([&] { return handed_out("bytes") - others == static_cast<int64_t>(all.size()); }))
        << all.size() << " bytes of " << module_status();
    for (const std::string &bytes : dumped) {
        EXPECT_FALSE(bytes.empty());
        EXPECT_TRUE(all.compare(0, bytes.size(), bytes) == 0) << "a dump holds the chain's oldest bytes";
    }
    json history = json::parse(remote("history --timeout 60 --rows 100000 --json").out, nullptr, false);
    ASSERT_TRUE(history.is_object());
    for (json &row : history["rows"]) row.erase("cpu_percent");
    const json expected = newest_samples(all);
    EXPECT_GT(expected.size(), 1000U);
    EXPECT_EQ(history["total"], expected.size());
    EXPECT_TRUE(history["rows"] == expected) << history["rows"][0] << expected[0];
}

TEST_F(Recorder, HostileBlocksKeepItGoing) {
    start();
    ASSERT_TRUE(comes_true([] { return module_status().value("damaged_blocks", 0) > 5; })) << module_status();
    press_key(1);
    ASSERT_EQ(dumps().size(), 1U);
    EXPECT_THAT(read_file(dumps()[0]), EndsWith(kTrailer));
    EXPECT_THAT(threads(), HasSubstr("QXReadData"));
}

}  // namespace
}  // namespace vestra_test
