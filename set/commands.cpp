#include "set/commands.h"

namespace vestra_set {

const std::vector<Command> &commands() {
    static const std::vector<Command> kCommands = {
        {"run", "Start a set and the daemon in it; stays until the daemon has ended",
         "What stands behind -- goes to the daemon: [max_file_size_MiB [file_interval_s]].\n"
         "Ctrl-C stops the daemon in order, a second one at once.\n\n"
         "examples:\n"
         "  vestra-set run\n"
         "  vestra-set run --source host --usb-dir STICK=./stick --log-level debug\n"
         "  vestra-set run --name small --config max_file_size=1 --usb A:8M -- 1 4",
         false, setup_run},
        {"sandbox", "Run a program, such as a test, in a set of its own without the daemon",
         "The program's exit code, or the signal that ends it, is passed on. VESTRA_SET_INSIDE=1 is in its "
         "environment.\n\n"
         "examples:\n"
         "  vestra-set sandbox -- ./build/tests/decoder_test\n"
         "  vestra-set sandbox --node --seed 7 -- ./build/tests/reader_test --gtest_filter='*Empty*'",
         false, setup_sandbox},
        {"key", "Press a key combination on the remote control",
         "Combination 87 makes the daemon write a dump.\n\nexample:\n  vestra-set key 87", true, setup_key},
        {"robust", "Report a failed process: the daemon writes a dump for it at once",
         "The dump is DIRECTORY/0000000000_PID_PROCESS_SECONDS, and a copy of it is on the stick.\n\n"
         "example:\n  vestra-set robust /tmp procd 77",
         true, setup_robust},
        {"dod", "Switch DOD mode: continuous dumps, in a folder of the stick's",
         "Continuous dumps need a daemon that was started with two arguments.\n\n"
         "example:\n  vestra-set dod on     (dumps come into /media/LABEL/issue_report_agent_DOD/Vestra)",
         true, setup_dod},
        {"history", "Have the process history written into its database, and show the newest rows",
         "Exit code 1 when the daemon did not write it.\n\n"
         "examples:\n  vestra-set history\n  vestra-set history --rows 1000 --json",
         true, setup_history},
        {"filter", "Drop a list of process names: the module reports no others",
         "Waits until the daemon has taken the list. The module keeps the five newest names, whatever lists they came "
         "in, until it\n"
         "is loaded anew; it compares 15 characters.\n\n"
         "example:\n  vestra-set filter tvs-engine launcher",
         true, setup_filter},
        {"vconf", "Read or set a key of the platform's configuration service",
         "examples:\n"
         "  vestra-set vconf set system/DOD/test_monitor 1\n"
         "  vestra-set vconf set system/vestra/robust --type string 'some text'\n"
         "  vestra-set vconf get memory/SHM/trigger_db_write",
         true, setup_vconf},
        {"usb", "Plug and unplug USB sticks",
         "examples:\n"
         "  vestra-set usb plug STICK --size 16M\n"
         "  vestra-set usb unplug STICK --yank     (pulled out while it is being written to)\n"
         "  vestra-set usb list",
         true, setup_usb},
        {"temperature", "Set the temperature of the set's processor, in degrees Celsius",
         "example:\n  vestra-set temperature 126     (above 125 the daemon raises its alarm)", true, setup_temperature},
        {"module", "Look at the kernel module, load and unload it, make it misbehave",
         "examples:\n"
         "  vestra-set module status\n"
         "  vestra-set module stall on      (reads of the control node wait, until: stall off)\n"
         "  vestra-set module inject 'error 3' 'size 4096'\n"
         "  vestra-set module inject        (behave again)",
         true, setup_module},
        {"notices", "Show the notices that were put on the set's screen", "example:\n  vestra-set notices", true,
         setup_notices},
        {"log", "Show the daemon's log", "example:\n  vestra-set log -f", true, setup_log},
        {"exec", "Run a program inside a running set",
         "Its exit code is passed on; 128 + the number of a signal that ended it.\n\n"
         "examples:\n"
         "  vestra-set exec -- ls -l /media/STICK\n"
         "  vestra-set exec -- sh",
         false, setup_exec},
        {"wait", "Wait until a set is up", "example:\n  vestra-set run --name demo & vestra-set wait --name demo",
         false, setup_wait},
        {"stop", "Stop the daemon in order, and end its set",
         "The daemon is sent SIGRTMIN+6 and ends its main loop and its reader, client and user-data threads. It then "
         "waits\n"
         "for its process-list thread, which never ends; so when the others have, or the time of grace is over, it is "
         "ended\n"
         "by force.\n\nexample:\n  vestra-set stop --name small",
         false, setup_stop},
        {"inspect", "Count what a recorded dump holds, and show its trailer",
         "example:\n  vestra-set inspect ./stick/0000000000_5_vestrad_1764020000", false, setup_inspect},
        {"list", "List the sets that are running", "example:\n  vestra-set list --json", false, setup_list},
    };
    return kCommands;
}

void add_name_option(CLI::App &app, std::string &name) {
    app.add_option("--name", name, "The set's name")->capture_default_str();
}

}  // namespace vestra_set
