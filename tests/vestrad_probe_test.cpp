// Image type, the readers of small files, temperature, uptime, DDR.

#include "support/daemon_env.h"

using namespace vestra_test;
using namespace std::string_literals;

static const std::string kThermal = "/sys/devices/platform/soc/thermal";

class VestradProbe : public DaemonTest {};

TEST_F(VestradProbe, MarkersTellTheImage) {
    std::string results;
    for (const std::string marker : {"/tmp/none", "/etc/release", "/etc/perf", "/etc/debug"}) {
        write_file(marker, "");
        m_image_type = {};
        const int result = m_UpdateImageType();
        results += marker + text(": debug %d, performance %d,", CheckIfDebugImage(), CheckIfPerfImage());
        results += text(" release %d, not release %d;", CheckIfReleaseImage(), CheckIfNotReleaseImage());
        results += text(" %d, flags %d %d %d\n", result, m_image_type.debug, m_image_type.perf, m_image_type.release);
    }
    expect_golden("image-types", results);
}

TEST_F(VestradProbe, NumberOfAFileIsClamped) {
    int value = 7;
    std::string results;
    const auto read = [&](const char *path) {
        const int result = FileReadOneInt(path, &value);
        results += text("%d, value %d\n", result, value);
    };
    for (const char *file :
         {"hot\n", "", " -", "  -40 degrees", "+0000000000000000000000042", "99999999999999999999999"}) {
        write_file("/tmp/n", file);
        read("/tmp/n");
    }
    fs::create_symlink("/tmp/n", "/tmp/link");
    for (const char *path : {"/tmp/link", "/tmp/missing"}) read(path);
    EXPECT_EQ(FileReadOneInt("/tmp/n", nullptr), 0);
    EXPECT_EQ(checkForRealPath(nullptr), 0);
    EXPECT_EQ(checkForRealPath("/tmp/n/below"), 0) << "a file's child cannot be looked up";
    EXPECT_EQ(checkForRealPath("/tmp"), 1);
    expect_golden("small-files", results + seen_text());
}

TEST_F(VestradProbe, FirstLineIsReadAsAnInputStreamReadsIt) {
    const std::string zero("a\0b", 3);
    for (const auto &[file, result, line] : Table<std::string, int, std::string>{
             {zero + "\nsecond", 1, zero}, {"no end", 1, "no end"}, {"\n", 1, ""}, {"", 0, ""}}) {
        write_file("/tmp/n", file);
        std::string read = "old";
        EXPECT_EQ(FileReadOneString("/tmp/n", read), result);
        EXPECT_EQ(read, line);
    }
    std::string read;
    EXPECT_EQ(FileReadOneString("/tmp/missing", read), 0);
    expect_golden("first-lines", seen_text());
}

TEST_F(VestradProbe, TemperatureIsTheDigitsOfTheFirstLine) {
    write_file("/tmp/uptime", "12345.67 890.12\n");
    if (mount("/tmp/uptime", "/proc/uptime", nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "may not mount";
    std::string results;
    for (const std::string &file : {"-4.5\n5\n"s, "\n"s, ""s, "125\n"s, "126\n"s, std::string(254, '0') + "12345\n"}) {
        write_file(kThermal + "/temperature", file);
        EXPECT_EQ(vestra_get_temperature_file_path(), 0);
        int temperature = 7;
        const int result = vestra_get_temperature(&temperature);
        results += text("%d, %d degrees\n", result, temperature);
    }
    expect_golden("temperatures", results + seen_text());
    write_file("/tmp/uptime", "unknown\n");
    EXPECT_EQ(vestra_get_system_uptime(), 0U);
    umount("/proc/uptime");
}

TEST_F(VestradProbe, FilesThatAreMissingOrLinks) {
    char *data = strdup("old");
    fs::rename(kThermal, kThermal + "2");
    EXPECT_EQ(vestra_get_temperature_file_path(), -1);
    EXPECT_STREQ(temperature_file_name, "");
    fs::rename(kThermal + "2", kThermal);
    EXPECT_EQ(vestra_get_thermal_dir(&data), 0);
    EXPECT_STREQ(data, "/platform/soc/thermal/");
    write_file("/tmp/target", "57\n");
    fs::create_symlink("/tmp/target", "/tmp/link");
    EXPECT_EQ(vestra_get_file_data("/tmp/link", &data), -1);
    EXPECT_STREQ(data, "/platform/soc/thermal/") << "not looked at further";
    EXPECT_EQ(vestra_get_file_data("/tmp/missing", &data), -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(vestra_get_file_data("/tmp/target", &data), 0);
    EXPECT_STREQ(data, "57\n");
    free(data);
    expect_golden("missing-files-and-links", seen_text());
}

TEST_F(VestradProbe, TemperatureByType) {
    write_file(kThermal + "/temperature", "45\n");
    write_file(kThermal + "/boot_temp", "-7\n");
    write_file("/sys/kernel/debug/kzp_tmu_8k/temperature", "88\n");
    std::string results;
    for (const int type : {0, 1, 2, 3, 7, 8}) {
        int temperature = 7;
        const int result = GetTemperature(static_cast<TEMP_TYPE>(type), &temperature, 0);
        results += text("type %d: %d, %d degrees\n", type, result, temperature);
    }
    expect_golden("temperatures-by-type", results + seen_text());
}

TEST_F(VestradProbe, DdrRatesOfTheChannels) {
    const std::string ddr = "/sys/devices/platform/soc/ddrphy/";
    std::string text;
    unsigned int rates = 77;
    EXPECT_EQ(GetDdrTemperature(text, &rates), 0);
    EXPECT_EQ(text, "Unknown");
    EXPECT_EQ(rates, 77U);
    EXPECT_THAT(seen(), ElementsAre("5 [vestra]:node does not exists (" + ddr + "acparam/ddra)"));
    write_file(ddr + "acparam/ddra", "speed 3200\nddr refresh rate : 3 (x1)\n");
    write_file(ddr + "acparam/ddrb", "4 refresh rate = 0x0A\n");
    write_file(ddr + "acparam/ddrd", "refresh rate 1\n");
    write_file(ddr + "manufacturer/ddra", "Maker\n");
    for (const std::string third : {"rate 4\n", "refresh rate\n5\n", "refresh rate 99999999999999\n", "\xff\n"}) {
        write_file(ddr + "acparam/ddrc", third);  // gives no rate, and with it neither does the fourth
        EXPECT_EQ(GetDdrTemperature(text, &rates) + GetDdrTemperature(text, nullptr), 2);
        EXPECT_EQ(rates, 0xa3U);
        EXPECT_EQ(text, "0xa3 Maker");
    }
    fs::remove_all(ddr);
}
