#include "vestra-daemon/vestra_xml.h"

#include <algorithm>
#include <cstring>

#include "support/daemon_env.h"

namespace vestra_test {
namespace {

using ::testing::ElementsAre;

constexpr char kFile[] = "/tmp/config.xml";

// In reading order. A null field: one of the two paths.
struct Element {
    const char *name;
    int32_t VestraConfig_t::*field;
    const char *value;
    int32_t stored;
};
const Element kElements[] = {
    {"vestra_kmod_load_unload", &VestraConfig_t::vestra_kmod_load_unload, "1", 1},
    {"vestra_litemode_on", &VestraConfig_t::vestra_litemode_on, "2", 2},
    {"min_time_diff_dump", &VestraConfig_t::min_time_diff_dump, "03", 3},
    {"cont_data_collect", &VestraConfig_t::cont_data_collect, "4", 4},
    {"no_of_files", &VestraConfig_t::no_of_files, "5", 5},
    {"max_file_size", &VestraConfig_t::max_file_size, "6", 6},
    {"user_notification_on", &VestraConfig_t::user_notification_on, "7", 7},
    {"vestra_diskio_read_enable", &VestraConfig_t::vestra_diskio_read_enable, "8", 8},
    {"vestra_diskio_write_enable", &VestraConfig_t::vestra_diskio_write_enable, "9", 9},
    {"live_data_collect", &VestraConfig_t::live_data_collect, "10", 10},
    {"vestra_unique_id", &VestraConfig_t::vestra_unique_id, "2147483647", 2147483647},
    {"vestra_extfile_path_id", nullptr, "http://a.example/?x&amp;y/", 0},
    {"vestra_extfile_path_other_id", nullptr, " two blanks ", 0},
    {"vestra_info_raise_priority", &VestraConfig_t::vestra_info_raise_priority, "", 0},
    {"vestra_info_new_priority_nice", &VestraConfig_t::vestra_info_new_priority_nice, "-10", 10},
};

std::string child(const Element &element) {
    return std::string("<") + element.name + " unit=\"99\">" + element.value + "</" + element.name + ">\n";
}

// The elements in the file's order `step`, without `missing`.
std::string document(const char *missing = "", bool backwards = false) {
    std::string children;
    for (const Element &element : kElements) {
        if (strcmp(element.name, missing) == 0) continue;
        children = backwards ? child(element) + children : children + child(element);
    }
    return "<?xml version=\"1.0\"?>\n<vestra_config><stranger>5</stranger>\n" + children + "</vestra_config>\n";
}

class VestraXml : public DaemonTest {
  protected:
    static int read(VestraConfig_t &config, const std::string &text) {
        write_file(kFile, text);
        char path[] = "/tmp/config.xml";
        return GetVestraConfigInfo(config, path);
    }
    static VestraConfig_t marked() {
        VestraConfig_t config;
        memset(&config, 0x77, sizeof(config));
        return config;
    }
};

TEST_F(VestraXml, ReadsEveryElementWhateverTheFilesOrder) {
    for (const bool backwards : {false, true}) {
        SCOPED_TRACE(backwards ? "Backwards" : "InReadingOrder");
        VestraConfig_t config = marked();
        forget_log();
        PrintedText printed;
        ASSERT_EQ(read(config, document("", backwards)), 0);
        EXPECT_EQ(printed.take(), "[Vestra] Config file loading success: /tmp/config.xml\n");
        for (const Element &element : kElements) {
            if (element.field != nullptr) {
                EXPECT_EQ(config.*element.field, element.stored) << element.name;
            }
        }
        EXPECT_STREQ(config.vestra_extfile_path_id, "http://a.example/?x&y/");
        EXPECT_STREQ(config.vestra_extfile_path_other_id, " two blanks ");
        EXPECT_EQ(config.vestra_proc_filter_enable_num, 0x77777777) << "not the file's business";

        std::vector<std::string> debug;
        for (const LogLine &line : log_lines()) {
            if (line.priority == kDebug) debug.push_back(line.text);
        }
        ASSERT_EQ(debug.size(), std::size(kElements));
        EXPECT_EQ(debug.front(), "vestra: vestra_kmod_load_unload : 1");
        EXPECT_EQ(debug[11], "vestra: vestra_extfile_path_id : http://a.example/?x&y/");
        EXPECT_EQ(debug.back(), "vestra: vestra_info_new_priority_nice : 10");
    }
}

TEST_F(VestraXml, MissingElementKeepsWhatStandsAboveIt) {
    for (size_t missing = 0; missing < std::size(kElements); ++missing) {
        SCOPED_TRACE(kElements[missing].name);
        VestraConfig_t config = marked();
        forget_log();
        EXPECT_EQ(read(config, document(kElements[missing].name)), -1);
        for (size_t i = 0; i < std::size(kElements); ++i) {
            const Element &element = kElements[i];
            if (element.field == nullptr) continue;
            EXPECT_EQ(config.*element.field, i < missing ? element.stored : 0x77777777) << element.name;
        }
        EXPECT_EQ(config.vestra_extfile_path_id[0], missing > 11 ? 'h' : 0x77);
        const std::string message = std::string("vestra: ") + kElements[missing].name + " parse failed! ";
        EXPECT_THAT(log_texts(kError), ElementsAre(message));
    }
}

TEST_F(VestraXml, EveryLineNamesTheReader) {
    VestraConfig_t config = {};
    EXPECT_EQ(read(config, document("vestra_info_raise_priority")), -1);
    for (const LogLine &line : log_lines()) EXPECT_EQ(line.function, "GetVestraConfigInfo") << line.text;
}

TEST_F(VestraXml, PathKeepsAtMostTheWholeField) {
    static const struct {
        const char *name;
        size_t length;
    } kRows[] = {{"Empty", 0}, {"LastByteFree", 255}, {"ExactlyFull", 256}, {"TooLong", 300}};
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        std::string text = document();
        const std::string value = "http://a.example/?x&amp;y/";
        text.replace(text.find(value), value.size(), std::string(row.length, 'p'));
        VestraConfig_t config = marked();
        EXPECT_EQ(read(config, text), 0);
        std::string expected(std::min<size_t>(row.length, 256), 'p');
        expected.resize(256, '\0');
        EXPECT_EQ(std::string(config.vestra_extfile_path_id, 256), expected);
        EXPECT_STREQ(config.vestra_extfile_path_other_id, " two blanks ");
    }
}

TEST_F(VestraXml, UnreadableFileLeavesTheRecordAsItWas) {
    static const struct {
        const char *name;
        std::string text;
        const char *message;
    } kRows[] = {
        {"NoBytes", "", "vestra Config file loading failed: /tmp/config.xml"},
        {"NoXml", "no_of_files=5\n", "vestra Config file loading failed: /tmp/config.xml"},
        {"CutShort", document().substr(0, 300), "vestra Config file loading failed: /tmp/config.xml"},
        {"BinaryZeros", std::string(4096, '\0'), "vestra Config file loading failed: /tmp/config.xml"},
        {"AnotherRoot", "<config><no_of_files>5</no_of_files></config>", "parse element fail! "},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        VestraConfig_t config = marked();
        const VestraConfig_t before = config;
        forget_log();
        EXPECT_EQ(read(config, row.text), -1);
        EXPECT_EQ(memcmp(&config, &before, sizeof(config)), 0);
        EXPECT_THAT(log_texts(kError), ElementsAre(row.message));
    }
    VestraConfig_t config = marked();
    char directory[] = "/tmp", missing[] = "/tmp/missing.xml";
    EXPECT_EQ(GetVestraConfigInfo(config, directory), -1);
    EXPECT_EQ(GetVestraConfigInfo(config, missing), -1);
    EXPECT_EQ(count_log(kError, "vestra Config file loading failed: /tmp/missing.xml"), 1);
}

TEST_F(VestraXml, NumbersAreTheirDigits) {
    static const struct {
        const char *name, *text;
        int value, warnings;
    } kRows[] = {
        {"Null", nullptr, 0, 0},
        {"Empty", "", 0, 0},
        {"BlankBetween", "1 0", 10, 1},
        {"Negative", "-5", 5, 1},
        {"LinesAround", "\n 12\n", 12, 3},
        {"Hexadecimal", "0x1F", 1, 2},
        {"BytesAbove127", "7\xff\x80", 7, 2},
        {"WrapsBeyond32Bits", "4294967301", 5, 0},
        {"ManyDigits", "10000000000000000000000000000000000000000000000000", 0, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        forget_log();
        EXPECT_EQ(ToInt(row.text), row.value);
        EXPECT_EQ(static_cast<int>(log_texts(kWarning).size()), row.warnings);
    }
    forget_log();
    ToInt("-");
    EXPECT_EQ(count_log(kWarning, "string contain invalid char[-]!"), 1);
}

}  // namespace
}  // namespace vestra_test
