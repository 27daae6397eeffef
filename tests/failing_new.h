// operator new of a test program, which can be told to fail.
#pragma once

#include <cstddef>
#include <cstdint>

namespace decoder_test {

// Allocations of exactly this size fail; those larger than that fail.
inline size_t failing_size = 0;
inline size_t failing_above = SIZE_MAX;

}  // namespace decoder_test
