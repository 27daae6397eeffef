// watch.h -- asking once, and again and again.
#pragma once

#include <vector>

#include "platform/vestra_api.h"

namespace vestra_stat {

// Distinct also from those of "vestra-set exec", which passes them on: 2 and 3 tell about the set.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,  // no memory, or the answer could not be written
    kExitNoDaemon = 4,
    kExitTimeout = 5,
    kExitRefused = 6,
    kExitUsage = 64,  // wrong options or arguments
};

struct Question {
    std::vector<int> types;  // packet types, in the order in which they are shown; 1 to 17
    int window = 0;          // seconds
    int timeout_ms = 0;
    bool json = false;
};

struct Watch {
    double seconds = 1;  // from one question to the next
    long count = 0;      // questions; 0: without end
};

// Asks once and prints the answer, or a message on standard error. Returns an exit code.
int ask_once(vestra_api_h client, const Question &question);

// Asks on and on, and says once when no answer comes and once when one comes again. On a terminal the table stays where
// it is. An interrupt or SIGTERM ends the program with exit code 0 at any moment: a client that goes in its turn holds
// nobody up. Returns the exit code of the last question.
int watch(vestra_api_h client, const Question &question, const Watch &how);

}  // namespace vestra_stat
