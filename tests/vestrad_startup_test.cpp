// Whole start-ups and shut-downs, with threads that end at once.

#include "golden.h"
#include "set/config_file.h"
#include "support/daemon_env.h"

using namespace vestra_test;

static const std::string kThermal = "/sys/devices/platform/soc/thermal";
static const std::string kConfigFile = "/opt/data/vestraDir/orna_vestra_config.xml";
static const std::string kConfigFileLpc = "/opt/data/vestraDir/orna_vestra_config_lpc.xml";

class VestradStartup : public DaemonTest {
  protected:
    VestradStartup() { prepare(); }

    // A node, a temperature, no stick. Without `settings` no configuration file; otherwise the module is not loaded
    // unless they say so.
    static void prepare(Strings settings = {}, const std::string &chip = "RIVAM") {
        start_afresh();
        make_node();
        write_file(state_path("system_info.ini"), vestra_set::make_system_info(chip));
        write_file(kThermal + "/temperature", "45\n");
        const bool with_file = !settings.empty();
        settings.insert(settings.begin(), "vestra_kmod_load_unload=0");
        for (const std::string &file : {kConfigFile, kConfigFileLpc}) {
            std::string error;
            fs::remove(file);
            if (with_file) write_file(file, vestra_set::make_config(settings, &error));
        }
    }
    // From start-up to the return of main; the loop, when it is reached, is stopped at once. Gives what was printed.
    static std::string run(Strings arguments = {"/usr/bin/vestrad"}) {
        std::vector<char *> argv;
        for (std::string &argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const auto stop = [](gpointer) -> gboolean { return exit_handler(0), G_SOURCE_REMOVE; };
        const guint source = g_idle_add(stop, nullptr);
        return printed_by([&] {
            EXPECT_EQ(vestrad_main(static_cast<int>(arguments.size()), argv.data()), 0);
            if (g_loop == nullptr) g_source_remove(source);
        });
    }
};

TEST_F(VestradStartup, SettingsAreSettled) {
    static const struct {
        const char *name, *chip;
        Strings arguments, settings;
        int size_mib, buffer_us, file_s;
        const char *clamped;  // the printed line about the size, "" for none
    } kRows[] = {
        {"Nothing", "RIVAM", {}, {}, 10, 500000, 4, ""},
        {"SizeAndInterval", "RIVAM", {"3", "9"}, {}, 3, 1000000, 9, ""},
        {"ThreeArgumentsAreNone", "RIVAM", {"3", "9", "1"}, {}, 10, 500000, 4, ""},
        {"IntervalZeroIsOne", "RIVAM", {"3", "0"}, {}, 3, 1000000, 1, ""},
        {"TenOnChip5", "DALPS", {"10"}, {}, 10, 500000, 4, ""},
        {"NegativeOnChip5", "DALPS", {"-1"}, {}, 7, 500000, 4, ""},
        {"FifteenOnChip3", "TORNL", {"15"}, {}, 7, 500000, 4, ""},
        {"FifteenOnChip4", "TORNM", {"15"}, {}, 10, 500000, 4, ""},
        {"ElevenOnChip6", "Y47QE", {"11"}, {}, 7, 500000, 4, ""},
        {"HugeNumbers", "RIVAM", {"99999999999999999999", "99999999999999999999"}, {}, 10, 1000000, INT_MAX, ""},
        {"NoNumbers", "RIVAM", {"abc", "xyz"}, {}, 1, 1000000, 1, "less than allowable limit = 0"},
        {"FileInPlaceOfTheSize", "RIVAM", {"3", "9"}, {"max_file_size=8"}, 8, 1000000, 9, ""},
        {"ContinuousInterval", "TORNL", {"3", "9"}, {"max_file_size=8", "cont_data_collect=1"}, 8, 1000000, 4, ""},
        {"FileSizeOne", "RIVAM", {}, {"max_file_size=1"}, 1, 500000, 4, ""},
        {"FileSizeZero", "RIVAM", {}, {"max_file_size=0"}, 1, 500000, 4, "less than allowable limit = 0"},
        {"FileSizeTen", "RIVAM", {}, {"max_file_size=10"}, 10, 500000, 4, ""},
        {"FileSizeEleven", "RIVAM", {}, {"max_file_size=11"}, 10, 500000, 4, "more than allowable limit = 11534336"},
        {"FileSizeHuge", "RIVAM", {}, {"max_file_size=4095"}, 10, 500000, 4, "more than allowable limit = -1048576"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        prepare(row.settings, row.chip);
        Strings arguments = row.arguments;
        arguments.insert(arguments.begin(), "vestrad");
        const std::string printed = run(arguments), clamped = row.clamped;
        EXPECT_THAT(seen("4"), IsSupersetOf({"4 INFO: final max file size = " + std::to_string(row.size_mib << 20),
                                             "4 INFO: interval for file in sec = " + std::to_string(row.file_s),
                                             "4 INFO: interval for buf in usec = " + std::to_string(row.buffer_us)}));
        EXPECT_THAT(printed, HasSubstr(clamped.empty() ? "" : "[Vestra] INFO: max file size " + clamped + "\n"));
        EXPECT_EQ(printed.find("allowable limit") == std::string::npos, clamped.empty());
        EXPECT_EQ(VESTRA_CONFIG_FILE, g_chip_type == 1 || g_chip_type == 4 ? kConfigFile : kConfigFileLpc);
    }
}

TEST_F(VestradStartup, EverythingComesInItsOrder) {
    prepare({"max_file_size=4", "no_of_files=6", "cont_data_collect=2", "user_notification_on=3", "live_data_collect=9",
             "vestra_diskio_write_enable=0", "vestra_kmod_load_unload=1", "vestra_info_raise_priority=1"});
    plug_known_stick();
    append_block(100, 'x');
    ghead_shm = last_node = new circ_buf_shm{};
    world().nice_result = 19;
    world().on_wait = [](int) {  // the module's unloading is waited for
        EXPECT_EQ(drain_node(), "c-1-4-1c-4-4-41\n0\n");
        unlink(kControlNode);
    };
    expect_golden("printed-by-start-and-stop", run());
    std::string text = seen_text("3456ncw");
    const std::string called = "3 callbackSHMdbpop Called..\n";  // comes or not: the database has set the key
    if (const size_t at = text.find(called); at != std::string::npos) text.erase(at, called.size());
    expect_golden("start-and-stop", text);
    EXPECT_EQ(max_number_of_files, 6);
    EXPECT_EQ(ghead_s, nullptr);
    EXPECT_EQ(ghead_shm, nullptr);
    EXPECT_EQ(exit_flag, 1);
    EXPECT_EQ(client_thread | thread_for_userdata | thread_for_process_names | thread_read_hndl, 0U);
    EXPECT_EQ(*static_cast<int32_t *>(get_shm()), 1);
}

TEST_F(VestradStartup, FailuresOnTheWayAreLoggedOnly) {
    // What stands above the missing element counts, the defaults stand for the rest.
    write_file(kConfigFile, "<vestra_config><vestra_kmod_load_unload>1</vestra_kmod_load_unload></vestra_config>");
    g_vestra_config.live_data_collect = 5;
    fs::remove_all(kThermal);
    for (const auto fault : {FAULT_VCONF_NOTIFY, FAULT_INSMOD, FAULT_RMMOD}) platform_fail_always(fault);
    world().name_error = ERANGE;
    EXPECT_THAT(run(),
                AllOf(HasSubstr("[Vestra] INFO: GetVestraConfigInfo failed, check config file at " + kConfigFile +
                                "!\n[Vestra] ERROR: loadVestraDriver failed -1 \n[Vestra] INFO: USB Error, "
                                "Please check USB!\n[Vestra] INFO: waiting"),
                      EndsWith("[Vestra]  INFO: main loop exit\n")));
    expect_golden("start-and-stop-with-failures", seen_text("3456"));
    EXPECT_EQ(g_vestra_config.min_time_diff_dump, 1);
    EXPECT_EQ(g_vestra_config.live_data_collect, 0);
}

TEST_F(VestradStartup, ShutsDownWithoutAServiceOrAThread) {
    // What fails: a service for ever, or the thread of that number.
    std::string text;
    for (const auto &[name, fault, thread] :
         Table<const char *, platform_operation, int>{{"keys", FAULT_KEY_INITIALIZE, 0},
                                                      {"segment", FAULT_GET_SHM, 0},
                                                      {"first thread", FAULT_OPERATIONS, 1},
                                                      {"second thread", FAULT_OPERATIONS, 2},
                                                      {"third thread", FAULT_OPERATIONS, 3},
                                                      {"fourth thread", FAULT_OPERATIONS, 4}}) {
        prepare();
        if (thread == 0) platform_fail_always(fault);
        world().fails_in[kThread] = thread;
        EXPECT_THAT(run(), EndsWith("\n[Vestra]  INFO: main loop exit\n"));
        EXPECT_EQ(g_loop, nullptr);
        EXPECT_THAT(drain_node(), EndsWith("0\n")) << "tracing is off";
        text += "without " + std::string(name) + "\n" + seen_text("46c");
    }
    expect_golden("start-without-needs", text);
}

TEST_F(VestradStartup, PriorityIsRaisedAsConfigured) {
    for (const auto &[value, result, increment, printed] : Table<std::string, int, std::string, std::string>{
             {"0", -1, "0", "[vestra] vestra_info_new_priority_nice 0!"},
             {"-10", 5, "-20", "[vestra] default new_nice_val -20!"},
             {"4294967276", 5, "-20", "[vestra] vestra_info_new_priority_nice -20!"},
             {"4294967275", 5, "-20", "[vestra] default new_nice_val -20!"}}) {
        SCOPED_TRACE(value);
        prepare({"vestra_info_raise_priority=1", "vestra_info_new_priority_nice=" + value});
        world().nice_result = result;  // a refusal (-1) counts as done
        EXPECT_THAT(run(), HasSubstr(printed + "\n[vestra] priority updated with nice value " + increment + ":" +
                                     std::to_string(result) + "!\n"));
        EXPECT_THAT(seen("c"), Contains("call nice " + increment));
    }
    prepare({"vestra_info_raise_priority=0"});
    EXPECT_THAT(run(), Not(HasSubstr("nice")));
}

TEST_F(VestradStartup, StopBeforeTheLoopRunsIsNotLost) {
    // Comes with the wait for a stick, which is before the threads and long before the loop.
    world().on_wait = [](int) { exit_handler(SIGRTMIN + 6); };
    std::string name = "/usr/bin/" + std::string(300, 'v');
    char *argv[] = {name.data(), nullptr};
    EXPECT_THAT(printed_by([&] { vestrad_main(1, argv); }), EndsWith("[Vestra]  INFO: main loop exit\n"));
    EXPECT_EQ(process_name, name.substr(0, 255));
}
