// writer.h -- writes one table as a Parquet file, with what Parquet 2 has for small files: data pages of version 2,
// dictionaries, delta encoding, zstd, and statistics by which a reader leaves out what it does not need.
//
//   parquet::Writer writer({{{"time", Type::kInteger}, {"percent", Type::kReal, true}}, {0}}, sink);
//   writer.add_integer(5);
//   writer.add_nothing();
//   ...
//   writer.finish("program version 1", {{"key", "value"}});
//
// Memory is bounded by Layout::rows_in_group. One thread. The same rows make the same bytes.
//
// The file: "PAR1", for each row group a chunk of each column (chunk.h), then the footer, a Thrift structure that has the
// schema, and the places and statistics of all chunks; its length, 4 bytes, the lowest first; and "PAR1".
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/parquet/chunk.h"

namespace parquet {

struct Column {
    std::string name;
    Type type;
    bool nullable = false;
};

struct Layout {
    std::vector<Column> columns;
    // Up to kSortedMax columns, the first counts most; integers or texts that are never unknown.
    std::vector<size_t> sorted_by;
    // Rows of a row group, at most. They are sorted together, and in memory: eight bytes for each cell, and as many again
    // for four columns while they are written.
    size_t rows_in_group = size_t{1} << 17;

    static constexpr size_t kSortedMax = 3;
};

using Metadata = std::vector<std::pair<std::string, std::string>>;

class Writer {
  public:
    // `sink` gets all bytes of the file, in order.
    Writer(Layout layout, std::function<void(std::string_view)> sink);

    // The cells of the rows, from left to right. The kind must be that of the column. A timestamp is an integer.
    void add_nothing() { add_cell(0, 0); }
    void add_integer(int64_t value) { add_cell(static_cast<uint64_t>(value), 1); }
    void add_real(double value);  // finite
    void add_text(std::string_view value);

    void finish(std::string_view program, const Metadata &metadata);

  private:
    // A column's cells that are not written yet.
    struct Cells {
        std::vector<uint64_t> values;  // as in Values; texts in the order of their appearance
        std::vector<uint8_t> known;    // of a column that is nullable
        std::deque<std::string> texts;
        std::unordered_map<std::string_view, uint64_t> places;  // in texts
        std::vector<std::string_view> sorted;                   // texts, when cells are written
    };

    void add_cell(uint64_t value, uint8_t known);
    static void sort_texts(Cells *cells);
    std::vector<uint32_t> order() const;
    void write_group();
    void describe(const std::vector<Chunk> &chunks, size_t rows);
    void write(std::string_view bytes);

    static constexpr size_t kTextMax = size_t{4} << 20;  // bytes of different texts in memory
    static constexpr size_t kTextCost = 128;             // bytes of one of them, apart from its characters

    const Layout layout_;
    std::function<void(std::string_view)> sink_;
    std::vector<Cells> cells_;  // by column
    size_t column_ = 0;         // of the next cell
    size_t text_bytes_ = 0;     // of all texts in memory
    Compressor compressor_;
    uint64_t written_ = 0;    // bytes
    uint64_t rows_ = 0;       // written
    std::string groups_;      // of the footer
    size_t group_count_ = 0;  //
};

// Whether the file, made by a Writer, has that metadata. False for what is no such file or cannot be read.
bool has_metadata(const std::string &path, const Metadata &metadata);

}  // namespace parquet
