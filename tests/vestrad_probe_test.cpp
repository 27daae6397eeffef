// Temperature, uptime, DDR.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cmath>

#include "support/daemon_env.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kThermal[] = "/sys/devices/platform/soc/thermal";
constexpr char kDdr[] = "/sys/devices/platform/soc/ddrphy";

class VestradProbe : public DaemonTest {
  protected:
    VestradProbe() { write_file(std::string(kThermal) + "/temperature", "45\n"); }
    ~VestradProbe() override { fs::remove_all(kDdr); }
};

TEST_F(VestradProbe, TemperatureFileIsFoundByItsDirectory) {
    EXPECT_EQ(vestra_get_temperature_file_path(), 0);
    EXPECT_STREQ(temperature_file_name, "/sys/devices//platform/soc/thermal//temperature");
    EXPECT_THAT(log_texts(),
                ElementsAre("INFO:Temperature FileName = /sys/devices//platform/soc/thermal//temperature"));
    int temperature = 0;
    EXPECT_EQ(vestra_get_temperature(&temperature), 0);
    EXPECT_EQ(temperature, 45);

    fs::rename(kThermal, "/sys/devices/platform/soc/cold");
    temperature_file_name[0] = '\0';
    forget_log();
    EXPECT_EQ(vestra_get_temperature_file_path(), -1);
    EXPECT_STREQ(temperature_file_name, "");
    EXPECT_THAT(log_texts(), ElementsAre("ERR: getThermDirName returned FAILURE"));
    EXPECT_EQ(vestra_get_temperature(&temperature), -1);
    EXPECT_EQ(temperature, -1);
    fs::rename("/sys/devices/platform/soc/cold", kThermal);
}

TEST_F(VestradProbe, DirectoryBlockIsReplaced) {
    char *dir = strdup("old");
    EXPECT_EQ(vestra_get_thermal_dir(&dir), 0);
    EXPECT_STREQ(dir, "/platform/soc/thermal/");
    free(dir);
}

TEST_F(VestradProbe, TemperatureIsTheDigitsOfTheFirstLine) {
    static const struct {
        const char *name;
        std::string text;
        int result, temperature, alarms;
    } kRows[] = {
        {"LineEnd", "57\n", 0, 57, 0},
        {"NoLineEnd", "57", 0, 57, 0},
        {"Sign", "-5\n", 0, 5, 0},
        {"Point", "45.5\n", 0, 455, 1},
        {"SecondLineIsNotRead", "4\n5\n", 0, 4, 0},
        {"EmptyLine", "\n", 0, 0, 0},
        {"NoBytes", "", -1, -1, 0},
        {"Letters", "hot\n", 0, 0, 0},
        {"AtTheLimit", "125\n", 0, 125, 0},
        {"AboveTheLimit", "126\n", 0, 126, 1},
        {"WrapsToNegative", "4294967295\n", 0, -1, 0},
        {"ZeroByteEndsIt",
         std::string("12\0"
                     "34\n",
                     6),
         0, 12, 0},
        {"Only256CharactersCount", std::string(254, '0') + "12345\n", 0, 12, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        write_file("/tmp/t", row.text);
        snprintf(temperature_file_name, sizeof(temperature_file_name), "/tmp/t");
        forget_log();
        int temperature = 7;
        EXPECT_EQ(vestra_get_temperature(&temperature), row.result);
        EXPECT_EQ(temperature, row.temperature);
        EXPECT_EQ(count_log("[vestra] : Temp msg {stemperature="), row.alarms);
        EXPECT_EQ(count_log("ERR: Temperature exceeded 90. Current Temperature = "), row.alarms);
    }
}

TEST_F(VestradProbe, AlarmTellsTheUptime) {
    write_file("/tmp/t", "126\n");
    snprintf(temperature_file_name, sizeof(temperature_file_name), "/tmp/t");
    const unsigned long before = vestra_get_system_uptime();
    int temperature = 0;
    EXPECT_EQ(vestra_get_temperature(&temperature), 0);
    const unsigned long after = vestra_get_system_uptime();
    EXPECT_GT(before, 0U);
    const auto texts = log_texts();
    ASSERT_EQ(texts.size(), 2U);
    bool matched = false;
    for (unsigned long uptime = before; uptime <= after; ++uptime) {
        matched |=
            texts[0] == "[vestra] : Temp msg {stemperature=126;du=" + std::to_string(uptime) + "}" &&
            texts[1] == "ERR: Temperature exceeded 90. Current Temperature = 126. UpTime = " + std::to_string(uptime);
    }
    EXPECT_TRUE(matched) << texts[0] << '\n' << texts[1];
}

TEST_F(VestradProbe, UptimeIsTheIntegerPart) {
    write_file("/tmp/uptime", "12345.67 890.12\n");
    if (mount("/tmp/uptime", "/proc/uptime", nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "may not mount";
    EXPECT_EQ(vestra_get_system_uptime(), 12345U);
    write_file("/tmp/uptime", "unknown\n");
    EXPECT_EQ(vestra_get_system_uptime(), 0U);
    write_file("/tmp/uptime", "");
    EXPECT_EQ(vestra_get_system_uptime(), 0U);
    umount("/proc/uptime");
}

TEST_F(VestradProbe, FileDataIsRefusedThroughALink) {
    write_file("/tmp/target", "57\n");
    ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
    char *data = strdup("old");
    EXPECT_EQ(vestra_get_file_data("/tmp/link", &data), -1);
    EXPECT_STREQ(data, "old") << "not looked at further";
    EXPECT_EQ(log_texts().back(), "[vestra]:File path not real: /tmp/link");
    EXPECT_EQ(vestra_get_file_data("/tmp/missing", &data), -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(vestra_get_file_data("/tmp/target", &data), 0);
    EXPECT_STREQ(data, "57\n");
    free(data);
}

TEST_F(VestradProbe, DigitParser) {
    char plain[] = "57\n", sign[] = "-1.5x2", empty[] = "", wraps[] = "4294967301";
    EXPECT_EQ(fastAtoI(plain), 57);
    EXPECT_EQ(fastAtoI(sign), 152);
    EXPECT_EQ(fastAtoI(empty), 0);
    EXPECT_EQ(fastAtoI(wraps), 5);
}

TEST_F(VestradProbe, TemperatureByType) {
    write_file(std::string(kThermal) + "/boot_temp", "-7\n");
    write_file("/sys/kernel/debug/kzp_tmu_8k/temperature", "88\n");
    static const struct {
        int type, result, temperature;
    } kRows[] = {{0, 1, 45}, {1, 1, -7},     {2, 0, -65535},  {3, 0, -65535},      {6, 0, -65535},
                 {7, 1, 88}, {8, 0, -65535}, {-1, 0, -65535}, {INT_MAX, 0, -65535}};
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.type);
        forget_log();
        int temperature = 7;
        EXPECT_EQ(GetTemperature(static_cast<TEMP_TYPE>(row.type), &temperature, 0), row.result);
        EXPECT_EQ(temperature, row.temperature);
        EXPECT_EQ(count_log(kError, "Failed to get temp(type:" + std::to_string(row.type) + ")"), 1 - row.result);
    }
}

TEST_F(VestradProbe, DdrRatesOfTheChannels) {
    std::string text;
    unsigned int rates = 77;
    EXPECT_EQ(GetDdrTemperature(text, &rates), 0);
    EXPECT_EQ(text, "Unknown");
    EXPECT_EQ(rates, 77U);
    EXPECT_THAT(log_texts(), ElementsAre("[vestra]:node does not exists (" + std::string(kDdr) + "/acparam/ddra)"));

    write_file(std::string(kDdr) + "/acparam/ddra", "speed 3200\nddr refresh rate : 3 (x1)\n");
    write_file(std::string(kDdr) + "/acparam/ddrb", "refresh rate = 0x0A\n");
    write_file(std::string(kDdr) + "/acparam/ddrd", "refresh rate 1\n");  // behind a missing channel
    write_file(std::string(kDdr) + "/manufacturer/ddra", "Maker\n");
    EXPECT_EQ(GetDdrTemperature(text, &rates), 1);
    EXPECT_EQ(rates, 0xa3U);
    EXPECT_THAT(text, ::testing::AllOf(HasSubstr("0xa3"), HasSubstr("Maker")));
    EXPECT_EQ(GetDdrTemperature(text, nullptr), 1);
}

TEST_F(VestradProbe, OddDdrFilesGiveNoRate) {
    static const struct {
        const char *name;
        std::string text;
        int result, rate;
    } kRows[] = {
        {"Plain", "refresh rate 4", 1, 4},
        {"NoLabel", "rate 4\n", 0, 0},
        {"NoNumber", "refresh rate\n5\n", 0, 0},
        {"NumberBeforeTheLabel", "4 refresh rate\n", 0, 0},
        {"TooLarge", "refresh rate 99999999999999\n", 0, 0},
        {"FirstLineDecides", "refresh rate ?\nrefresh rate 2\n", 0, 0},
        {"Binary", std::string(3000, '\0') + "\xff\n", 0, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        write_file("/tmp/ddr", row.text);
        int rate = 0;
        EXPECT_EQ(m_CheckDDRRefreshRate("/tmp/ddr", &rate), row.result);
        EXPECT_EQ(rate, row.rate);
    }
}

}  // namespace
}  // namespace vestra_test
