// Whole start-ups and shut-downs, with threads that end at once.

#include <glib.h>
#include <unistd.h>

#include <map>
#include <optional>

#include "platform/fault.h"
#include "platform/state_dir.h"
#include "platform/usb_device.h"
#include "platform/vestra_api.h"
#include "support/daemon_env.h"
#include "vestra-daemon/decoder.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

using Settings = std::map<std::string, std::string>;

constexpr char kConfigFile[] = "/opt/data/vestraDir/orna_vestra_config.xml";
constexpr char kConfigFileLpc[] = "/opt/data/vestraDir/orna_vestra_config_lpc.xml";

// A configuration file with these settings and 0 or nothing for the rest; an element set to "-" is missing.
std::string config(const Settings &settings) {
    std::string text = "<vestra_config>";
    for (const std::string name :
         {"vestra_kmod_load_unload", "vestra_litemode_on", "min_time_diff_dump", "cont_data_collect", "no_of_files",
          "max_file_size", "user_notification_on", "vestra_diskio_read_enable", "vestra_diskio_write_enable",
          "live_data_collect", "vestra_unique_id", "vestra_extfile_path_id", "vestra_extfile_path_other_id",
          "vestra_info_raise_priority", "vestra_info_new_priority_nice"}) {
        const auto found = settings.find(name);
        const std::string value = found == settings.end() ? "0" : found->second;
        if (value != "-") text += "<" + name + ">" + value + "</" + name + ">";
    }
    return text + "</vestra_config>";
}

gboolean stop(gpointer) {
    exit_handler(SIGRTMIN + 6);
    return G_SOURCE_REMOVE;
}

class VestradStartup : public DaemonTest {
  protected:
    VestradStartup() {
        world().idle_threads = true;
        set_chip("RIVAM");
        set_config(std::nullopt);
        write_file("/sys/devices/platform/soc/thermal/temperature", "45\n");
    }

    static void set_chip(const std::string &chip) {
        write_file(state_path("system_info.ini"), "[com.velmora/featureconf]\nproduct.chipset=" + chip + "\n");
    }
    static void set_config(const std::optional<Settings> &settings) {
        for (const char *file : {kConfigFile, kConfigFileLpc}) {
            fs::remove(file);
            if (settings) write_file(file, config(*settings));
        }
    }
    // From start-up to the return of main; the loop, when it is reached, is stopped at once. Gives what was printed.
    std::string run(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), "/usr/bin/vestrad");
        std::vector<char *> argv;
        for (std::string &argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        forget_loop();
        const guint source = g_idle_add(stop, nullptr);
        PrintedText printed;
        EXPECT_EQ(vestrad_main(static_cast<int>(arguments.size()), argv.data()), 0);
        if (g_loop == nullptr) g_source_remove(source);
        return printed.take();
    }
    // The daemon leaves its loop to the end of the process.
    static void forget_loop() {
        if (g_loop != nullptr) g_main_loop_unref(g_loop);
        g_loop = nullptr;
    }
    static bool loop_ran() { return g_loop != nullptr; }

    PipeNode node_;
};

/* ------------------------------ Settings ------------------------------ */

constexpr uint32_t kMiB = 1U << 20;

struct SettingsCase {
    const char *name;
    const char *chip;
    std::vector<std::string> arguments;
    std::optional<Settings> settings;
    uint32_t size;
    int buffer_us, file_s;
    const char *clamped;  // the printed line about the size, null: none
};
void PrintTo(const SettingsCase &row, std::ostream *out) {
    *out << row.name;
}
const SettingsCase kSettingsCases[] = {
    {"Nothing", "RIVAM", {}, {}, 10 * kMiB, 500000, 4, nullptr},
    {"SizeAlone", "RIVAM", {"3"}, {}, 3 * kMiB, 500000, 4, nullptr},
    {"SizeAndInterval", "RIVAM", {"3", "9"}, {}, 3 * kMiB, 1000000, 9, nullptr},
    {"ThreeArgumentsAreNone", "RIVAM", {"3", "9", "1"}, {}, 10 * kMiB, 500000, 4, nullptr},
    {"IntervalZeroIsOne", "RIVAM", {"3", "0"}, {}, 3 * kMiB, 1000000, 1, nullptr},
    {"NegativeInterval", "RIVAM", {"3", "-5"}, {}, 3 * kMiB, 1000000, -5, nullptr},
    {"TenIsTheMost", "DALPS", {"10"}, {}, 10 * kMiB, 500000, 4, nullptr},
    {"FifteenOnALargeChip", "RIVAM", {"15"}, {}, 10 * kMiB, 500000, 4, nullptr},
    {"FifteenOnChip3", "TORNL", {"15"}, {}, 7 * kMiB, 500000, 4, nullptr},
    {"FifteenOnChip4", "TORNM", {"15"}, {}, 10 * kMiB, 500000, 4, nullptr},
    {"FifteenOnChip5", "DALPS", {"15", "2"}, {}, 7 * kMiB, 1000000, 2, nullptr},
    {"ElevenOnChip6", "Y47QE", {"11"}, {}, 7 * kMiB, 500000, 4, nullptr},
    {"NegativeIsAboveTen", "RIVAM", {"-1"}, {}, 10 * kMiB, 500000, 4, nullptr},
    {"NegativeOnASmallChip", "DALPS", {"-1"}, {}, 7 * kMiB, 500000, 4, nullptr},
    {"HugeNumbers",
     "RIVAM",
     {"99999999999999999999", "99999999999999999999"},
     {},
     10 * kMiB,
     1000000,
     2147483647,
     nullptr},
    {"NoNumbers", "RIVAM", {"abc", "xyz"}, {}, 1 * kMiB, 1000000, 1, "less than allowable limit = 0"},
    {"FileInPlaceOfTheSize", "RIVAM", {"3", "9"}, Settings{{"max_file_size", "8"}}, 8 * kMiB, 1000000, 9, nullptr},
    {"SmallChipReadsItsOwnFile", "TORNL", {}, Settings{{"max_file_size", "8"}}, 8 * kMiB, 500000, 4, nullptr},
    {"ContinuousFixesTheInterval",
     "RIVAM",
     {"3", "9"},
     Settings{{"max_file_size", "8"}, {"cont_data_collect", "1"}},
     8 * kMiB,
     1000000,
     4,
     nullptr},
    {"ContinuousOfTwoDoesNot",
     "RIVAM",
     {"3", "9"},
     Settings{{"max_file_size", "8"}, {"cont_data_collect", "2"}},
     8 * kMiB,
     1000000,
     9,
     nullptr},
    {"FileSizeOne", "RIVAM", {}, Settings{{"max_file_size", "1"}}, 1 * kMiB, 500000, 4, nullptr},
    {"FileSizeTen", "RIVAM", {}, Settings{{"max_file_size", "10"}}, 10 * kMiB, 500000, 4, nullptr},
    {"FileSizeZero",
     "RIVAM",
     {},
     Settings{{"max_file_size", "0"}},
     1 * kMiB,
     500000,
     4,
     "less than allowable limit = 0"},
    {"FileSizeEleven",
     "RIVAM",
     {},
     Settings{{"max_file_size", "11"}},
     10 * kMiB,
     500000,
     4,
     "more than allowable limit = 11534336"},
    {"FileSizeThatWraps",
     "RIVAM",
     {},
     Settings{{"max_file_size", "4096"}},
     1 * kMiB,
     500000,
     4,
     "less than allowable limit = 0"},
    {"FileSizeBeyondASignedNumber",
     "RIVAM",
     {},
     Settings{{"max_file_size", "4095"}},
     10 * kMiB,
     500000,
     4,
     "more than allowable limit = -1048576"},
    {"FileWithoutItsLastElement",
     "RIVAM",
     {"3", "9"},
     Settings{{"max_file_size", "8"}, {"cont_data_collect", "1"}, {"vestra_info_new_priority_nice", "-"}},
     3 * kMiB,
     1000000,
     4,
     nullptr},
};

class VestradStartupSettings : public VestradStartup, public ::testing::WithParamInterface<SettingsCase> {};

TEST_P(VestradStartupSettings, AreSettled) {
    const SettingsCase &row = GetParam();
    set_chip(row.chip);
    set_config(row.settings);
    const std::string printed = run(row.arguments);
    EXPECT_EQ(max_file_size, row.size);
    EXPECT_EQ(sleep_time_usec_buf, row.buffer_us);
    EXPECT_EQ(sleep_time_sec_file, row.file_s);
    EXPECT_EQ(sleep_time_live_file, 1);
    EXPECT_EQ(count_log(kInfo, "INFO: final max file size = " + std::to_string(row.size)), 1);
    EXPECT_EQ(count_log(kInfo, "INFO: interval for file in sec = " + std::to_string(row.file_s)), 1);
    EXPECT_EQ(count_log(kInfo, "INFO: interval for buf in usec = " + std::to_string(row.buffer_us)), 1);
    if (row.clamped == nullptr) {
        EXPECT_THAT(printed, Not(HasSubstr("allowable limit")));
    } else {
        EXPECT_THAT(printed, HasSubstr(std::string("[Vestra] INFO: max file size ") + row.clamped + "\n"));
    }
    EXPECT_EQ(count_log("allowable limit"), 0) << "on standard output only";
    const bool small = g_chip_type == 3 || g_chip_type == 5 || g_chip_type == 6;
    EXPECT_STREQ(VESTRA_CONFIG_FILE, small ? kConfigFileLpc : kConfigFile);
    EXPECT_TRUE(loop_ran());
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradStartupSettings, ::testing::ValuesIn(kSettingsCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradStartup, DefaultsStandWhereTheFileStops) {
    g_vestra_config.live_data_collect = 5;
    set_config(Settings{{"min_time_diff_dump", "-"}, {"vestra_litemode_on", "2"}, {"no_of_files", "7"}});
    const std::string printed = run();
    EXPECT_EQ(g_vestra_config.vestra_litemode_on, 2);
    EXPECT_EQ(g_vestra_config.min_time_diff_dump, 1);
    EXPECT_EQ(g_vestra_config.live_data_collect, 0);
    EXPECT_EQ(g_vestra_config.no_of_files, 0);
    EXPECT_EQ(max_number_of_files, 1);
    const std::string text =
        "[Vestra] INFO: GetVestraConfigInfo failed, check config file at " + std::string(kConfigFile) + "!";
    EXPECT_THAT(printed, HasSubstr(text + "\n"));
    EXPECT_EQ(count_log(kInfo, text), 1);
    EXPECT_EQ(count_log(kWarning, "[Vestra] INFO: Continue with default params..."), 1);
    EXPECT_THAT(printed, Not(HasSubstr("Continue with default")));
}

/* ------------------------------ Order ------------------------------ */

TEST_F(VestradStartup, EverythingComesInItsOrder) {
    make_debug_image();
    fs::create_directories("/tmp/stick");
    usb_device_plug("stick", "/tmp/stick", USB_DEVICE_CLASS_MASS_STORAGE);
    set_config(Settings{{"max_file_size", "4"},
                        {"no_of_files", "6"},
                        {"cont_data_collect", "2"},
                        {"user_notification_on", "3"},
                        {"vestra_diskio_read_enable", "1"},
                        {"live_data_collect", "9"},
                        {"vestra_kmod_load_unload", "1"},
                        {"vestra_info_raise_priority", "1"}});
    append_block(100, 'x');
    ghead_shm = last_node = new circ_buf_shm{};
    world().nice_result = 19;
    world().on_wait = [](size_t) { unlink(kControlNode); };  // the module's unloading is waited for
    const std::string printed = run();

    EXPECT_EQ(printed,
              "[vestra] CHIP IS RIVA-M [1]!!!"
              "[Vestra] INFO: [CHIP : 1] Config File:/opt/data/vestraDir/orna_vestra_config.xml LOGTAG: VESTRA!\n"
              "[Vestra] Config file loading success: /opt/data/vestraDir/orna_vestra_config.xml\n"
              "[Vestra] INFO: Vestra Config=>maxfilesize:4194304,maxnumfile:6,cont_data:2 notify_on:3 diskiord:1 "
              "diskiowr:0, livedata: 9\n"
              "[vestra] vestra_info_new_priority_nice 0!\n"
              "[vestra] priority updated with nice value 0:19!\n"
              "[Vestra] INFO: USB path : /tmp/stick\n"
              "[Vestra] INFO: waiting for threads to join...\n"
              "SIGRTMIN+6 handled\n"
              "[Vestra]  INFO: main loop exit\n");
    std::vector<std::string> texts;
    for (const LogLine &line : log_lines()) {
        if (line.text.find("vestra: ") == 0 || line.function == "vestra_open") continue;
        if (line.function == "callbackSHMdbpop")
            continue;  // the database's start sets its key, which may still be told
        texts.push_back(std::to_string(line.priority) + " " + line.text);
    }
    const auto from = std::find(texts.begin(), texts.end(), "3 [ProcessDb] Start Success");
    ASSERT_NE(from, texts.end());
    EXPECT_THAT(
        std::vector<std::string>(from, texts.end()),
        ElementsAreArray({
            "3 [ProcessDb] Start Success",
            "3 vconf change notification successfully called",
            "3 vconf change notification successfully called for memory/scenario_manager_tv/memory_drop",
            "4 [Vestra] INFO: Vestra Config=>maxfilesize:4194304,maxnumfile:6,cont_data:2 notify_on:3 diskiord:1 "
            "diskiowr:0, livedata: 9",
            "4 PS_Insmod command : [/lib/modules/linux/kernel/orna-vestra-kmod.ko]",
            "3 INFO:Temperature FileName = /sys/devices//platform/soc/thermal//temperature",
            "6 [Vestra] INFO: KeyCombination_Add_Handler init",
            "6 [Vestra] INFO: KeyCombination_Add_Handler exit",
            "3 INFO: write_userdata_func init",
            "6 command = c-1-4-1",
            "3 INFO: write_userdata_func exit",
            "3 INFO: write_userdata_func init",
            "6 command = c-4-4-4",
            "3 INFO: write_userdata_func exit",
            "6  /tmp/vestra_processes/processes.txt doesnot exists",
            "4 INFO: final max file size = 4194304",
            "4 INFO: interval for file in sec = 4",
            "4 INFO: interval for buf in usec = 500000",
            "6 [vestra] vestra_info_new_priority_nice 0!",
            "3 [vestra] priority updated with nice value 0:19!",
            "4 INFO: Start the vestra driver 0 ",
            "6 INFO: USB path : /tmp/stick",
            "4 Thread client_request_process creating",
            "4 INFO: waiting for threads to join...",
            "4 INFO: main loop exit",
            "4 INFO: Stop the vestra driver 0 ",
            "4 INFO: elapsed time = 0 secs",
            "4 PS_Rmmod command : [orna_vestra_kmod]",
        }));
    EXPECT_THAT(calls(),
                ElementsAre("notify memory/SHM/trigger_db_write", "notify memory/scenario_manager_tv/memory_drop",
                            "combination 87", "notify system/DOD/test_monitor", "notify system/vestra/robust", "nice 0",
                            "name QXClientProcess", "name QXUserDataHndl", "name QXProcess", "name QXReadData",
                            "ignore system/DOD/test_monitor"));
    EXPECT_EQ(node_.drain(), "c-1-4-1c-4-4-41\n0\n");
    EXPECT_EQ(max_number_of_files, 6);
    EXPECT_EQ(ghead_s, nullptr);
    EXPECT_EQ(ghead_shm, nullptr);
    EXPECT_EQ(exit_flag, 1);
    for (const pthread_t handle : {client_thread, thread_for_userdata, thread_for_process_names, thread_read_hndl}) {
        EXPECT_EQ(handle, 0U);
    }
    EXPECT_EQ(*static_cast<int32_t *>(get_shm()), 1);
    last_node = nullptr;
}

TEST_F(VestradStartup, FailuresOnTheWayAreLoggedOnly) {
    set_config(Settings{{"vestra_kmod_load_unload", "1"}, {"max_file_size", "5"}});
    fs::remove_all("/sys/devices/platform/soc/thermal");
    platform_fail_always(FAULT_VCONF_NOTIFY);
    platform_fail_always(FAULT_INSMOD);
    platform_fail_always(FAULT_RMMOD);
    world().name_error = ERANGE;
    const std::string printed = run();
    EXPECT_TRUE(loop_ran());
    for (const char *text : {"Failed to register vconf change notification(memory/SHM/trigger_db_write)",
                             "Failed to register vconf change notification(memory/scenario_manager_tv/memory_drop)"}) {
        EXPECT_EQ(count_log(kDebug, text), 1) << text;
    }
    for (const char *text :
         {"ERROR: loadVestraDriver failed -1 ", "[Vestra] ERROR: vestra_get_temperature_file_path failed -1 ",
          "INFO: USB Error, Please check USB!", "ERROR: unloadVestraDriver failed -1 "}) {
        EXPECT_EQ(count_log(kError, text), 1) << text;
    }
    for (const char *subject :
         {"client_request_process", "thread_for_userdata", "thread_for_process_names", "thread_read_hndl"}) {
        EXPECT_EQ(count_log(kWarning, std::string("WARN: pthread_setname_np ") + subject +
                                          " failed (34:Numerical result out of range)"),
                  1);
    }
    EXPECT_THAT(printed, AllOf(HasSubstr("[Vestra] ERROR: loadVestraDriver failed -1 \n"),
                               HasSubstr("[Vestra] INFO: USB Error, Please check USB!\n")));
    EXPECT_EQ(count_log(kInfo, "INFO: elapsed time = 3 secs"), 1) << "three looks for a stick";
}

/* ------------------------------ Early ways out ------------------------------ */

TEST_F(VestradStartup, NoKeyCombinationServiceMeansShutDown) {
    platform_fail_nth(FAULT_KEY_INITIALIZE, 1);
    const std::string printed = run();
    EXPECT_FALSE(loop_ran());
    EXPECT_EQ(count_log("[Vestra] ERROR: KeyCombination_Initialize failed ("), 1);
    EXPECT_THAT(calls(),
                ElementsAre("notify memory/SHM/trigger_db_write", "notify memory/scenario_manager_tv/memory_drop",
                            "ignore system/DOD/test_monitor"));
    EXPECT_EQ(node_.drain(), "0\n");
    EXPECT_THAT(printed, EndsWith("[Vestra]  INFO: main loop exit\n"));
    EXPECT_THAT(waits_us(), IsEmpty());
}

TEST_F(VestradStartup, ThreadThatCannotBeMadeMeansShutDown) {
    const std::vector<std::string> names = {"name QXClientProcess", "name QXUserDataHndl", "name QXProcess"};
    for (int failing = 1; failing <= 4; ++failing) {
        SCOPED_TRACE(failing);
        const size_t before = calls().size();
        int made = 0;
        world().thread_fails_at = failing;
        forget_log();
        restart_thread_count();
        run();
        EXPECT_FALSE(loop_ran());
        EXPECT_EQ(count_log(kError, "ERROR: pthread_create failed (11:Resource temporarily unavailable)"), 1);
        const auto all = calls();
        for (size_t i = before; i < all.size(); ++i) made += all[i].rfind("name ", 0) == 0 ? 1 : 0;
        EXPECT_EQ(made, failing - 1) << "none behind it";
        EXPECT_EQ(count_log("pthread_join failed"), 0);
        EXPECT_EQ(count_log(kInfo, "INFO: main loop exit"), 1);
        EXPECT_EQ(count_log(kInfo, "INFO: Stop the vestra driver 0 "), 1);
    }
}

TEST_F(VestradStartup, NoSharedMemoryMeansShutDown) {
    platform_fail_always(FAULT_GET_SHM);
    const std::string printed = run();
    EXPECT_FALSE(loop_ran());
    EXPECT_EQ(count_log(kInfo, "INFO:shared memory not cerated ...exiting "), 1);
    EXPECT_THAT(printed, HasSubstr("[Vestra] INFO:shared memory not cerated ...exiting \n"
                                   "[Vestra]  INFO: main loop exit\n"));
    EXPECT_THAT(calls(), Contains("name QXReadData"));
}

/* ------------------------------ Priority and name ------------------------------ */

TEST_F(VestradStartup, PriorityIsRaisedAsConfigured) {
    static const struct {
        const char *name, *raise, *value;
        int result, error;
        std::string call, first, second;  // call of nice, printed lines
    } kRows[] = {
        {"Off", "0", "0", 0, 0, "", "", ""},
        {"Zero", "1", "0", 5, 0, "nice 0", "[vestra] vestra_info_new_priority_nice 0!\n",
         "[vestra] priority updated with nice value 0:5!\n"},
        {"SignIsLostSoDefault", "1", "-10", -20, 0, "nice -20", "[vestra] default new_nice_val -20!\n",
         "[vestra] priority updated with nice value -20:-20!\n"},
        {"PositiveIsDefault", "7", "5", -20, 0, "nice -20", "[vestra] default new_nice_val -20!\n",
         "[vestra] priority updated with nice value -20:-20!\n"},
        {"NegativeByWrapping", "1", "4294967276", -20, 0, "nice -20", "[vestra] vestra_info_new_priority_nice -20!\n",
         "[vestra] priority updated with nice value -20:-20!\n"},
        {"BelowTheRange", "1", "4294967275", -20, 0, "nice -20", "[vestra] default new_nice_val -20!\n",
         "[vestra] priority updated with nice value -20:-20!\n"},
        {"RefusalCountsAsDone", "1", "0", -1, EPERM, "nice 0", "[vestra] vestra_info_new_priority_nice 0!\n",
         "[vestra] priority updated with nice value 0:-1!\n"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        set_config(Settings{{"vestra_info_raise_priority", row.raise}, {"vestra_info_new_priority_nice", row.value}});
        world().nice_result = row.result;
        world().nice_error = row.error;
        const size_t before = calls().size();
        const std::string printed = run();
        std::string call;
        const auto all = calls();
        for (size_t i = before; i < all.size(); ++i) {
            if (all[i].rfind("nice ", 0) == 0) call = all[i];
        }
        EXPECT_EQ(call, row.call);
        EXPECT_THAT(printed, HasSubstr(row.first + row.second));
        if (row.call.empty()) {
            EXPECT_THAT(printed, Not(HasSubstr("nice")));
        }
    }
}

TEST_F(VestradStartup, NameOfTheProgramIsKept) {
    std::string name = "/usr/bin/" + std::string(300, 'v');
    char *argv[] = {name.data(), nullptr};
    g_idle_add(stop, nullptr);
    PrintedText printed;
    EXPECT_EQ(vestrad_main(1, argv), 0);
    EXPECT_EQ(std::string(process_name), name.substr(0, 255));
    argv[0] = nullptr;
    forget_loop();
    g_idle_add(stop, nullptr);
    EXPECT_EQ(vestrad_main(0, argv), 0);
    EXPECT_STREQ(process_name, "");
}

TEST_F(VestradStartup, StopBeforeTheLoopRunsIsNotLost) {
    // Comes with the wait for a stick, which is before the threads and long before the loop.
    world().on_wait = [](size_t waits) {
        if (waits == 1) exit_handler(SIGRTMIN + 6);
    };
    char name[] = "vestrad", *argv[] = {name, nullptr};
    PrintedText printed;
    EXPECT_EQ(vestrad_main(1, argv), 0);
    EXPECT_TRUE(loop_ran());
    EXPECT_THAT(printed.take(), EndsWith("[Vestra]  INFO: main loop exit\n"));
}

}  // namespace
}  // namespace vestra_test
