// Writes the hostile dump to standard output, for test scripts.

#include <iostream>

#include "hostile_dump.h"

int main() {
    std::cout << dump_test::hostile_dump() << std::flush;
    return std::cout ? 0 : 1;
}
