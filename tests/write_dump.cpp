// Writes a dump's payload to standard output, for tests: write_dump hostile, or
// write_dump PROFILE PROCESSES BLOCK-SIZE BLOCKS SEED of the synthetic source.

#include <cstdlib>
#include <iostream>

#include "dump_support.h"
#include "hostile_dump.h"

int main(int argc, char **argv) {
    const auto number = [&](int i) { return static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)); };
    if (argc != 2 && argc != 6) return 64;
    std::cout << (argc == 2
                      ? dump_test::hostile_dump()
                      : dump_test::synthetic(argv[1], number(2), number(3), static_cast<int>(number(4)), number(5)))
              << std::flush;
    return std::cout ? 0 : 1;
}
