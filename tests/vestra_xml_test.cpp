#include "vestra-daemon/vestra_xml.h"

#include <regex>

#include "set/config_file.h"
#include "support/daemon_env.h"

using namespace vestra_test;

// The elements in reading order. In these tests the n-th has the value n.
static Strings element_names() {
    std::string error;
    const std::string text = vestra_set::make_config({}, &error);
    static const std::regex kElement("<(\\w+)>[^\n]*</");
    return {std::sregex_token_iterator(text.begin(), text.end(), kElement, 1), {}};
}
static const Strings kNames = element_names();
static constexpr int32_t kUntouched = 0x77777777;

// A file without the element of this index, if there is one. `twelfth` is the first path.
static std::string document(size_t missing = SIZE_MAX, bool backwards = false, const std::string &twelfth = "12") {
    std::string children;
    for (size_t i = 0; i < kNames.size(); ++i) {
        const std::string value = i == 11 ? twelfth : std::to_string(i + 1);
        const std::string child = "<" + kNames[i] + " unit=\"99\">" + value + "</" + kNames[i] + ">\n";
        if (i != missing) children = backwards ? child + children : children + child;
    }
    return "<?xml version=\"1.0\"?>\n<vestra_config><stranger>5</stranger>\n" + children + "</vestra_config>\n";
}

class VestraXml : public DaemonTest {
  protected:
    int read(const std::string &file) {
        memset(&config_, kUntouched & 0xff, sizeof(config_));
        begin_transcript();
        write_file("/tmp/config.xml", file);
        char path[] = "/tmp/config.xml";
        return GetVestraConfigInfo(config_, path);
    }
    VestraConfig_t config_;
};

TEST_F(VestraXml, ElementsAreReadInTheirOrderUpToTheFirstMissing) {
    std::string results;
    for (size_t missing = 0; missing <= kNames.size(); ++missing) {
        int result = 7;
        results += printed_by([&] { result = read(document(missing, missing % 2 == 1)); });
        results += text("element %zu is missing: %d\n", missing + 1, result) + seen_text() + "the record's numbers:";
        int32_t numbers[13];
        memcpy(numbers, &config_, sizeof(numbers));
        for (const int32_t number : numbers) results += number == kUntouched ? " -" : " " + std::to_string(number);
        results += "\n";
        EXPECT_EQ(config_.vestra_proc_filter_enable_num, kUntouched) << "not in the file";
    }
    expect_golden("configuration", results);
    EXPECT_STREQ(config_.vestra_extfile_path_other_id, "13");
}

TEST_F(VestraXml, PathKeepsAtMostTheWholeField) {
    for (const size_t length : {size_t{0}, size_t{255}, size_t{256}, size_t{300}}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(read(document(SIZE_MAX, false, std::string(length, 'p'))), 0);
        std::string expected(std::min<size_t>(length, 256), 'p');
        expected.resize(256, '\0');
        EXPECT_EQ(std::string(config_.vestra_extfile_path_id, 256), expected);
    }
    EXPECT_EQ(read(document(SIZE_MAX, false, " http://a.example/?x&amp;y/ ")), 0);
    EXPECT_STREQ(config_.vestra_extfile_path_id, " http://a.example/?x&y/ ");
}

TEST_F(VestraXml, FileThatIsNoConfigurationLeavesTheRecordAsItWas) {
    for (const auto &[text, log] : Table<std::string, std::string>{
             {document().substr(0, 300), "6 vestra Config file loading failed: /tmp/config.xml"},
             {"<config><vestra_kmod_load_unload>1</vestra_kmod_load_unload></config>", "6 parse element fail! "}}) {
        EXPECT_EQ(read(text), -1);
        EXPECT_THAT(seen(), ElementsAre(log));
        EXPECT_EQ(config_.vestra_kmod_load_unload, kUntouched);
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
