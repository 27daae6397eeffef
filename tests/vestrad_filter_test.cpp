// Process filter list and the thread that watches for it.

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <thread>

#include "support/daemon_env.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kDirectory[] = "/tmp/vestra_processes";
constexpr char kList[] = "/tmp/vestra_processes/processes.txt";

class VestradFilter : public DaemonTest {
  protected:
    VestradFilter() { fs::create_directories(kDirectory); }
    PipeNode node_;
};

TEST_F(VestradFilter, NamesAreSentOneByOne) {
    const std::string exact(128, 'e'), longer(200, 'l');
    static const struct {
        const char *name;
        std::string text;
        int count;
        std::vector<std::string> sent;
    } kRows[] = {
        {"Three", "one\ntwo\nthree\n", 3, {"c-6-3-one", "c-6-3-two", "c-6-5-three"}},
        {"NoLineEnd", "one", 1, {"c-6-3-one"}},
        {"SevenSendFive", "1\n2\n3\n4\n5\n6\n7\n", 7, {"c-6-1-1", "c-6-1-2", "c-6-1-3", "c-6-1-4", "c-6-1-5"}},
        {"BlanksStay", "  a b \n", 1, {"c-6-6-  a b "}},
        {"EmptyLineIsAName", "\n", 1, {"c-6-0-"}},
        {"Exactly128", exact + "\nnext\n", 2, {"c-6-128-" + exact, "c-6-4-next"}},
        {"LongerIsCut", longer + "\nnext\n", 2, {"c-6-128-" + longer.substr(0, 128), "c-6-4-next"}},
        {"MegabyteLine", std::string(1 << 20, 'm') + "\n", 1, {"c-6-128-" + std::string(128, 'm')}},
        {"ZeroByteEndsTheName", std::string("ab\0cd\n", 6), 1, {"c-6-2-ab"}},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        g_vestra_config = VestraConfig_t{};
        write_file(kList, row.text);
        const size_t before = node_writes().size();
        updateFilterProcessNames();
        auto sent = node_writes();
        sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(sent, row.sent);
        EXPECT_EQ(g_vestra_config.vestra_proc_filter_enable_num, row.count);
        EXPECT_EQ(g_vestra_config.vestra_proc_filter_pname_valid, 1);
        EXPECT_EQ(g_vestra_config.vestra_proc_filter_pid_num, 0) << "nothing behind the slots is written";
        EXPECT_THAT(names_in(kDirectory), IsEmpty()) << "the list is taken away";
    }
}

TEST_F(VestradFilter, LinesAreLoggedInOrder) {
    write_file(kList, "one\ntwo\n");
    updateFilterProcessNames();
    const auto texts = log_texts(kInfo);
    ASSERT_GE(texts.size(), 5U);
    EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 5),
                ElementsAre("g_vestra_config.vestra_proc_filter_pname[0] = one",
                            "g_vestra_config.vestra_proc_filter_pname[1] = two",
                            "command [/bin/rm -rf /tmp/vestra_processes/processes.txt]",
                            "vestra_proc_filter_enable_num = 2, vestra_proc_filter_pname_valid = 1",
                            "cmd : 6, pBuf = one|two|||, len = 10"));
}

TEST_F(VestradFilter, ShorterListKeepsTheLaterSlots) {
    write_file(kList, "one\ntwo\nthree\n");
    updateFilterProcessNames();
    write_file(kList, "new\n");
    updateFilterProcessNames();
    EXPECT_STREQ(g_vestra_config.vestra_proc_filter_pname[1], "two");
    EXPECT_EQ(g_vestra_config.vestra_proc_filter_enable_num, 1);
    write_file(kList, "");
    updateFilterProcessNames();
    EXPECT_THAT(node_writes(), ElementsAre("c-6-3-one", "c-6-3-two", "c-6-5-three", "c-6-3-new", "c-6-3-new"))
        << "an empty list sends the old one again";
    EXPECT_THAT(names_in(kDirectory), IsEmpty());
}

TEST_F(VestradFilter, NoListNothingSent) {
    g_vestra_config.vestra_proc_filter_enable_num = 1;
    g_vestra_config.vestra_proc_filter_pname_valid = 1;
    updateFilterProcessNames();
    EXPECT_THAT(node_writes(), IsEmpty());
    EXPECT_THAT(log_texts(), ElementsAre(" /tmp/vestra_processes/processes.txt doesnot exists"));
}

TEST_F(VestradFilter, IdsAreSentAsOneText) {
    const int32_t ids[] = {1, -2, 3, INT_MAX, INT_MIN, 6};
    memcpy(g_vestra_config.vestra_proc_filter_pid, ids, sizeof(ids));
    g_vestra_config.vestra_proc_filter_pid_num = 1;
    write_file(kList, "");
    updateFilterProcessNames();
    EXPECT_THAT(node_writes(), IsEmpty()) << "with a count of 0";
    g_vestra_config.vestra_proc_filter_enable_num = 1;
    write_file(kList, "");
    updateFilterProcessNames();
    EXPECT_THAT(node_writes(), ElementsAre("c-5-29-1|-2|3|2147483647|-2147483648"));
    g_vestra_config.vestra_proc_filter_pid_num = 0;
    write_file(kList, "");
    updateFilterProcessNames();
    EXPECT_EQ(count_log(kError, "ERR: vestra_proc_filter_enable_num i/p invalid!"), 1);
    EXPECT_THAT(node_writes(), SizeIs(1));
}

TEST_F(VestradFilter, WhatIsNoListIsNotOpened) {
    write_file("/tmp/secret", "precious\n");
    ASSERT_EQ(mkfifo(kList, 0666), 0);
    updateFilterProcessNames();
    ASSERT_EQ(symlink("/tmp/secret", kList), 0);
    updateFilterProcessNames();
    fs::create_directories(std::string(kList) + "/below");
    updateFilterProcessNames();
    EXPECT_EQ(count_log(kError, "File could not be opened [/tmp/vestra_processes/processes.txt]."), 3);
    EXPECT_THAT(names_in(kDirectory), IsEmpty());
    EXPECT_EQ(read_file("/tmp/secret"), "precious\n");
    EXPECT_THAT(node_writes(), IsEmpty());
}

TEST_F(VestradFilter, OtherFilesAreRemovedWhateverTheirName) {
    static const struct {
        const char *name, *file;
    } kRows[] = {
        {"Plain", "other.txt"},
        {"Blanks", " a  b "},
        {"Quotes", "it's \"quoted\" `touch ran`"},
        {"Commands", "x; touch $(echo ran) && touch ran #"},
        {"Substitution", "$(touch ran)"},
        {"Newline", "a\ntouch ran\n"},
        {"Option", "-rf"},
        {"Backslash", "a\\"},
        {"Pattern", "*"},
        {"HighBytes", "\xff\x80"},
        {"Redirection", ">ran"},
    };
    fs::current_path("/tmp");
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        write_file(std::string(kDirectory) + "/keep", "");
        write_file(std::string(kDirectory) + "/" + row.file, "");
        updateFilterProcessNames(row.file);
        EXPECT_THAT(names_in(kDirectory), ElementsAre("keep"));
        EXPECT_THAT(names_in("/tmp"), ElementsAre("vestra_processes"));
    }
    const std::string longest(255, '\'');
    write_file(std::string(kDirectory) + "/" + longest, "");
    updateFilterProcessNames(longest.c_str());
    EXPECT_THAT(names_in(kDirectory), ElementsAre("keep"));
    EXPECT_EQ(count_log(kError,
                        "File name recieved [other.txt], it should be [processes.txt], removing file [/bin/rm -rf "
                        "/tmp/vestra_processes//other.txt]"),
              1);
    EXPECT_THAT(node_writes(), IsEmpty());
}

TEST_F(VestradFilter, ListNameOrNoNameMeansTheList) {
    write_file(kList, "one\n");
    updateFilterProcessNames("processes.txt");
    write_file(kList, "two\n");
    updateFilterProcessNames(nullptr);
    EXPECT_THAT(node_writes(), ElementsAre("c-6-3-one", "c-6-3-two"));
}

// Looks again every 5 ms for at most 10 s.
bool comes_true(const std::function<bool()> &condition) {
    for (int look = 0; look < 2000; ++look) {
        if (condition()) return true;
        poll(nullptr, 0, 5);
    }
    return false;
}

// The thread never ends, so it gets a process of its own. True when all came about.
bool watcher_works() {
    fs::remove_all(kDirectory);
    world().real_waits = true;
    umask(077);
    std::thread(thread_user_process_func, nullptr).detach();
    EXPECT_TRUE(comes_true([] { return inotify_wd >= 0; }));
    umask(022);
    EXPECT_EQ(fs::status(kDirectory).permissions(), fs::perms::all) << "whatever the umask";

    const std::vector<std::string> left = {"directory"};
    fs::create_directories(std::string(kDirectory) + "/directory");
    write_file(std::string(kDirectory) + "/other.txt", "other\n");
    EXPECT_TRUE(comes_true([&] { return names_in(kDirectory) == left; }));
    write_file(kList, "one\ntwo\n");
    EXPECT_TRUE(comes_true([] { return node_writes().size() == 2; }));
    EXPECT_THAT(node_writes(), ElementsAre("c-6-3-one", "c-6-3-two"));
    EXPECT_EQ(count_log(kError, "New File created as :- processes.txt"), 1);
    EXPECT_EQ(count_log("New File created as :- directory"), 0);
    EXPECT_EQ(waits_us().front(), 100000);

    exit_flag = 1;
    for (int i = 0; i < 100; ++i) write_file(std::string(kDirectory) + "/many" + std::to_string(i), "");
    EXPECT_TRUE(comes_true([&] { return names_in(kDirectory) == left; })) << "a stop does not end it, no event is lost";
    fs::remove_all(kDirectory);
    EXPECT_TRUE(comes_true([] { return fs::is_directory(kDirectory); })) << "made again";
    return !::testing::Test::HasFailure();
}

TEST_F(VestradFilter, ThreadWatchesTheDirectory) {
    EXPECT_EXIT(_exit(watcher_works() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vestra_test
