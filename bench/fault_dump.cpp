// Writes the dump of a made-up set, without starting one, and prints its faults: {"faults": [{kind, pid, name, from_ns}]}.
//
//   fault_dump FILE SECONDS PROFILE SEED [FAULT...]
//
// Two blocks a second, as the daemon reads them. FAULT: KIND[:PARAM]@SECOND (docs/simulated-set.md).

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "set/trace/synthetic_source.h"

int main(int argc, char **argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: fault_dump FILE SECONDS PROFILE SEED [FAULT...]\n");
        return 64;
    }
    vestra_set::SourceOptions options;
    options.profile = argv[3];
    options.seed = std::strtoull(argv[4], nullptr, 10);
    options.step_ns = 500'000'000;
    options.faults.assign(argv + 5, argv + argc);
    std::string error;
    const auto source = vestra_set::SyntheticSource::make(options, &error);
    if (source == nullptr) {
        std::fprintf(stderr, "fault_dump: %s\n", error.c_str());
        return 64;
    }
    std::ofstream out(argv[1], std::ios::binary);
    std::vector<uint8_t> block(trace::kBlockMax);
    for (unsigned long blocks = 2 * std::strtoul(argv[2], nullptr, 10); blocks > 0; --blocks) {
        const size_t size = source->next_block(block.data(), block.size());
        out.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(size));
    }
    out << "T-RX-1107.2/eu/24_TVX\r\n\x17";
    nlohmann::json faults = nlohmann::json::array();
    for (const vestra_set::SyntheticFault &fault : source->faults()) {
        nlohmann::json one = {{"kind", fault_name(fault.kind)}, {"pid", nullptr}, {"name", nullptr}};
        if (fault.pid != 0) {
            one["pid"] = fault.pid;
            one["name"] = fault.name;
        }
        one["from_ns"] = fault.from_ns;
        faults.push_back(one);
    }
    std::cout << nlohmann::json{{"faults", faults}} << '\n';
    return out.flush() && std::cout.flush() ? 0 : 1;
}
