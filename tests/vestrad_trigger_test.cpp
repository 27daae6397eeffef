// Key combination, notices, and the callbacks of the configuration keys.

#include <sys/stat.h>

#include <csignal>

#include "platform/fault.h"
#include "platform/usb_device.h"
#include "support/daemon_env.h"
#include "vestra-daemon/decoder.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kStick[] = "/tmp/stick";
constexpr char kDump[] = "/tmp/stick/0000000000_";

class VestradTrigger : public DaemonTest {
  protected:
    VestradTrigger() {
        make_debug_image();
        fs::create_directories(kStick);
        append_block(10, 'x');
    }
    static void plug_known_stick() {
        usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
        snprintf(g_prev_usb_path, sizeof(g_prev_usb_path), "%s", kStick);
        g_prev_usb_path_valid = 1;
    }
    // "text" of the only notice, as JSON has it.
    static std::string notice() {
        const auto all = notices();
        EXPECT_THAT(all, SizeIs(1));
        return all.empty() ? "" : all[0];
    }
};

/* ------------------------------ Key combination ------------------------------ */

TEST_F(VestradTrigger, KeyWritesADumpOfAFullChain) {
    plug_known_stick();
    file_complete_flag = 1;
    Handler_Cb(87, nullptr);
    const auto names = names_in(kStick);
    ASSERT_THAT(names, SizeIs(1));
    EXPECT_EQ(read_file(std::string(kStick) + "/" + names[0]), std::string(10, 'x') + kTrailer);
    EXPECT_EQ(file_complete_flag, 0) << "the next dump waits for a full chain again";
    EXPECT_THAT(waits_us(), IsEmpty());
    EXPECT_THAT(notice(),
                AllOf(HasSubstr("\"VESTRA : USERKEY\\nFile Dump Successfully Done!!!\\nFilePath:" + std::string(kDump)),
                      HasSubstr("_vestrad_1700000000\""), HasSubstr("\"hide_timeout\":30"),
                      HasSubstr("\"auto_remove\":false"), HasSubstr("\"applist\":16"), HasSubstr("\"type\":0")));
    EXPECT_EQ(count_log(kInfo, "INFO:[KeyCombination] 87 hit sucessfully !!"), 1);
    EXPECT_EQ(log_texts().back(), "INFO:key handler 87 exited");
}

struct WaitCase {
    const char *name;
    int fault_ends_after, fill_ends_after;  // waits; -1: never
    int stop_after;                         // wait after which the daemon is told to stop; -1: not
    size_t waits;
    bool dumps;
};
void PrintTo(const WaitCase &row, std::ostream *out) {
    *out << row.name;
}
const WaitCase kWaitCases[] = {
    {"FullFromTheStart", 0, 0, -1, 0, true},        {"FaultOverAtTheLastLook", 30, 0, -1, 30, true},
    {"FaultNeverOver", -1, 0, -1, 30, false},       {"FaultWaitIsStopped", -1, 0, 5, 5, true},
    {"FaultStoppedTooLate", -1, 0, 30, 30, false},  {"FullAtTheLastLook", 0, 250, -1, 250, true},
    {"NeverFull", 0, -1, -1, 250, false},           {"FillWaitIsStopped", 0, -1, 249, 249, true},
    {"FillStoppedTooLate", 0, -1, 250, 250, false}, {"BothWaits", 7, 19, -1, 19, true},
};

class VestradKeyWait : public VestradTrigger, public ::testing::WithParamInterface<WaitCase> {};

TEST_P(VestradKeyWait, TakesItsTime) {
    const WaitCase &row = GetParam();
    plug_known_stick();
    const auto change = [&](size_t waits) {
        const int count = static_cast<int>(waits);
        if (count == row.fault_ends_after) fault_handling_flag = 0;
        if (count == row.fill_ends_after) file_complete_flag = 1;
        if (count == row.stop_after) exit_flag = 1;
    };
    fault_handling_flag = 1;
    change(0);
    world().on_wait = change;
    Handler_Cb(87, nullptr);
    EXPECT_THAT(waits_us(), AllOf(SizeIs(row.waits), Each(1000000)));
    EXPECT_THAT(names_in(kStick), SizeIs(row.dumps ? 1 : 0));
    EXPECT_EQ(count_log(kError, "[vestra] Timeout 250 sec in func Handler_Cb"), row.dumps ? 0 : 1);
    EXPECT_EQ(count_log(kInfo, "INFO:key handler 87 exited"), row.dumps ? 1 : 0);
    EXPECT_THAT(notices(), SizeIs(row.dumps ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradKeyWait, ::testing::ValuesIn(kWaitCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradTrigger, KeyWithoutAStickShowsWhy) {
    Handler_Cb(87, nullptr);
    EXPECT_THAT(notice(), HasSubstr("\"VESTRA : USERKEY\\nFile Dump Failed!!!\\nUSB Error:\""));
    EXPECT_THAT(waits_us(), SizeIs(41));
    EXPECT_EQ(log_texts().back(), "INFO:key handler 87 exited");
}

TEST_F(VestradTrigger, KeyRightAfterPluggingIsRefused) {
    usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
    file_complete_flag = 1;
    Handler_Cb(87, nullptr);
    EXPECT_EQ(count_log("ERROR: hcb write_data failed ("), 1) << "the first lookup gives no directory";
    EXPECT_EQ(file_complete_flag, 1);
    Handler_Cb(87, nullptr);
    EXPECT_THAT(names_in(kStick), SizeIs(1));
}

TEST_F(VestradTrigger, FailedKeyDumpKeepsTheFullChainAndShowsIt) {
    plug_known_stick();
    file_complete_flag = 1;
    world().write_fails_at = 1;
    Handler_Cb(87, nullptr);
    EXPECT_EQ(file_complete_flag, 1);
    EXPECT_THAT(notice(), HasSubstr("\"VESTRA : USERKEY\\nFile Dump Failed!!!\\nFilePath:" + std::string(kDump)));
}

/* ------------------------------ Notices ------------------------------ */

TEST_F(VestradTrigger, NoticesAreForDebugImages) {
    static const struct {
        const char *name;
        std::vector<const char *> markers;
        int on;
        size_t shown;
    } kRows[] = {
        {"Debug", {"/etc/debug"}, 1, 1},       {"AnyValueIsOn", {"/etc/debug"}, -3, 1},
        {"SwitchedOff", {"/etc/debug"}, 0, 0}, {"NoMarker", {}, 1, 0},
        {"Performance", {"/etc/perf"}, 1, 0},  {"DebugAndRelease", {"/etc/debug", "/etc/release"}, 1, 0},
    };
    size_t shown = 0;
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        for (const char *marker : {"/etc/debug", "/etc/perf", "/etc/release"}) fs::remove(marker);
        for (const char *marker : row.markers) write_file(marker, "");
        g_vestra_config.user_notification_on = row.on;
        EXPECT_EQ(vestra_Display_GlobalNotification("text"), 0);
        shown += row.shown;
        EXPECT_THAT(notices(), SizeIs(shown));
    }
}

TEST_F(VestradTrigger, NoticeServiceFailures) {
    static const struct {
        platform_operation operation;
        const char *message;
    } kRows[] = {
        {FAULT_NOTIFICATION_CREATE, "ERR: notification_create failed"},
        {FAULT_NOTIFICATION_HIDE_TIMEOUT, "ERR:notification_set_hide_timeout failed(retVal:-1)"},
        {FAULT_NOTIFICATION_AUTO_REMOVE, "ERR: notification_set_auto_remove failed(retVal:-1)"},
        {FAULT_NOTIFICATION_TEXT, "ERR: notification_set_text failed(retVal:-1)"},
        {FAULT_NOTIFICATION_APPLIST, "ERR: notification_set_display_applist(retVal:-1)"},
        {FAULT_NOTIFICATION_POST, "ERR: notification_post(retVal:-1)"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.message);
        forget_log();
        platform_fail_nth(row.operation, 1);
        EXPECT_EQ(vestra_Display_GlobalNotification("text"), -1);
        EXPECT_THAT(log_texts(), ElementsAre(row.message));
        EXPECT_THAT(notices(), IsEmpty());
    }
}

/* ------------------------------ DOD key ------------------------------ */

constexpr char kDodKey[] = "system/DOD/test_monitor";
constexpr char kDodFolder[] = "/tmp/stick/issue_report_agent_DOD/Vestra";

TEST_F(VestradTrigger, DodKeySwitchesTheMode) {
    plug_known_stick();
    static const struct {
        const char *name;
        int value;
        bool makes_folder;
    } kRows[] = {{"On", 1, true}, {"Off", 0, false}, {"Two", 2, false}, {"Negative", -1, false}};
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        fs::remove_all("/tmp/stick/issue_report_agent_DOD");
        const size_t before = waits_us().size();
        call_with_key(kDodKey, row.value, dod_vconf_notify_cb);
        EXPECT_EQ(dod_mode_flag, row.value);
        EXPECT_EQ(fs::is_directory(kDodFolder), row.makes_folder);
        EXPECT_EQ(waits_us().size() - before, row.makes_folder ? 41U : 0U) << "a missing folder is waited for";
    }
    EXPECT_EQ(log_texts().front(), "[vestra] dod_vconf_notify_cb init key = system/DOD/test_monitor");
    EXPECT_EQ(log_texts().back(), "[vestra] dod_vconf_notify_cb exit key = system/DOD/test_monitor");

    fs::create_directories(kDodFolder);
    const size_t before = waits_us().size();
    call_with_key(kDodKey, 1, dod_vconf_notify_cb);
    EXPECT_EQ(waits_us().size(), before) << "a folder that is there is not";
}

TEST_F(VestradTrigger, DodModeIsOnWithoutAStickToo) {
    call_with_key(kDodKey, 1, dod_vconf_notify_cb);
    EXPECT_EQ(dod_mode_flag, 1);
    forget_log();
    call_with_key(kDodKey, "0", dod_vconf_notify_cb);
    EXPECT_EQ(dod_mode_flag, 1) << "a text is no value";
    EXPECT_EQ(count_log(kDebug, "Unknown Type(40)"), 1);
    EXPECT_THAT(log_texts(), SizeIs(3));
}

/* ------------------------------ Robustness key ------------------------------ */

constexpr char kRobustKey[] = "system/vestra/robust";

struct RobustCase {
    const char *name;
    std::string value;
    std::string parsed;  // as the log shows it
    std::vector<std::string> files;
};
void PrintTo(const RobustCase &row, std::ostream *out) {
    *out << row.name;
}
const std::string kDone = "path /tmp/stick, name ";
const RobustCase kRobustCases[] = {
    {"ThreeFields", "/tmp/stick|procd|77", kDone + "procd, pid 77", {"0000000000_77_procd_1700000000"}},
    {"PathIsCutFromTheName",
     "/tmp/stick|/usr/bin/procd|77",
     kDone + "/usr/bin/procd, pid 77",
     {"0000000000_77_procd_1700000000"}},
    {"BlanksBeforeTheNameAreSkipped", "/tmp/stick| \t a b |5", kDone + "a b , pid 5", {"0000000000_5_a b _1700000000"}},
    {"NoSecondBar", "/tmp/stick|procd", kDone + "procd, pid 0", {"0000000000_0_procd_1700000000"}},
    {"NoBarAtAll", "/tmp/stick", kDone + ", pid 0", {"0000000000_0__1700000000"}},
    {"EmptyName", "/tmp/stick||5", kDone + ", pid 0", {"0000000000_0__1700000000"}},
    {"NegativeId", "/tmp/stick|p|-7", kDone + "p, pid -7", {"0000000000_-7_p_1700000000"}},
    {"HugeId",
     "/tmp/stick|p|99999999999999999999",
     kDone + "p, pid 2147483647",
     {"0000000000_2147483647_p_1700000000"}},
    {"IdWithATail", "/tmp/stick|p|12abc|9", kDone + "p, pid 12", {"0000000000_12_p_1700000000"}},
    {"NameOf300",
     "/tmp/stick|" + std::string(300, 'n') + "|5",
     kDone + std::string(255, 'n') + ", pid 0",
     {"0000000000_0_" + std::string(231, 'n')}},  // an argument of the command runner has 255 characters
    {"TenKilobytes", std::string(10240, '/'), "path " + std::string(255, '/') + ", name , pid 0", {}},
    {"MissingDirectory", "/tmp/none|p|1", "path /tmp/none, name p, pid 1", {}},
    {"EmptyText", "", "path , name , pid 0", {}},
    {"EmptyPath", "|p|1", "path , name , pid 0", {}},
    {"Formats", "/tmp/stick|%s%n%d|1", kDone + "%s%n%d, pid 1", {"0000000000_1_%s%n%d_1700000000"}},
};

class VestradRobust : public VestradTrigger, public ::testing::WithParamInterface<RobustCase> {};

TEST_P(VestradRobust, ValueBecomesADump) {
    const RobustCase &row = GetParam();
    call_with_key(kRobustKey, row.value.c_str(), robustness_vconf_notify_cb);
    EXPECT_EQ(count_log(kDebug, "[vestra] data from ira : " + row.parsed), 1) << row.parsed;
    EXPECT_EQ(names_in(kStick), row.files);
    EXPECT_EQ(file_complete_flag, 0);
    EXPECT_EQ(log_texts().back(), "[vestra] robustness_vconf_notify_cb exit key = system/vestra/robust");
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradRobust, ::testing::ValuesIn(kRobustCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradTrigger, RobustnessDumpLeavesTheFlagAndReportsFailure) {
    file_complete_flag = 1;
    world().write_fails_at = 1;
    call_with_key(kRobustKey, "/tmp/stick|p|1", robustness_vconf_notify_cb);
    EXPECT_EQ(file_complete_flag, 1);
    EXPECT_EQ(count_log(kError, "[vestra] ERROR: robustness write_data failed (28:No space left on device)"), 1);
    EXPECT_THAT(notices(), IsEmpty());
    forget_log();
    call_with_key(kRobustKey, "/tmp/none|p|1", robustness_vconf_notify_cb);
    EXPECT_EQ(count_log(kError, "[vestra] ERROR: get_usb_path /tmp/none "), 1);
    EXPECT_THAT(waits_us(), SizeIs(41));
    forget_log();
    call_with_key(kRobustKey, 5, robustness_vconf_notify_cb);
    EXPECT_EQ(count_log(kDebug, "[vestra] Unknown Type(41)"), 1);
}

/* ------------------------------ History trigger, memory drop ------------------------------ */

constexpr char kHistoryKey[] = "memory/SHM/trigger_db_write";

TEST_F(VestradTrigger, HistoryIsFilledForTheValueOne) {
    vconf_set_int(kHistoryKey, 1);
    callbackSHMdbpop(nullptr, nullptr);
    EXPECT_THAT(log_texts(), ElementsAre("callbackSHMdbpop Called..", "Key obtained as NULL"));

    ASSERT_EQ(ProcessDbInit(), 0);
    int value = 7;
    call_with_key(kHistoryKey, 1, callbackSHMdbpop);
    EXPECT_EQ(count_log(kError, "Filling in Table PROCESS_INFO Ends"), 1);
    EXPECT_EQ(vconf_get_int(kHistoryKey, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(pthread_mutex_trylock(&lock), 0) << "the lock is free again";
    pthread_mutex_unlock(&lock);

    for (const int other : {0, 2, -1}) {
        forget_log();
        call_with_key(kHistoryKey, other, callbackSHMdbpop);
        EXPECT_THAT(log_texts(), ElementsAre("callbackSHMdbpop Called.."));
    }
    forget_log();
    call_with_key(kHistoryKey, "1", callbackSHMdbpop);
    EXPECT_EQ(count_log("vconf_get_int(memory/SHM/trigger_db_write) Fail("), 1);
}

TEST_F(VestradTrigger, HistoryKeyIsReadAnew) {
    // The node carries 1, the key meanwhile 2.
    call_with_key(kHistoryKey, 1, [](keynode_t *node, void *) {
        EXPECT_EQ(vconf_keynode_get_int(node), 1);
        vconf_set_int(kHistoryKey, 2);
        forget_log();
        callbackSHMdbpop(node, nullptr);
    });
    EXPECT_THAT(log_texts(), ElementsAre("callbackSHMdbpop Called.."));
}

// Hands the node to the daemon's callback in a process of its own.
void expect_killed(keynode_t *node, void *) {
    EXPECT_EXIT(
        {
            __scenario_manager_tv_memory(node, nullptr);
            _exit(3);
        },
        ::testing::KilledBySignal(SIGKILL), "");
}

void expect_alive(keynode_t *node, void *) {
    EXPECT_EXIT(
        {
            __scenario_manager_tv_memory(node, nullptr);
            _exit(3);
        },
        ::testing::ExitedWithCode(3), "");
}

TEST_F(VestradTrigger, MemoryDropKillsWithoutAFaultAgent) {
    static const struct {
        const char *name, *key;
        int value;
        bool policy;
        vconf_callback_fn expected;
    } kRows[] = {
        {"BitSet", "memory/scenario_manager_tv/memory_drop", 0x100, false, expect_killed},
        {"BitAmongOthers", "memory/scenario_manager_tv/memory_drop", -1, false, expect_killed},
        {"BitNotSet", "memory/scenario_manager_tv/memory_drop", 0xeff, false, expect_alive},
        {"AgentIsThere", "memory/scenario_manager_tv/memory_drop", 0x100, true, expect_alive},
        {"AnotherKey", "memory/scenario_manager_tv/memory_drop2", 0x100, false, expect_alive},
    };
    const char kPolicy[] = "/opt/usr/share/marlet/marlet_ira_policy.xml";
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        fs::remove(kPolicy);
        if (row.policy) write_file(kPolicy, "");
        call_with_key(row.key, row.value, row.expected);
    }
    fs::remove(kPolicy);
}

}  // namespace
}  // namespace vestra_test
