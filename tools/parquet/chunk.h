// chunk.h -- the values of one column in one row group, as the pages of a file.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/parquet/encodings.h"

struct ZSTD_CCtx_s;

namespace parquet {

// kTimestamp: microseconds since 1970, UTC. kText: UTF-8.
enum class Type : uint8_t { kInteger, kReal, kText, kTimestamp };

// zstd. Not for several threads. Throws std::runtime_error if there is no memory.
class Compressor {
  public:
    Compressor();
    ~Compressor();
    Compressor(const Compressor &) = delete;
    Compressor &operator=(const Compressor &) = delete;

    std::string compress(std::string_view bytes);

  private:
    ZSTD_CCtx_s *context_;
};

// What a column chunk is made from.
struct Values {
    Type type;
    bool nullable;
    std::vector<uint64_t> known;  // in the order of rows: integers; bits of a double; places in `texts`
    std::vector<uint32_t> rows;   // for each row 1 if its value is known, else 0; used if nullable
    const std::vector<std::string_view> *texts = nullptr;  // in the order of their bytes
};

struct Chunk {
    std::string bytes;           // a dictionary page, if any, and a data page, with their headers
    size_t dictionary_size = 0;  // of the dictionary page, bytes; 0: there is none
    uint64_t uncompressed = 0;   // bytes, headers included
    size_t rows = 0, nulls = 0;
    std::optional<std::string> least, greatest;  // of the known values, encoded; nothing if there are none
    Encoding encoding = Encoding::kPlain;        // of the values
};

// Numbers are encoded in the two ways that suit them, and the smaller result is taken. A text always has a dictionary.
Chunk make_chunk(const Values &values, Compressor *compressor);

}  // namespace parquet
