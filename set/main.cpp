// vestra-set: starts a simulated set with the daemon in it, and is the remote control of one that runs.
//
// Outside a set, the commands that act on one (Where::kInside) are run again by this same program inside it, where
// the paths are the set's own. Inside, as in a test, they act at once.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "set/commands.h"
#include "set/complain.h"
#include "set/enter.h"
#include "set/inner_init.h"
#include "set/layout.h"

namespace vestra_set {

namespace {

constexpr const char *kOverview =
    "exit codes:\n"
    "  0   done\n"
    "  1   the command could not be carried out\n"
    "  2   a set cannot be made here; the message says what to do\n"
    "  3   there is no running set of that name\n"
    "  64  wrong options or arguments\n"
    "  run, sandbox and exec pass on the exit code of the program in the set; 126 and 127 mean that it could not be\n"
    "  run\n\n"
    "examples:\n"
    "  vestra-set run --source host --usb-dir STICK=./stick\n"
    "  vestra-set key 87\n"
    "  vestra-set COMMAND --help";

// If one of them is closed, the next file that is opened would take its place, and be passed on.
void open_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The lowest that is free, which is this one; not close-on-exec, because programs that are run inherit it.
        if (fcntl(fd, F_GETFD) < 0) (void)open("/dev/null", O_RDWR);
    }
}

// What this program runs of itself inside a set:
//   inner-init OPTIONS LINK -- PROGRAM [ARGUMENTS]   as the first process, see set/inner_init.h
//   inner-exec DIRECTORY -- PROGRAM [ARGUMENTS]      for exec, see set/enter.h
int run_inner(const std::vector<std::string> &words) {
    const auto number = [&](size_t word) { return static_cast<int>(std::strtol(words[word].c_str(), nullptr, 10)); };
    if (g_program.empty()) return kExitUsage;
    if (words[0] == "inner-init" && words.size() == 3) return inner_init(number(1), number(2), g_program);
    if (words[0] == "inner-exec" && words.size() == 2) return execute_inside(words[1], g_program);
    return kExitUsage;
}

int run(const std::vector<std::string> &arguments) {
    const bool completes = !arguments.empty() && arguments[0] == cli::kComplete;
    const auto dashes = completes ? arguments.end() : std::find(arguments.begin(), arguments.end(), "--");
    const std::vector<std::string> words(arguments.begin(), dashes);
    if (dashes != arguments.end()) g_program.assign(dashes + 1, arguments.end());
    if (!words.empty() && words[0].rfind("inner-", 0) == 0) return run_inner(words);

    cli::Program program(
        "A simulated TV set for the flight recorder: runs the daemon at its real paths in its own namespace, with a\n"
        "kernel module, key presses, USB sticks and settings to play with.",
        "vestra-set", VESTRA_VERSION);
    program.require_command();
    program.pass_unknown_up();
    program.footer(kOverview);
    // In the order in which help shows them.
    add_run_commands(program);
    add_remote_commands(program);
    add_usb_commands(program);
    add_trigger_commands(program);
    add_set_commands(program);
    if (const std::optional<int> code = program.parse(words)) return *code == 0 ? kExitOk : kExitUsage;
    if (!g_program.empty() && g_command.where != Where::kProgram) fail("nothing is expected after \"--\"", kExitUsage);
    if (g_command.where != Where::kInside || std::getenv("VESTRA_SET_INSIDE") != nullptr) return g_command.run();

    std::vector<std::string> inside{kLauncher};
    inside.insert(inside.end(), words.begin(), words.end());
    return execute_in_set(g_name, inside);
}

}  // namespace
}  // namespace vestra_set

int main(int argc, char **argv) {
    vestra_set::open_standard_streams();
    try {
        const int code = vestra_set::run({argv + std::min(argc, 1), argv + argc});
        if (!std::cout.flush()) vestra_set::fail("the output could not be written");
        return code;
    } catch (const vestra_set::Failure &failure) {
        vestra_set::say(failure.what());
        return failure.code;
    } catch (const std::exception &problem) {
        vestra_set::say(problem.what());
        return vestra_set::kExitFailed;
    }
}
