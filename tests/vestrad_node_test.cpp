// Kernel module, control node and chip; the user-data commands.

#include "support/daemon_env.h"

using namespace vestra_test;

class VestradNode : public DaemonTest {};

TEST_F(VestradNode, ModuleIsWaitedFor) {
    std::string results;
    for (const bool load : {true, false}) {
        for (const int changes : {0, 399, 400, -1}) {  // the wait after which the node appears or goes; -1: never
            start_afresh();
            write_file(state_path("modules/orna_vestra_kmod"), "");
            if (!load) make_node();
            world().on_wait = [&](int waits) {
                if (waits == changes) load ? void(make_node()) : void(fs::remove(kControlNode));
            };
            world().on_wait(0);
            const int result = load ? loadVestraDriver() : unloadVestraDriver();
            results += text("%s, node changes after wait %d: %d\n", load ? "load" : "unload", changes, result);
            results += seen_text("3456w");
            EXPECT_THAT(names_in(state_path("modules")), SizeIs(load ? 1 : 0));
        }
    }
    expect_golden("module-is-waited-for", results);
}

TEST_F(VestradNode, OpenWaitsForTheFile) {
    world().on_wait = [](int waits) {
        if (waits == 20) make_node();
    };
    const int fd = vestra_open(kControlNode, O_WRONLY);
    EXPECT_THAT(seen("w"), ElementsAre("wait 200000 *20"));
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
    close(fd);
}

TEST_F(VestradNode, ShellCommandGivesItsWaitStatus) {
    EXPECT_EQ(runShell("echo \"a  b\" > /tmp/out; exit 3"), 768);
    EXPECT_EQ(read_file("/tmp/out"), "a  b\n");
}

TEST_F(VestradNode, NegativePauseIsSkipped) {
    for (const int usec : {0, 1, 2500000, -1}) vestrad_usleep(usec);
    EXPECT_THAT(seen("w"), ElementsAre("wait 0", "wait 1", "wait 2500000"));
}

TEST_F(VestradNode, ChipComesFromTheSet) {
    std::string results;
    for (const std::string name : {"RIVAM", "RIVAL", "TORNL-X", "TORNM", "DALPS", "Y47QE2", "none", "", "RIVA"}) {
        const std::string line = name == "none" ? "" : "product.chipset=" + name + "\n";
        write_file(state_path("system_info.ini"), "[com.velmora/featureconf]\n" + line);
        int found = 0;
        results += line + printed_by([&] { found = get_chip_type_from_config(); }) + "\n";
        EXPECT_EQ(vestra_chip_type(), found);
    }
    expect_golden("chips", results);
}

/* ------------------------------ User data ------------------------------ */

TEST_F(VestradNode, EachCommandIsOneWrite) {
    std::string text(300, 'x');
    make_node();
    write_userdata_func(3, INT_MIN);
    write_userdata(6, text.data(), 300);
    write_userdata(6, text.data(), 256);
    expect_golden("node-commands", seen_text("3456n"));
}

TEST_F(VestradNode, CommandOnDescriptorZeroLeavesItOpen) {
    make_node();
    const int kept = dup(0);
    close(0);
    write_userdata_func(2, 2);
    EXPECT_GE(fcntl(0, F_GETFD), 0);
    dup2(kept, 0);
    close(kept);
}

TEST_F(VestradNode, CommandThatFailsIsLogged) {
    char text[] = "x";
    write_userdata_func(2, 2);
    write_userdata(6, text, 1);
    EXPECT_EQ(thread_userdata_func(nullptr), nullptr);
    fs::create_symlink("/dev/full", kControlNode);
    write_userdata_func(1, 1);
    write_userdata(6, text, 1);
    expect_golden("node-commands-that-fail", seen_text());
}

TEST_F(VestradNode, PartialWriteIsNoFailure) {
    make_node();
    write_file("/tmp/t", "57\n");
    snprintf(temperature_file_name, sizeof(temperature_file_name), "/tmp/t");
    world().write_most = 3;
    world().on_wait = [](int) { exit_flag = 1; };
    char name[] = "name";
    write_userdata(6, name, 4);
    write_userdata_func(1, 1);
    thread_userdata_func(nullptr);
    EXPECT_EQ(drain_node(), "c-6c-1c-0");
    EXPECT_THAT(seen("6"), ElementsAre("6 INFO: command = c-6-4-name", "6 command = c-1-4-1"));
}

TEST_F(VestradNode, TemperatureIsSentOnceASecond) {
    const Strings readings = {"57\n", "-5\n", "", "126\n", ""};
    make_node();
    snprintf(temperature_file_name, sizeof(temperature_file_name), "/tmp/t");
    write_file("/tmp/t", "125");
    world().on_wait = [&](int waits) {
        write_file("/tmp/t", readings[static_cast<size_t>(waits) - 1]);
        exit_flag = waits == 5 ? 1 : 0;
    };
    EXPECT_EQ(thread_userdata_func(nullptr), nullptr);
    EXPECT_THAT(seen("nw"), ElementsAre("node c-0-4-125", "wait 1000000", "node c-0-4-57", "wait 1000000",
                                        "node c-0-4-5", "wait 1000000 *2", "node c-0-4-126", "wait 1000000"));
}
