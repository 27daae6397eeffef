// Writes a dump's payload to standard output, for tests: write_dump hostile, or
// write_dump PROFILE PROCESSES BLOCK-SIZE BLOCKS SEED [FAULT...] of the synthetic source. A line on standard error for each
// fault says what was planted: the process id, the name, and the time in ns.

#include <cstdlib>
#include <iostream>

#include "dump_support.h"
#include "hostile_dump.h"

int main(int argc, char **argv) {
    const auto number = [&](int i) { return static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)); };
    if (argc != 2 && argc < 6) return 64;
    std::string bytes, error;
    if (argc == 2) {
        bytes = dump_test::hostile_dump();
    } else {
        auto options = dump_test::source_options(argv[1], number(2), number(3), number(5));
        options.faults.assign(argv + 6, argv + argc);
        const auto source = vestra_set::SyntheticSource::make(options, &error);
        if (source == nullptr) return std::cerr << error << '\n', 64;
        for (uint32_t block = 0; block < number(4); ++block) dump_test::append_block(*source, &bytes);
        for (const auto &fault : source->faults()) {
            std::cerr << fault.pid << ' ' << fault.name << ' ' << fault.from_ns << '\n';
        }
    }
    std::cout << bytes << std::flush;
    return std::cout ? 0 : 1;
}
