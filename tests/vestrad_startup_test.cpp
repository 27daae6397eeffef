// Whole start-ups and shut-downs, with threads that end at once.

#include <sstream>

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
    // What is printed and logged about something from start-up to the return of main.
    static std::string run_for(const std::string &part, const Strings &arguments = {"/usr/bin/vestrad"}) {
        const std::string printed = run(arguments);
        return lines_with(part, printed + seen_text("4c"));
    }
};

TEST_F(VestradStartup, SettingsAreSettled) {
    std::string results;
    // The chip, the command line's arguments, and the settings in the configuration file.
    for (const std::string row :
         {"RIVAM", "RIVAM 3 9", "RIVAM 3 9 1", "RIVAM 3 0", "RIVAM abc xyz", "DALPS 10", "DALPS -1", "TORNL 15",
          "TORNM 15", "Y47QE 11", "RIVAM 99999999999999999999 99999999999999999999", "RIVAM 3 9 max_file_size=8",
          "TORNL 3 9 max_file_size=8 cont_data_collect=1", "RIVAM max_file_size=1", "RIVAM max_file_size=0",
          "RIVAM max_file_size=10", "RIVAM max_file_size=11", "RIVAM max_file_size=4095"}) {
        Strings arguments, settings;
        std::istringstream words(row);
        for (std::string word; words >> word;) (word.find('=') == word.npos ? arguments : settings).push_back(word);
        prepare(settings, arguments[0]);
        results += row + "\n" + run_for("max file size|interval for|onfig file", arguments);
    }
    expect_golden("settings", results);
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
    const std::string printed = run();
    expect_golden("start-and-stop-with-failures", printed + seen_text("3456"));
    EXPECT_EQ(g_vestra_config.min_time_diff_dump, 1);
    EXPECT_EQ(g_vestra_config.live_data_collect, 0);
}

TEST_F(VestradStartup, ShutsDownWithoutAServiceOrAThread) {
    std::string results;
    const auto run_without = [&](const char *name) {
        EXPECT_THAT(run(), EndsWith("\n[Vestra]  INFO: main loop exit\n"));
        EXPECT_EQ(g_loop, nullptr);
        EXPECT_THAT(drain_node(), EndsWith("0\n")) << "tracing is off";
        results += "without " + std::string(name) + "\n" + seen_text("46c");
        prepare();
    };
    platform_fail_always(FAULT_KEY_INITIALIZE);
    run_without("keys");
    world().no_segment = true;
    run_without("segment");
    for (const int thread : {1, 2, 3, 4}) {
        world().fails_in[kThread] = thread;
        run_without(text("thread %d", thread).c_str());
    }
    expect_golden("start-without-needs", results);
}

TEST_F(VestradStartup, PriorityIsRaisedAsConfigured) {
    std::string results;
    // Values, and what nice() gives for them: a refusal (-1) counts as done.
    for (const auto &[value, result] :
         Table<std::string, int>{{"0", -1}, {"-10", 5}, {"4294967276", 5}, {"4294967275", 5}}) {
        prepare({"vestra_info_raise_priority=1", "vestra_info_new_priority_nice=" + value});
        world().nice_result = result;
        results += value + "\n" + run_for("nice");
    }
    prepare({"vestra_info_raise_priority=0"});
    expect_golden("priorities", results + "not raised\n" + run_for("nice"));
}

TEST_F(VestradStartup, StopBeforeTheLoopRunsIsNotLost) {
    // Comes with the wait for a stick, which is before the threads and long before the loop.
    world().on_wait = [](int) { exit_handler(SIGRTMIN + 6); };
    std::string name = "/usr/bin/" + std::string(300, 'v');
    char *argv[] = {name.data(), nullptr};
    EXPECT_THAT(printed_by([&] { vestrad_main(1, argv); }), EndsWith("[Vestra]  INFO: main loop exit\n"));
    EXPECT_EQ(process_name, name.substr(0, 255));
}
