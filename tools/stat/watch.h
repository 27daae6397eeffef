// watch.h -- asks the daemon once, or again and again.
#pragma once

#include <vector>

#include "client/vestra_api.h"
#include "tools/stat/output.h"

namespace vestra_stat {

// 2 and 3 are left to "vestra-set exec", which passes exit codes on and has those two itself.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,  // no memory, or the answer could not be written
    kExitNoDaemon = 4,
    kExitTimeout = 5,
    kExitRefused = 6,
    kExitUsage = 64,  // wrong options or arguments
};

struct Question {
    std::vector<int> types;  // 1 to 17 packet types, in the order in which they are shown
    int window = 0;          // seconds
    int timeout_ms = 0;
    Format format = Format::kTable;
};

struct Watch {
    double seconds = 1;  // between questions
    long count = 0;      // of questions; 0: no limit
};

// Asks once and prints the answer, or a message on standard error. Returns an exit code.
int ask_once(vestra_api_h client, const Question &question);

// Prints the last 180 s, second by second. Returns an exit code. The question's window is not used.
int show_history(vestra_api_h client, const Question &question);

// Asks again and again, and reports once when answers stop and once when they come back. On a terminal that can show it,
// it is the screen of tools/view/, until the person ends it. An interrupt or SIGTERM ends the program at any time, with
// exit code 0; other clients do not have to wait for a client that ends during its turn. Returns the exit code of the last
// question.
int watch(vestra_api_h client, const Question &question, const Watch &how);

}  // namespace vestra_stat
