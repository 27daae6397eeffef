// Key combination, notices, and the callbacks of the configuration keys.

#include <sys/wait.h>

#include "support/daemon_env.h"

using namespace vestra_test;
using namespace std::string_literals;

class VestradTrigger : public DaemonTest {
  protected:
    VestradTrigger() { prepare(); }

    static void prepare() {
        start_afresh();
        make_debug_image();
        plug_known_stick();
        append_block(10, 'x');
    }
};

TEST_F(VestradTrigger, KeyWaitsForTheFaultAndAFullChain) {
    static const struct {
        const char *name;
        int fault_ends_after, fill_ends_after, stop_after;  // waits; -1: never
    } kRows[] = {
        {"FaultOverAtTheLastLook", 30, 0, -1}, {"FaultNeverOver", -1, 0, -1},      {"FaultWaitIsStopped", -1, 0, 5},
        {"FaultStoppedTooLate", -1, 0, 30},    {"FullAtTheLastLook", 0, 250, -1},  {"NeverFull", 0, -1, -1},
        {"FillWaitIsStopped", 0, -1, 249},     {"FillStoppedTooLate", 0, -1, 250},
    };
    std::string results;
    for (const auto &row : kRows) {
        prepare();
        fault_handling_flag = 1;
        world().on_wait = [&](int waits) {
            if (waits == row.fault_ends_after) fault_handling_flag = 0;
            if (waits == row.fill_ends_after) file_complete_flag = 1;
            if (waits == row.stop_after) exit_flag = 1;
        };
        world().on_wait(0);
        Handler_Cb(87, nullptr);
        results +=
            text("%s: %zu dumps, %s shown\n", row.name, names_in(kStick).size(), notices().empty() ? "none" : "one");
        results += seen_text("46w");
    }
    expect_golden("key-waits", results);
}

static const std::string dump = "/tmp/stick/0000000000_" + std::to_string(getpid()) + "_vestrad_1709618828";

TEST_F(VestradTrigger, KeyDumpThatFailsIsShown) {
    file_complete_flag = 1;
    world().fails_in[kWrite] = 1;
    Handler_Cb(87, nullptr);
    EXPECT_THAT(notices(), HasSubstr("\"VESTRA : USERKEY\\nFile Dump Failed!!!\\nFilePath:" + dump + "\""));
    EXPECT_THAT(seen("6"), Contains(StartsWith("6 ERROR: hcb write_data failed (")));
    EXPECT_EQ(file_complete_flag, 1);
}

TEST_F(VestradTrigger, KeyDumpIsShown) {
    file_complete_flag = 1;
    Handler_Cb(87, nullptr);
    EXPECT_THAT(notices(),
                AllOf(HasSubstr("\"VESTRA : USERKEY\\nFile Dump Successfully Done!!!\\nFilePath:" + dump + "\""),
                      HasSubstr("\"hide_timeout\":30"), HasSubstr("\"auto_remove\":false"), HasSubstr("\"applist\":16"),
                      HasSubstr("\"type\":0")));
    EXPECT_EQ(read_file(dump), std::string(10, 'x') + kTrailer);
    EXPECT_EQ(file_complete_flag, 0) << "the next dump waits for a full chain again";
}

TEST_F(VestradTrigger, KeyWithoutAStickIsShown) {
    g_prev_usb_path_valid = 0;
    file_complete_flag = 1;
    Handler_Cb(87, nullptr);  // the first lookup of a stick gives no directory
    usb_device_unplug("stick");
    g_prev_usb_path_valid = 0;
    Handler_Cb(87, nullptr);
    EXPECT_THAT(seen("6"), ElementsAre(StartsWith("6 ERROR: hcb write_data failed ("), StartsWith("6 [GUP]")));
    EXPECT_THAT(notices(), HasSubstr("\"VESTRA : USERKEY\\nFile Dump Failed!!!\\nUSB Error:\""));
    EXPECT_THAT(names_in(kStick), IsEmpty());
}

TEST_F(VestradTrigger, NoticesAreForDebugImages) {
    for (const auto &[markers, on, shown] : Table<Strings, int, bool>{{{"debug", "perf"}, -3, true},
                                                                      {{"debug"}, 0, false},
                                                                      {{"perf"}, 1, false},
                                                                      {{"debug", "release"}, 1, false}}) {
        start_afresh();
        for (const std::string &marker : markers) write_file("/etc/" + marker, "");
        g_vestra_config.user_notification_on = on;
        EXPECT_EQ(vestra_Display_GlobalNotification("text"), 0);
        EXPECT_EQ(notices().empty(), !shown) << PrintToString(markers) << on;
    }
    prepare();
    for (int operation = FAULT_NOTIFICATION_CREATE; operation <= FAULT_NOTIFICATION_POST; ++operation) {
        platform_fail_nth(static_cast<platform_operation>(operation), 1);
        EXPECT_EQ(vestra_Display_GlobalNotification("text"), -1);
    }
    expect_golden("notice-failures", seen_text());
    EXPECT_EQ(notices(), "");
}

TEST_F(VestradTrigger, DodKeySwitchesTheMode) {
    const char key[] = "system/DOD/test_monitor", folder[] = "/tmp/stick/issue_report_agent_DOD/Vestra";
    for (const int value : {2, 0, -1, 1, 1}) {
        call_with_key(key, value, dod_vconf_notify_cb);
        EXPECT_EQ(dod_mode_flag, value);
        EXPECT_EQ(fs::is_directory(folder), value == 1);
    }
    call_with_key(key, "0", dod_vconf_notify_cb);
    EXPECT_EQ(dod_mode_flag, 1) << "a text is no value";
    expect_golden("dod-key", seen_text() + seen_text("w"));
}

TEST_F(VestradTrigger, RobustnessKeyBecomesADump) {
    const char key[] = "system/vestra/robust";
    std::string results;
    for (const std::string &value :
         {"/tmp/stick|/usr/bin/p|77"s, "/tmp/stick| \t a b |5"s, "/tmp/stick|p"s, "/tmp/stick|p|99999999999999999999"s,
          "/tmp/stick|%s%n|-12abc|9"s, std::string(10240, '/'), "|p|1"s}) {
        prepare();
        file_complete_flag = 1;
        call_with_key(key, value, robustness_vconf_notify_cb);
        results += lines_with("data from ira", seen_text()) + PrintToString(names_in(kStick)) + "\n";
        EXPECT_EQ(file_complete_flag, 1);
        EXPECT_EQ(notices(), "");
    }
    expect_golden("robustness-requests", results);
}

TEST_F(VestradTrigger, RobustnessRequestThatFailsIsLogged) {
    const char key[] = "system/vestra/robust";
    world().fails_in[kWrite] = 1;
    call_with_key(key, "/tmp/stick|p|1", robustness_vconf_notify_cb);
    EXPECT_EQ(seen("6").back(), "6 [vestra] ERROR: robustness write_data failed (28:No space left on device)");
    begin_transcript();
    call_with_key(key, "/tmp/none|p|1", robustness_vconf_notify_cb);
    call_with_key(key, 5, robustness_vconf_notify_cb);
    expect_golden("robustness-requests-without-dump", seen_text());
}

TEST_F(VestradTrigger, HistoryIsFilledForTheValueOneOnly) {
    const char key[] = "memory/SHM/trigger_db_write";
    callbackSHMdbpop(nullptr, nullptr);
    call_with_key(key, "1", callbackSHMdbpop);
    call_with_key(key, 1, [](keynode_t *node, void *) {
        vconf_set_int("memory/SHM/trigger_db_write", 2);  // the node still carries 1
        callbackSHMdbpop(node, nullptr);
    });
    EXPECT_THAT(seen(), ElementsAre(_, "3 Key obtained as NULL", _,
                                    StartsWith("3 vconf_get_int(memory/SHM/trigger_db_write) Fail("), _));
}

TEST_F(VestradTrigger, MemoryDropKillsWithoutAFaultAgent) {
    static int status;
    const std::string drop = "memory/scenario_manager_tv/memory_drop";
    const std::string agent = "/opt/usr/share/marlet/marlet_ira_policy.xml", none = "/opt/none";
    for (const auto &[key, value, policy, killed] :
         Table<std::string, int, std::string, bool>{{drop, 0x100, none, true},
                                                    {drop, -1, none, true},
                                                    {drop, 0xeff, none, false},
                                                    {drop, 0x100, agent, false},
                                                    {drop + "2", 0x100, none, false}}) {
        write_file(policy, "");
        call_with_key(key.c_str(), value, [](keynode_t *node, void *) {
            const pid_t child = fork();  // the daemon's callback in its own process
            if (child == 0) {
                __scenario_manager_tv_memory(node, nullptr);
                _exit(3);
            }
            waitpid(child, &status, 0);
        });
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : -1, killed ? SIGKILL : -1) << key << value << policy;
        fs::remove(policy);
    }
}
