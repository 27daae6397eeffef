#include "support/daemon_env.h"

using namespace vestra_test;

// In reading order. A null field: one of the two paths.
static const struct {
    const char *name;
    int32_t VestraConfig_t::*field;
    const char *value, *stored;
} kElements[] = {
    {"vestra_kmod_load_unload", &VestraConfig_t::vestra_kmod_load_unload, "1", "1"},
    {"vestra_litemode_on", &VestraConfig_t::vestra_litemode_on, "2", "2"},
    {"min_time_diff_dump", &VestraConfig_t::min_time_diff_dump, "03", "3"},
    {"cont_data_collect", &VestraConfig_t::cont_data_collect, "4", "4"},
    {"no_of_files", &VestraConfig_t::no_of_files, "5", "5"},
    {"max_file_size", &VestraConfig_t::max_file_size, "6", "6"},
    {"user_notification_on", &VestraConfig_t::user_notification_on, "7", "7"},
    {"vestra_diskio_read_enable", &VestraConfig_t::vestra_diskio_read_enable, "8", "8"},
    {"vestra_diskio_write_enable", &VestraConfig_t::vestra_diskio_write_enable, "9", "9"},
    {"live_data_collect", &VestraConfig_t::live_data_collect, "10", "10"},
    {"vestra_unique_id", &VestraConfig_t::vestra_unique_id, "2147483647", "2147483647"},
    {"vestra_extfile_path_id", nullptr, "http://a.example/?x&amp;y/", "http://a.example/?x&y/"},
    {"vestra_extfile_path_other_id", nullptr, " two blanks ", " two blanks "},
    {"vestra_info_raise_priority", &VestraConfig_t::vestra_info_raise_priority, "", "0"},
    {"vestra_info_new_priority_nice", &VestraConfig_t::vestra_info_new_priority_nice, "-10", "10"},
};

// A file without the element of this number, if there is one.
static std::string document(size_t missing = SIZE_MAX, bool backwards = false) {
    std::string children;
    for (size_t i = 0; i < std::size(kElements); ++i) {
        const std::string name = kElements[i].name;
        const std::string child = "<" + name + " unit=\"99\">" + kElements[i].value + "</" + name + ">\n";
        if (i != missing) children = backwards ? child + children : children + child;
    }
    return "<?xml version=\"1.0\"?>\n<vestra_config><stranger>5</stranger>\n" + children + "</vestra_config>\n";
}

class VestraXml : public DaemonTest {
  protected:
    // Reads the text into a record that was filled with 0x77.
    int read(const std::string &text) {
        memset(&config_, 0x77, sizeof(config_));
        begin_transcript();
        write_file("/tmp/config.xml", text);
        char path[] = "/tmp/config.xml";
        return GetVestraConfigInfo(config_, path);
    }
    VestraConfig_t config_;
};

TEST_F(VestraXml, ElementsAreReadInTheirOrderUpToTheFirstMissing) {
    for (size_t missing = 0; missing <= std::size(kElements); ++missing) {
        SCOPED_TRACE(missing < std::size(kElements) ? kElements[missing].name : "NoneIsMissing");
        const int result = missing < std::size(kElements) ? -1 : 0;
        EXPECT_EQ(printed_by([&] { EXPECT_EQ(read(document(missing, missing % 2 == 1)), result); }),
                  "[Vestra] Config file loading success: /tmp/config.xml\n");
        Strings expected;
        for (size_t i = 0; i < std::size(kElements); ++i) {
            const auto &[name, field, value, stored] = kElements[i];
            if (field != nullptr) {
                EXPECT_EQ(config_.*field, i < missing ? atoi(stored) : 0x77777777) << name;
            }
            if (i < missing) expected.push_back("3 vestra: " + std::string(name) + " : " + stored);
            if (i == missing) expected.push_back("6 vestra: " + std::string(name) + " parse failed! ");
        }
        EXPECT_EQ(seen("346"), expected);
        EXPECT_EQ(config_.vestra_proc_filter_enable_num, 0x77777777) << "not the file's business";
    }
    EXPECT_STREQ(config_.vestra_extfile_path_id, "http://a.example/?x&y/");
}

TEST_F(VestraXml, PathKeepsAtMostTheWholeField) {
    for (const size_t length : std::vector<size_t>{0, 255, 256, 300}) {
        SCOPED_TRACE(length);
        std::string text = document();
        EXPECT_EQ(read(text.replace(text.find("http"), 26, std::string(length, 'p'))), 0);
        std::string expected(std::min<size_t>(length, 256), 'p');
        expected.resize(256, '\0');
        EXPECT_EQ(std::string(config_.vestra_extfile_path_id, 256), expected);
        EXPECT_STREQ(config_.vestra_extfile_path_other_id, " two blanks ");
    }
}

TEST_F(VestraXml, UnreadableFileLeavesTheRecordAsItWas) {
    const char *const failed = "6 vestra Config file loading failed: /tmp/config.xml";
    for (const auto &[text, message] : Table<std::string, const char *>{
             {document().substr(0, 300), failed}, {"<config></config>", "6 parse element fail! "}}) {
        EXPECT_EQ(read(text), -1);
        EXPECT_EQ(config_.vestra_kmod_load_unload, 0x77777777) << text;
        EXPECT_THAT(seen(), ElementsAre(message));
    }
}

TEST_F(VestraXml, NumbersAreTheirDigits) {
    EXPECT_EQ(ToInt(nullptr), 0);
    EXPECT_EQ(ToInt("-1/ 9:\xff"), 19);
    EXPECT_EQ(ToInt("4294967301"), 5);
    EXPECT_THAT(seen(), ElementsAre("5 string contain invalid char[-]!", "5 string contain invalid char[/]!",
                                    "5 string contain invalid char[ ]!", "5 string contain invalid char[:]!",
                                    "5 string contain invalid char[\xff]!"));
}
