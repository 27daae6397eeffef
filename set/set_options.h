// What a simulated set is made of. The command line fills it; the set's first process gets it as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "set/trace/source.h"

namespace vestra_set {

// A USB stick that is in the set from the start, mounted at /media/LABEL.
struct Stick {
    std::string label;
    // Of its tmpfs, as mount(8) takes it ("64M"); empty: a directory of the host, bound there already.
    std::string size;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Stick, label, size)

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SourceOptions, kind, file, rate, block_size, profile, processes, seed, step_ns,
                                   every_process, loop, faults)

struct SetOptions {
    std::string name;             // as the user knows the set
    bool daemon = false;          // the program is the daemon: own process group, its log set up, stopped in order
    bool node = false;            // serve the trace control node
    bool module_loaded = false;   // the kernel module is there from the start
    std::string image = "debug";  // marker file in /etc; "none" for no marker
    std::string config;           // text of the configuration file, complete
    std::string chip = "RIVAM";
    int temperature = 45;  // degrees Celsius
    std::vector<Stick> sticks;
    SourceOptions source;
    std::string log;        // file inside the set; empty: standard error
    std::string log_level;  // empty: as the environment has it
    std::string directory;  // working directory, used where it exists inside
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SetOptions, name, daemon, node, module_loaded, image, config, chip, temperature,
                                   sticks, source, log, log_level, directory)

}  // namespace vestra_set
