// Kernel module, control node and chip; the user-data commands.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <numeric>

#include "platform/fault.h"
#include "platform/state_dir.h"
#include "support/daemon_env.h"

namespace vestra_test {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kModule[] = "/run/vestra-set/modules/orna_vestra_kmod";

class VestradNode : public DaemonTest {
  protected:
    ~VestradNode() override { unlink(kControlNode); }
};

/* ------------------------------ Waiting for the node ------------------------------ */

struct LoadCase {
    const char *name;
    int changes_after;  // waits, after which the node appears or goes; -1: never
    int waits, result;
};
const LoadCase kLoadCases[] = {
    {"AtTheFirstLook", 0, 0, 0},      {"AfterOneWait", 1, 1, 0},         {"AtThe400thLook", 399, 399, 0},
    {"AtThe401stLook", 400, 400, -1}, {"NeverCountsAsDone", -1, 400, 0},
};

TEST_F(VestradNode, LoadWaitsForTheNode) {
    for (const LoadCase &row : kLoadCases) {
        SCOPED_TRACE(row.name);
        unlink(kControlNode);
        unlink(kModule);
        forget_log();
        const size_t before = waits_us().size();
        const auto appear = [&](size_t waits) {
            if (static_cast<int>(waits - before) == row.changes_after) write_file(kControlNode, "");
        };
        appear(before);
        world().on_wait = appear;
        EXPECT_EQ(loadVestraDriver(), row.result);
        const auto waits = waits_us();
        EXPECT_EQ(waits.size() - before, static_cast<size_t>(row.waits));
        EXPECT_THAT(waits, Each(10000));
        EXPECT_EQ(read_file(kModule), "/lib/modules/linux/kernel/orna-vestra-kmod.ko");
        EXPECT_EQ(count_log(kInfo, "PS_Insmod command : [/lib/modules/linux/kernel/orna-vestra-kmod.ko]"), 1);
        EXPECT_EQ(count_log(kError,
                            "ERROR: loadVestraDriver: insmod failed for /lib/modules/linux/kernel/orna-vestra-kmod.ko"),
                  row.result == 0 ? 0 : 1);
    }
}

TEST_F(VestradNode, UnloadWaitsUntilTheNodeIsGone) {
    for (const LoadCase &row : kLoadCases) {
        SCOPED_TRACE(row.name);
        write_file(kControlNode, "");
        write_file(kModule, "");
        forget_log();
        const size_t before = waits_us().size();
        const auto vanish = [&](size_t waits) {
            if (static_cast<int>(waits - before) == row.changes_after) unlink(kControlNode);
        };
        vanish(before);
        world().on_wait = vanish;
        EXPECT_EQ(unloadVestraDriver(), row.result);
        EXPECT_EQ(waits_us().size() - before, static_cast<size_t>(row.waits));
        EXPECT_NE(access(kModule, F_OK), 0);
        EXPECT_EQ(count_log(kInfo, "PS_Rmmod command : [orna_vestra_kmod]"), 1);
        EXPECT_EQ(count_log(kError,
                            "ERROR: loadVestraDriver: rmmod failed for /lib/modules/linux/kernel/orna-vestra-kmod.ko"),
                  row.result == 0 ? 0 : 1);
    }
}

TEST_F(VestradNode, RefusedModuleIsNotWaitedFor) {
    platform_fail_nth(FAULT_INSMOD, 1);
    platform_fail_nth(FAULT_RMMOD, 1);
    EXPECT_EQ(loadVestraDriver(), -1);
    EXPECT_EQ(unloadVestraDriver(), -1);
    EXPECT_THAT(waits_us(), IsEmpty());
    EXPECT_THAT(log_texts(kError), ElementsAre("PS_Insmod error, result:[-1] retValue:[refused]",
                                               "PS_Rmmod error, result:[-1] retValue:[refused]"));
}

/* ------------------------------ Opening, shell, sleep ------------------------------ */

TEST_F(VestradNode, OpenIsPatient) {
    static const struct {
        const char *name;
        int appears_after;
        size_t failures;
        bool opens;
    } kRows[] = {{"AtOnce", 0, 0, true}, {"AtTheLastAttempt", 20, 20, true}, {"Never", -1, 21, false}};
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        unlink(kControlNode);
        forget_log();
        const size_t before = waits_us().size();
        const auto appear = [&](size_t waits) {
            if (static_cast<int>(waits - before) == row.appears_after) write_file(kControlNode, "");
        };
        appear(before);
        world().on_wait = appear;
        const int fd = vestra_open(kControlNode, O_WRONLY);
        EXPECT_EQ(fd >= 0, row.opens);
        EXPECT_EQ(waits_us().size() - before, row.failures) << "one wait behind each failure, the last included";
        EXPECT_THAT(waits_us(), Each(200000));
        const std::string failure = "ERROR: vestra_open [/proc/vesertra_info] failed (2:No such file or directory)";
        EXPECT_THAT(log_texts(kError), AllOf(SizeIs(row.failures), Each(failure)));
        EXPECT_EQ(count_log("[vestra]: vestra_open [/proc/vesertra_info] success ("), row.opens ? 1 : 0);
        if (fd < 0) continue;
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
        close(fd);
    }
}

TEST_F(VestradNode, ShellStatusIsRaw) {
    EXPECT_EQ(runShell("true"), 0);
    EXPECT_EQ(runShell("exit 3"), 768);
    EXPECT_EQ(runShell("kill -9 $$"), 9);
    EXPECT_EQ(runShell("echo \"a  b\" > /tmp/out; exit 0"), 0);
    EXPECT_EQ(read_file("/tmp/out"), "a  b\n");
}

TEST_F(VestradNode, SleepTakesMicroseconds) {
    for (const int usec : {0, 1, 999999, 1000000, 2500000, -1}) vestrad_usleep(usec);
    EXPECT_THAT(waits_us(), ElementsAre(0, 1, 999999, 1000000, 2500000));
}

/* ------------------------------ Chip ------------------------------ */

TEST_F(VestradNode, ChipComesFromTheSet) {
    static const struct {
        const char *name, *chipset;  // null: the service has no answer
        int before, code;
        const char *printed;
    } kRows[] = {
        {"RivaM", "RIVAM", 7, 1, "[vestra] CHIP IS RIVA-M [1]!!!"},
        {"RivaL", "RIVAL", 1, 2, "[vestra] CHIP IS RIVA-L [2]!!!"},
        {"TornLWithSuffix", "TORNL-X", 1, 3, "[vestra] CHIP IS TORN-L [3]!!!"},
        {"TornM", "TORNM", 1, 4, "[vestra] CHIP IS TORN-M [4]!!!"},
        {"Dalps", "DALPS", 1, 5, "[vestra] CHIP IS DALPS [5]!!!"},
        {"Y47qe", "Y47QE2", 1, 6, "[vestra] CHIP IS Y47QE [6]!!!"},
        {"FourCharactersOnly", "RIVA", 1, 7, "[vestra] CHIP IS Some other device [7]!!!"},
        {"LowerCase", "rivam", 1, 7, "[vestra] CHIP IS Some other device [7]!!!"},
        {"EmptyText", "", 1, 7, "[vestra] CHIP IS Some other device [7]!!!"},
        {"NoAnswer", nullptr, 4, 4,
         "[vestra] WARN: get_chip_type_from_config failed, using default [4: CHIP_RIVAM] \n"},
    };
    const std::string file = state_path("system_info.ini"), kept = read_file(file);
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        const std::string line = row.chipset == nullptr ? "" : std::string("product.chipset=") + row.chipset + "\n";
        write_file(file, "[com.velmora/featureconf]\n" + line);
        g_chip_type = row.before;
        PrintedText printed;
        EXPECT_EQ(get_chip_type_from_config(), row.code);
        EXPECT_EQ(printed.take(), row.printed);
        EXPECT_EQ(vestra_chip_type(), row.code);
    }
    write_file(file, kept);
}

/* ------------------------------ User data ------------------------------ */

TEST_F(VestradNode, EachCommandIsOneWrite) {
    const PipeNode node;
    char name[] = "tvs-engine";
    write_userdata_func(3, 3);
    write_userdata_func(1, -2147483647 - 1);
    write_userdata(6, name, 10);
    EXPECT_THAT(node_writes(), ElementsAre("c-3-4-3", "c-1-4--2147483648", "c-6-10-tvs-engine"));
    EXPECT_THAT(log_texts(kInfo), ElementsAre("command = c-3-4-3", "command = c-1-4--2147483648",
                                              "INFO: write_userdata init", "INFO: command = c-6-10-tvs-engine"));
}

TEST_F(VestradNode, LongPayloadIsCutOrRefused) {
    const PipeNode node;
    std::string text(300, 'x');
    write_userdata(6, text.data(), 300);
    EXPECT_THAT(log_texts(), ElementsAre("INFO: write_userdata init", "ERROR: write_userdata failed bufLen [300]"));
    EXPECT_THAT(node_writes(), IsEmpty());
    write_userdata(6, text.data(), 256);
    EXPECT_THAT(node_writes(), ElementsAre("c-6-256-" + std::string(247, 'x')));
}

TEST_F(VestradNode, CommandsThatDoNotArriveAreLogged) {
    char name[] = "a";
    write_userdata_func(1, 1);
    EXPECT_EQ(count_log(kError, "ERROR: open failed (2:No such file or directory)"), 1);
    EXPECT_EQ(log_texts().back(), "INFO: write_userdata_func exit");
    forget_log();
    ASSERT_EQ(symlink("/dev/full", kControlNode), 0);
    write_userdata_func(1, 1);
    write_userdata(6, name, 1);
    EXPECT_THAT(log_texts(kError),
                ElementsAre(" write_userdata_func failed (28:No space left on device)", "command = c-1-4-1",
                            "ERROR: write_userdata failed (28:No space left on device)", "INFO: command = c-6-1-a"));
}

TEST_F(VestradNode, DescriptorZeroStaysOpenAndOthersDoNot) {
    const PipeNode node;
    const int next = dup(0);
    close(next);
    write_userdata_func(1, 1);
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
    const int kept = dup(0);
    close(0);
    write_userdata_func(2, 2);
    EXPECT_GE(fcntl(0, F_GETFD), 0);
    dup2(kept, 0);
    close(kept);
}

TEST_F(VestradNode, TemperatureIsSentOnceASecond) {
    const PipeNode node;
    const char kFile[] = "/tmp/temperature";
    snprintf(temperature_file_name, sizeof(temperature_file_name), "%s", kFile);
    const std::vector<std::string> readings = {"57\n", "-5\n", "", "125\n", "126\n", "45.5"};
    const auto put = [&](size_t i) { readings[i].empty() ? unlink(kFile) : (write_file(kFile, readings[i]), 0); };
    put(0);
    world().on_wait = [&](size_t waits) {
        if (waits < readings.size()) put(waits);
        exit_flag = waits < readings.size() ? 0 : 1;
    };
    EXPECT_EQ(thread_userdata_func(nullptr), nullptr);
    EXPECT_THAT(node_writes(), ElementsAre("c-0-4-57", "c-0-4-5", "c-0-4-125", "c-0-4-126", "c-0-4-455"));
    EXPECT_THAT(waits_us(), AllOf(SizeIs(6), Each(1000000)));
    EXPECT_EQ(count_log("[vestra] : Temp msg {stemperature=126;du="), 1);
    EXPECT_EQ(count_log("ERR: Temperature exceeded 90. Current Temperature = "), 2) << "126 and 455";
    EXPECT_EQ(count_log(kDebug, "ERR: Failed to get temperature from /tmp/temperature"), 1);
    EXPECT_EQ(log_texts().back(), "INFO: thread_userdata_func exit");
}

TEST_F(VestradNode, TemperatureThreadEndsWithoutANode) {
    EXPECT_EQ(thread_userdata_func(nullptr), nullptr);
    EXPECT_EQ(count_log(kError, "ERROR: open failed (2:No such file or directory)"), 1);
    EXPECT_THAT(waits_us(), AllOf(SizeIs(21), Each(200000)));
    EXPECT_EQ(log_texts().back(), "INFO: thread_userdata_func exit");
}

}  // namespace
}  // namespace vestra_test
