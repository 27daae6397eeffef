// What the fuzz targets share: they run in a simulated set of their own, every line that the daemon logs is formatted
// but written nowhere, and a rule that does not hold ends the program.
//
// A target defines prepare() and LLVMFuzzerTestOneInput. Inputs do not depend on each other: what one leaves behind is
// put back before the next.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace vestra_fuzz {

// Called once, in the set, before the first input.
void prepare();

// Called with each line that the daemon logs: its text without the prefix, and its own arguments.
using LogHook = std::function<void(const char *text, va_list arguments)>;
void on_log(LogHook hook);

// How many descriptors are open: the same before and after what leaks none.
int open_descriptors();

// Whether an input is one of the few for which child processes run, each of which takes longer than a hundred inputs:
// it begins with '!', which is no part of what is tested, and the sum of its bytes is divisible by 64.
bool runs_commands(std::string_view input);

// Says which rule was broken and where, and aborts: the input is a finding.
[[noreturn]] void broken(const char *rule, const char *file, int line);

}  // namespace vestra_fuzz

#define FUZZ_RULE(holds, rule)                                                \
    do {                                                                      \
        if (!(holds)) ::vestra_fuzz::broken((rule), __FILE_NAME__, __LINE__); \
    } while (0)
