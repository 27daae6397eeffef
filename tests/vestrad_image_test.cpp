// Image type and the readers of small files.

#include <unistd.h>

#include <climits>

#include "support/daemon_env.h"

namespace vestra_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class VestradImage : public DaemonTest {};

TEST_F(VestradImage, MarkersTellTheImage) {
    static const struct {
        const char *name;
        std::vector<const char *> markers;
        int debug, perf, release;  // what the tests of each marker say
        image_type_flags flags;    // what m_UpdateImageType finds: the first of debug, performance, release
        int update;
    } kRows[] = {
        {"None", {}, 0, 0, 0, {0, 0, 0}, -1},
        {"Debug", {"/etc/debug"}, 1, 0, 0, {1, 0, 0}, 0},
        {"Performance", {"/etc/perf"}, 0, 1, 0, {0, 0, 1}, 0},
        {"Release", {"/etc/release"}, 0, 0, 1, {0, 1, 0}, 0},
        {"DebugAndRelease", {"/etc/debug", "/etc/release"}, 1, 0, 1, {1, 0, 0}, 0},
        {"All", {"/etc/debug", "/etc/perf", "/etc/release"}, 1, 1, 1, {1, 0, 0}, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        for (const char *marker : {"/etc/debug", "/etc/perf", "/etc/release"}) unlink(marker);
        for (const char *marker : row.markers) write_file(marker, "");
        m_image_type = {};
        EXPECT_EQ(CheckIfDebugImage(), row.debug);
        EXPECT_EQ(CheckIfPerfImage(), row.perf);
        EXPECT_EQ(CheckIfReleaseImage(), row.release);
        EXPECT_EQ(CheckIfNotReleaseImage(), 1 - row.release);
        EXPECT_EQ(m_UpdateImageType(), row.update);
        EXPECT_EQ(m_image_type.debug, row.flags.debug);
        EXPECT_EQ(m_image_type.release, row.flags.release);
        EXPECT_EQ(m_image_type.perf, row.flags.perf);
    }
}

TEST_F(VestradImage, IntegerReader) {
    static const struct {
        const char *name;
        const char *text;  // null: no file
        int result, value;
        std::vector<std::string> log;
    } kRows[] = {
        {"Plain", "57\n", 1, 57, {}},
        {"SignAndBlanks", "  -40 degrees", 1, -40, {}},
        {"TooLargeIsClamped", "99999999999999999999999", 1, INT_MAX, {}},
        {"TooSmallIsClamped", "-99999999999999999999999", 1, INT_MIN, {}},
        {"Letters", "hot\n", 0, 7, {"[vestra]:fscanf failed (ret:0)"}},
        {"Empty", "", 0, 7, {"[vestra]:fscanf failed (ret:-1)"}},
        {"Missing",
         nullptr,
         0,
         7,
         {"[vestra]:File does not exist. No need to check symbolic links. ###", "[vestra]:open file failed.(/tmp/n)"}},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        unlink("/tmp/n");
        if (row.text != nullptr) write_file("/tmp/n", row.text);
        forget_log();
        int value = 7;
        EXPECT_EQ(FileReadOneInt("/tmp/n", &value), row.result);
        EXPECT_EQ(value, row.value);
        EXPECT_EQ(log_texts(kError), row.log);
    }
}

TEST_F(VestradImage, LinksAndOddPathsAreRefused) {
    write_file("/tmp/target", "57\n");
    ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
    int value = 7;
    EXPECT_EQ(FileReadOneInt("/tmp/link", &value), 0);
    EXPECT_THAT(log_texts(), ElementsAre("[vestra]:Symbolic link is detected : /tmp/link",
                                         "[vestra]:File path not real: /tmp/link"));
    forget_log();
    EXPECT_EQ(FileReadOneInt("/tmp/target", nullptr), 0);
    EXPECT_EQ(checkForRealPath(nullptr), 0);
    EXPECT_EQ(checkForRealPath("/tmp/target/below"), 0) << "a file's child cannot be looked up";
    EXPECT_EQ(checkForRealPath("/tmp"), 1);
    EXPECT_THAT(log_texts(kError),
                ElementsAre("[vestra]:data addr is NULL", "[vestra]:path is empty", "[vestra]:lstat error. ###"));
    EXPECT_EQ(value, 7);
}

TEST_F(VestradImage, StringReaderTakesTheFirstLineAndFollowsLinks) {
    write_file("/tmp/target", "first line\nsecond\n");
    ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
    std::string text;
    EXPECT_EQ(FileReadOneString("/tmp/link", text), 1);
    EXPECT_EQ(text, "first line");
    EXPECT_THAT(log_texts(), IsEmpty());
    write_file("/tmp/target", "");
    EXPECT_EQ(FileReadOneString("/tmp/target", text), 0);
    EXPECT_EQ(FileReadOneString("/tmp/missing", text), 0);
    EXPECT_THAT(log_texts(kError),
                ElementsAre("[vestra]:cannot read contents(/tmp/target)", "[vestra]:open file failed.(/tmp/missing)"));
}

}  // namespace
}  // namespace vestra_test
