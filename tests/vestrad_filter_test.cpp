// Process filter list and the thread that watches for it.

#include "support/daemon_env.h"

using namespace vestra_test;

static const std::string kDirectory = "/tmp/vestra_processes/", kList = kDirectory + "processes.txt";

class VestradFilter : public DaemonTest {
  protected:
    VestradFilter() { make_node(); }
    // Drops a list and lets it be loaded.
    static void load(const std::string &list) {
        write_file(kList, list);
        updateFilterProcessNames();
        EXPECT_THAT(names_in(kDirectory), IsEmpty()) << "the list is taken away";
    }
};

TEST_F(VestradFilter, NamesAreSentOneByOne) {
    std::string results;
    for (const auto &[name, list] :
         Table<std::string, std::string>{{"seven, of which five are sent", "1\n2\n3\n4\n5\n6\n7\n"},
                                         {"exactly 128 bytes", std::string(128, 'e') + "\nnext\n"},
                                         {"a longer one is cut", std::string(60000, 'l') + "\nnext\n"},
                                         {"without an end", std::string(1 << 20, '\n') + "late\n"},
                                         {"a zero byte ends the name", std::string("ab\0cd\n", 6)}}) {
        g_vestra_config = VestraConfig_t{};
        begin_transcript();
        load(list);
        results += text("%s: %d\n", name.c_str(), g_vestra_config.vestra_proc_filter_enable_num) + seen_text("n");
        EXPECT_EQ(g_vestra_config.vestra_proc_filter_pid_num, 0) << "nothing after the slots is written";
    }
    expect_golden("filter-names", results);
}

TEST_F(VestradFilter, ListsFollowEachOther) {
    load("one\ntwo\n");
    load("new\n");
    load("");
    updateFilterProcessNames();
    expect_golden("filter-lists", seen_text("46n"));  // an empty list sends the old one again, none does nothing
}

TEST_F(VestradFilter, IdsAreSentAsOneText) {
    const int32_t ids[] = {1, -2, 3, INT_MAX, INT_MIN, 6};
    memcpy(g_vestra_config.vestra_proc_filter_pid, ids, sizeof(ids));
    g_vestra_config.vestra_proc_filter_pid_num = 1;
    load("");  // with a count of 0
    g_vestra_config.vestra_proc_filter_enable_num = 1;
    load("");
    g_vestra_config.vestra_proc_filter_pid_num = 0;
    load("");
    expect_golden("filter-ids", seen_text("6n"));
}

TEST_F(VestradFilter, LinkPipeOrDirectoryIsRemovedUnopened) {
    write_file("/tmp/secret", "precious\n");
    fs::create_directories(kList + "/below");
    updateFilterProcessNames();
    ASSERT_EQ(mkfifo(kList.c_str(), 0666), 0);
    updateFilterProcessNames();
    fs::create_symlink("/tmp/secret", kList);
    updateFilterProcessNames();
    EXPECT_THAT(seen("6n"), ElementsAre("6 File could not be opened [/tmp/vestra_processes/processes.txt]. *3"));
    EXPECT_THAT(names_in(kDirectory), IsEmpty());
    EXPECT_EQ(read_file("/tmp/secret"), "precious\n");
}

TEST_F(VestradFilter, FileOfAnotherNameIsRemovedAndNothingElse) {
    fs::current_path("/tmp");
    for (const std::string &name : Strings{"other.txt", "it's `touch ran`", "a\ntouch ran\n", "*"}) {
        SCOPED_TRACE(name);
        write_file(kDirectory + "keep", "");
        write_file(kDirectory + name, "");
        updateFilterProcessNames(name.c_str());
        EXPECT_THAT(names_in(kDirectory), ElementsAre("keep"));
    }
    EXPECT_THAT(names_in("/tmp"), ElementsAre("vestra_processes"));
    EXPECT_EQ(seen("6").front(),
              "6 File name recieved [other.txt], it should be [processes.txt], removing file "
              "[/bin/rm -rf /tmp/vestra_processes//other.txt]");
}

TEST_F(VestradFilter, DirectoryIsTakenOverOrRefusedBeforeTheFirstReading) {
    fs::create_directory("/tmp/other");
    write_file("/tmp/other/processes.txt", "theirs\n");
    fs::create_directory_symlink("/tmp/other", "/tmp/vestra_processes");
    updateFilterProcessNames();
    updateFilterProcessNames();
    EXPECT_THAT(seen("6n"), ElementsAre(HasSubstr("process lists in /tmp/vestra_processes are ignored")));
    EXPECT_TRUE(fs::exists("/tmp/other/processes.txt"));
    fs::remove("/tmp/vestra_processes");
    fs::create_directory(kDirectory);
    if (chown(kDirectory.c_str(), 12345, 12345) != 0) GTEST_SKIP() << "no other users here";
    load("ours\n");
    struct stat info;
    ASSERT_EQ(stat(kDirectory.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, geteuid());
    EXPECT_EQ(info.st_mode & 07777, 0777U);
}

TEST_F(VestradFilter, ThreadWatchesTheDirectory) {
    struct Enough {};
    umask(077);
    fs::create_directory_symlink("/opt", "/tmp/vestra_processes");
    // Each wait begins a pass; the one before it has seen what was done at its own.
    world().on_wait = [](int pass) {
        exit_flag = 1;  // does not end it
        if (pass == 2) {
            fs::remove("/tmp/vestra_processes");  // a link is not watched
        } else if (pass == 3) {
            EXPECT_EQ(fs::status(kDirectory).permissions(), fs::perms::all) << "whatever the umask";
            fs::create_directory(kDirectory + "directory");
            write_file("/tmp/renamed", "renamed\n");
            fs::rename("/tmp/renamed", kDirectory + "renamed");  // is not noticed
            write_file(kDirectory + "other.txt", "other\n");
            write_file(kList, "one\ntwo\n");
        } else if (pass == 5) {
            EXPECT_THAT(names_in(kDirectory), ElementsAre("directory", "renamed"));
            fs::remove_all(kDirectory);
        } else if (pass == 6) {
            EXPECT_TRUE(fs::is_directory(kDirectory)) << "made again";
            throw Enough{};
        }
    };
    EXPECT_THROW(thread_user_process_func(nullptr), Enough);
    umask(022);
    expect_golden("filter-thread", seen_text("6nw"));
}
