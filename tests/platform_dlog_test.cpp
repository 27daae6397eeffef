#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform_env.h"

using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::SizeIs;

namespace {

// Standard error as a packet socket, so that every write is seen as one packet.
class DlogWrites : public PlatformTest {
  protected:
    DlogWrites() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        reader_ = ends[0];
        saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }
    ~DlogWrites() override {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        close(reader_);
    }
    std::vector<std::string> writes() const {
        std::vector<std::string> packets;
        char packet[65536];
        for (ssize_t size; (size = recv(reader_, packet, sizeof(packet), MSG_DONTWAIT)) >= 0;) {
            packets.emplace_back(packet, static_cast<size_t>(size));
        }
        return packets;
    }
    int reader_, saved_;
};

}  // namespace

TEST_F(DlogWrites, OneCallIsOneWriteWithAllFields) {
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_WARN, "VESTRA", "%s %d\n", "text", 7), 6);
    const auto lines = writes();
    ASSERT_THAT(lines, SizeIs(1));
    const std::string ids = std::to_string(getpid()) + ":" + std::to_string(getpid());
    EXPECT_THAT(lines[0], ContainsRegex("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z W " + ids +
                                        " VESTRA: text 7\n$"));
}

TEST_F(DlogWrites, NobodyForgesALine) {
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "TAG\nTAG", "a\nb\rc\x1b[2J\x7f\n\n");
    const auto lines = writes();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], EndsWith(" TAG\\x0aTAG: a\\x0ab\\x0dc\\x1b[2J\\x7f\\x0a\n"));
    EXPECT_EQ(lines[0].find('\n'), lines[0].size() - 1);
}

TEST_F(DlogWrites, LongLinesAreCutAndStayLines) {
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "VESTRA", "%s", std::string(100000, 'x').c_str());
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, std::string(100000, 't').c_str(), "%s", std::string(5000, '\n').c_str());
    const auto lines = writes();
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_THAT(lines[0], EndsWith(": " + std::string(1919, 'x') + "\n"));
    EXPECT_LE(lines[1].size(), 4096U);
    EXPECT_THAT(lines[1], EndsWith("\\x0a\n"));
}

TEST_F(DlogWrites, PercentMIsTheCallersErrnoAndErrnoStays) {
    errno = ENOTEMPTY;
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "VESTRA", "(%d:%m)", errno);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_THAT(writes().at(0), HasSubstr(std::string(":") + strerror(ENOTEMPTY) + ")\n"));
    close(STDERR_FILENO);
    errno = ENOTEMPTY;
    EXPECT_LT(__dlog_print(LOG_ID_MAIN, DLOG_ERROR, "VESTRA", "nowhere to go"), 0);
    EXPECT_EQ(errno, ENOTEMPTY);
}

TEST_F(DlogWrites, BelowTheThresholdNothingIsWritten) {
    dlog_set_threshold(DLOG_WARN);
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "VESTRA", "unseen"), 0);
    EXPECT_FALSE(dlog_wants(DLOG_INFO));
    EXPECT_TRUE(dlog_wants(DLOG_WARN));
    EXPECT_THAT(writes(), SizeIs(0));
}

// The environment is read at load: the statement runs in a process that starts anew.
struct EnvironmentCase {
    const char *name, *level, *file;
    const char *letters;  // of the lines that are written
};
static void PrintTo(const EnvironmentCase &row, std::ostream *out) {
    *out << row.name;
}

class DlogEnvironment : public ::testing::TestWithParam<EnvironmentCase> {};

TEST_P(DlogEnvironment, DecidesLevelAndTarget) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string file =
        GetParam().file == nullptr ? ::testing::TempDir() + "dlog-" + GetParam().name : GetParam().file;
    setenv("VESTRA_DLOG_LEVEL", GetParam().level, 1);
    setenv("VESTRA_DLOG_FILE", file.c_str(), 1);
    const bool to_file = GetParam().file == nullptr;
    EXPECT_EXIT(
        {
            for (const int prio : {DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR})
                __dlog_print(LOG_ID_MAIN, prio, "T", "x");
            _exit(0);
        },
        ::testing::ExitedWithCode(0), to_file ? "^$" : "Z I [0-9:]+ T: x\n.*Z W .*Z E ");
    unsetenv("VESTRA_DLOG_LEVEL");
    unsetenv("VESTRA_DLOG_FILE");
    if (!to_file) return;
    std::ifstream lines(file);
    std::string letters;
    for (std::string line; std::getline(lines, line);) letters += line.at(25);
    std::filesystem::remove(file);
    EXPECT_EQ(letters, GetParam().letters);
}

INSTANTIATE_TEST_SUITE_P(Rows, DlogEnvironment,
                         ::testing::Values(EnvironmentCase{"Debug", "debug", nullptr, "DIWE"},
                                           EnvironmentCase{"ThreeIsDebug", "3", nullptr, "DIWE"},
                                           EnvironmentCase{"Error", "error", nullptr, "E"},
                                           EnvironmentCase{"NonsenseIsInfo", "loud", nullptr, "IWE"},
                                           EnvironmentCase{"NoSuchPlaceIsStandardError", "info", "/no/such/place",
                                                           "IWE"}),
                         [](const auto &row) { return std::string(row.param.name); });
