// encodings.h -- the encodings of Parquet that the writer uses, without compression.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace parquet {

// The numbers of the file format.
enum class Encoding : int32_t { kPlain = 0, kRuns = 3, kDelta = 5, kDictionary = 8 };

// PLAIN: eight bytes each, the lowest first.
void append_plain(const std::vector<uint64_t> &values, std::string *out);

// RLE: runs of equal values, and groups of eight that are packed into `width` bits each, 1 to 32.
void append_runs(const std::vector<uint32_t> &values, int width, std::string *out);

// DELTA_BINARY_PACKED: differences, packed in blocks of 128. At least one value. Differences wrap.
void append_delta(const std::vector<uint64_t> &values, std::string *out);

// Bits that numbers up to `greatest` need, at least 1.
int bits_for(uint64_t greatest);

}  // namespace parquet
