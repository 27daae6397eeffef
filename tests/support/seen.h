// What the redirected operations write down; the tests read it through daemon_env.h.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "support/daemon_env.h"

namespace vestra_test {

struct Seen {
    std::mutex mutex;  // guards all below
    std::vector<LogLine> log;
    std::vector<int64_t> waits;
    std::vector<std::string> node_writes;
    std::vector<std::string> calls;
    int fsyncs = 0;
    int dump_writes = 0;
    int threads = 0;

    void forget() {
        log.clear();
        waits.clear();
        node_writes.clear();
        calls.clear();
        fsyncs = dump_writes = threads = 0;
    }
};
Seen &seen();

}  // namespace vestra_test
