// Shared by the fuzz targets. Each target runs in its own simulated set. Every line that the daemon logs is formatted
// but not written. A broken rule ends the program.
//
// A target defines prepare() and LLVMFuzzerTestOneInput. Inputs are independent: the state is reset after each.
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

// Number of open descriptors. Code that leaks none leaves it unchanged.
int open_descriptors();

// True if child processes run for this input. A child takes longer than a hundred inputs, so few inputs qualify: those
// that begin with '!', which is not part of the tested data, and whose sum of bytes is divisible by 64.
bool runs_commands(std::string_view input);

// Reports the broken rule and its place, and aborts: the input is a finding.
[[noreturn]] void broken(const char *rule, const char *file, int line);

}  // namespace vestra_fuzz

#define FUZZ_RULE(holds, rule)                                                \
    do {                                                                      \
        if (!(holds)) ::vestra_fuzz::broken((rule), __FILE_NAME__, __LINE__); \
    } while (0)
