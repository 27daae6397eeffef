// vestra-set: starts a simulated set with the daemon in it, and is the remote control of one that runs.
//
// Outside a set, the commands that act on one (Command::inside) are sent through its control socket and carried out by
// this same program inside, where the paths are the set's own. Inside, as in a test, they act at once.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>

#include "set/commands.h"
#include "set/inner_init.h"
#include "set/launcher.h"
#include "set/layout.h"
#include "set/remote.h"

namespace vestra_set {
namespace {

constexpr const char *kOverview =
    "exit codes:\n"
    "  0   done\n"
    "  1   the command could not be carried out\n"
    "  2   a set cannot be made here; the message says what to do\n"
    "  3   there is no running set of that name\n"
    "  64  wrong options or arguments\n"
    "  run, sandbox and exec pass on the exit code of the program in the set; 126 and 127 tell that it could not be "
    "run\n\n"
    "examples:\n"
    "  vestra-set run --source host --usb-dir STICK=./stick\n"
    "  vestra-set key 87\n"
    "  vestra-set COMMAND --help";

// Started with one of them closed, this program would get a descriptor of its own in its place and pass that on.
void open_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The lowest that is free, which is this one; not close-on-exec, for it is meant for what is run.
        if (fcntl(fd, F_GETFD) < 0) (void)open("/dev/null", O_RDWR);
    }
}

// inner-init LINK -- PROGRAM ARGS...; only ever typed by the launcher.
int run_inner_init(const std::vector<std::string> &words, const Rest &rest) {
    if (words.size() != 2) return kExitUsage;
    return inner_init(static_cast<int>(std::strtol(words[1].c_str(), nullptr, 10)), rest.words);
}

int run(int argc, char **argv) {
    std::vector<std::string> words;
    Rest rest;
    for (int i = 1; i < argc; ++i) {
        if (!rest.present && std::string_view(argv[i]) == "--") {
            rest.present = true;
        } else {
            (rest.present ? rest.words : words).emplace_back(argv[i]);
        }
    }
    if (!words.empty() && words[0] == "inner-init") return run_inner_init(words, rest);

    CLI::App app(
        "A simulated TV set for the flight recorder: runs the daemon at its real paths in a namespace of its own,\n"
        "with a kernel module, key presses, USB sticks and settings to play with.",
        "vestra-set");
    app.set_version_flag("--version", "vestra-set " VESTRA_VERSION);
    app.require_subcommand(1);
    app.footer(kOverview);
    std::string name = "default";
    std::map<const CLI::App *, std::pair<const Command *, Action>> actions;
    for (const Command &command : commands()) {
        CLI::App *sub = app.add_subcommand(command.name, command.summary);
        sub->footer(command.footer);
        if (command.inside) add_name_option(*sub, name);
        actions[sub] = {&command, command.setup(*sub)};
    }
    try {
        std::vector<std::string> reversed(words.rbegin(), words.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitOk : kExitUsage;
    }
    const auto &[command, action] = actions.at(app.get_subcommands().front());
    if (!command->inside || std::getenv("VESTRA_SET_INSIDE") != nullptr) return action(rest);

    std::vector<std::string> inside{kLauncher};
    inside.insert(inside.end(), words.begin(), words.end());
    return execute_in_set(name, inside);
}

}  // namespace
}  // namespace vestra_set

int main(int argc, char **argv) {
    vestra_set::open_standard_streams();
    try {
        return vestra_set::run(argc, argv);
    } catch (const std::exception &problem) {
        std::cerr << "vestra-set: " << problem.what() << std::endl;
        return vestra_set::kExitFailed;
    }
}
