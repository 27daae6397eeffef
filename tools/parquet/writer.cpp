#include "tools/parquet/writer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <numeric>

#include "tools/parquet/thrift.h"

namespace parquet {
namespace {

constexpr std::string_view kMagic = "PAR1";
constexpr size_t kTailSize = 4 + 4;  // length of the footer, magic
constexpr int kZstd = 6;             // the codec

// Numbers of the file format.
int physical(Type type) {
    return type == Type::kText ? 6 : type == Type::kReal ? 5 : 2;
}

void add_schema(Thrift *footer, const std::vector<Column> &columns) {
    footer->list(2, Thrift::kStruct, columns.size() + 1);
    footer->begin_element();
    footer->text(4, "row");
    footer->number(5, static_cast<int64_t>(columns.size()));
    footer->end();
    for (const Column &column : columns) {
        footer->begin_element();
        footer->number(1, physical(column.type));
        footer->number(3, column.nullable ? 1 : 0);
        footer->text(4, column.name);
        if (column.type == Type::kText) {
            footer->number(6, 0);  // what readers had before logical types: UTF-8
            footer->begin(10);
            footer->begin(1);  // a string
            footer->end();
            footer->end();
        } else if (column.type == Type::kTimestamp) {
            footer->number(6, 10);  // microseconds
            footer->begin(10);
            footer->begin(8);
            footer->boolean(1, true);  // UTC
            footer->begin(2);
            footer->begin(2);  // microseconds
            footer->end();
            footer->end();
            footer->end();
            footer->end();
        }
        footer->end();
    }
}

void add_chunk(Thrift *footer, const Column &column, const Chunk &chunk, uint64_t place) {
    const auto data = static_cast<int64_t>(place + chunk.dictionary_size);
    footer->begin_element();
    footer->number(2, static_cast<int64_t>(place), Thrift::kLong);
    footer->begin(3);
    footer->number(1, physical(column.type));
    footer->list(2, Thrift::kInt, chunk.dictionary_size > 0 ? 3 : 2);
    footer->element(static_cast<int32_t>(Encoding::kRuns));  // of levels
    footer->element(static_cast<int32_t>(chunk.encoding));
    if (chunk.dictionary_size > 0) footer->element(static_cast<int32_t>(Encoding::kPlain));
    footer->list(3, Thrift::kText, 1);
    footer->element(column.name);
    footer->number(4, kZstd);
    footer->number(5, static_cast<int64_t>(chunk.rows), Thrift::kLong);
    footer->number(6, static_cast<int64_t>(chunk.uncompressed), Thrift::kLong);
    footer->number(7, static_cast<int64_t>(chunk.bytes.size()), Thrift::kLong);
    footer->number(9, data, Thrift::kLong);
    if (chunk.dictionary_size > 0) footer->number(11, static_cast<int64_t>(place), Thrift::kLong);
    footer->begin(12);
    footer->number(3, static_cast<int64_t>(chunk.nulls), Thrift::kLong);
    if (chunk.greatest) footer->text(5, *chunk.greatest);
    if (chunk.least) footer->text(6, *chunk.least);
    footer->end();
    footer->end();
    footer->end();
}

std::string key_value(const std::pair<std::string, std::string> &pair) {
    std::string bytes;
    Thrift entry(&bytes);
    entry.text(1, pair.first);
    entry.text(2, pair.second);
    entry.end();
    return bytes;
}

std::string tail(size_t footer) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) bytes.append(1, static_cast<char>(uint64_t{footer} >> shift));
    return bytes.append(kMagic);
}

}  // namespace

Writer::Writer(Layout layout, std::function<void(std::string_view)> sink)
    : layout_(std::move(layout)), sink_(std::move(sink)), cells_(layout_.columns.size()) {
    write(kMagic);
}

void Writer::write(std::string_view bytes) {
    written_ += bytes.size();
    sink_(bytes);
}

void Writer::add_real(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    add_cell(bits, 1);
}

void Writer::add_text(std::string_view value) {
    Cells &cells = cells_[column_];
    auto found = cells.places.find(value);
    if (found == cells.places.end()) {
        cells.texts.emplace_back(value);
        text_bytes_ += value.size() + kTextCost;
        found = cells.places.emplace(cells.texts.back(), cells.texts.size() - 1).first;
    }
    add_cell(found->second, 1);
}

void Writer::add_cell(uint64_t value, uint8_t known) {
    Cells &cells = cells_[column_];
    cells.values.push_back(value);
    if (layout_.columns[column_].nullable) cells.known.push_back(known);
    if (++column_ < cells_.size()) return;
    column_ = 0;
    if (cells.values.size() >= layout_.rows_in_group || text_bytes_ >= kTextMax) write_group();
}

// Replaces the places of texts by those in the order of their bytes.
void Writer::sort_texts(Cells *cells) {
    cells->sorted.assign(cells->texts.begin(), cells->texts.end());
    std::sort(cells->sorted.begin(), cells->sorted.end());
    std::vector<uint64_t> place(cells->texts.size());
    for (size_t i = 0; i < place.size(); ++i) place[static_cast<size_t>(cells->places[cells->sorted[i]])] = i;
    for (uint64_t &value : cells->values) value = place.empty() ? 0 : place[static_cast<size_t>(value)];
}

// The rows in memory in the order of the file.
std::vector<uint32_t> Writer::order() const {
    struct Key {
        std::array<int64_t, Layout::kSortedMax> cells;
        uint32_t row;

        bool operator<(const Key &other) const {
            size_t i = 0;
            while (i < cells.size() && cells[i] == other.cells[i]) ++i;
            return i < cells.size() ? cells[i] < other.cells[i] : row < other.row;
        }
    };
    std::vector<uint32_t> rows(cells_.front().values.size());
    std::iota(rows.begin(), rows.end(), 0);
    if (layout_.sorted_by.empty()) return rows;
    std::vector<Key> keys(rows.size(), Key{});
    for (size_t i = 0; i < layout_.sorted_by.size(); ++i) {
        const std::vector<uint64_t> &values = cells_[layout_.sorted_by[i]].values;
        for (const uint32_t row : rows) keys[row].cells[i] = static_cast<int64_t>(values[row]);
    }
    for (const uint32_t row : rows) keys[row].row = row;
    std::sort(keys.begin(), keys.end());
    std::transform(keys.begin(), keys.end(), rows.begin(), [](const Key &key) { return key.row; });
    return rows;
}

void Writer::write_group() {
    for (size_t i = 0; i < cells_.size(); ++i) {
        if (layout_.columns[i].type == Type::kText) sort_texts(&cells_[i]);
    }
    const std::vector<uint32_t> rows = order();
    std::vector<Chunk> chunks;
    Values values;
    for (size_t i = 0; i < cells_.size(); ++i) {
        Cells &cells = cells_[i];
        values.type = layout_.columns[i].type;
        values.nullable = layout_.columns[i].nullable;
        values.texts = &cells.sorted;
        values.known.resize(rows.size());
        values.rows.clear();
        if (values.nullable) {
            size_t known = 0;
            for (const uint32_t row : rows) {
                values.known[known] = cells.values[row];
                known += cells.known[row];
                values.rows.push_back(cells.known[row]);
            }
            values.known.resize(known);
        } else {
            std::transform(rows.begin(), rows.end(), values.known.begin(),
                           [&cells](uint32_t row) { return cells.values[row]; });
        }
        chunks.push_back(make_chunk(values, &compressor_));
        cells.values.clear();
        cells.known.clear();
        cells.places.clear();
        cells.texts.clear();
    }
    text_bytes_ = 0;
    describe(chunks, rows.size());
    for (const Chunk &chunk : chunks) write(chunk.bytes);
}

// Adds a row group that begins here to the footer.
void Writer::describe(const std::vector<Chunk> &chunks, size_t rows) {
    const auto begin = static_cast<int64_t>(written_);
    uint64_t uncompressed = 0, place = written_;
    Thrift group(&groups_);
    group.list(1, Thrift::kStruct, chunks.size());
    for (size_t i = 0; i < chunks.size(); ++i) {
        add_chunk(&group, layout_.columns[i], chunks[i], place);
        uncompressed += chunks[i].uncompressed;
        place += chunks[i].bytes.size();
    }
    group.number(2, static_cast<int64_t>(uncompressed), Thrift::kLong);
    group.number(3, static_cast<int64_t>(rows), Thrift::kLong);
    if (!layout_.sorted_by.empty()) {
        group.list(4, Thrift::kStruct, layout_.sorted_by.size());
        for (const size_t column : layout_.sorted_by) {
            group.begin_element();
            group.number(1, static_cast<int64_t>(column));
            group.boolean(2, false);  // descending
            group.boolean(3, false);  // unknown values first
            group.end();
        }
    }
    group.number(5, begin, Thrift::kLong);
    group.number(6, static_cast<int64_t>(place) - begin, Thrift::kLong);
    group.end();
    ++group_count_;
    rows_ += rows;
}

void Writer::finish(std::string_view program, const Metadata &metadata) {
    if (!cells_.front().values.empty()) write_group();
    std::string bytes;
    Thrift footer(&bytes);
    footer.number(1, 2);  // version of the format
    add_schema(&footer, layout_.columns);
    footer.number(3, static_cast<int64_t>(rows_), Thrift::kLong);
    footer.list(4, Thrift::kStruct, group_count_);
    bytes += groups_;
    footer.list(5, Thrift::kStruct, metadata.size());
    for (const auto &pair : metadata) bytes += key_value(pair);
    footer.text(6, program);
    footer.list(7, Thrift::kStruct, layout_.columns.size());
    for (size_t i = 0; i < layout_.columns.size(); ++i) {
        footer.begin_element();
        footer.begin(1);  // statistics are in the order of the type
        footer.end();
        footer.end();
    }
    footer.end();
    write(bytes);
    write(tail(bytes.size()));
}

bool has_metadata(const std::string &path, const Metadata &metadata) {
    static constexpr size_t kFooterMax = size_t{1} << 20;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = file.tellg();
    if (!file || size < 0) return false;
    const auto most = static_cast<std::streamoff>(kFooterMax + kTailSize);
    std::string end(static_cast<size_t>(std::min(size, most)), '\0');
    file.seekg(size - static_cast<std::streamoff>(end.size()));
    if (!file.read(end.data(), static_cast<std::streamsize>(end.size())) || end.size() < kTailSize) return false;
    uint64_t footer = 0;
    for (size_t i = 0; i < 4; ++i) footer |= uint64_t{static_cast<uint8_t>(end[end.size() - kTailSize + i])} << 8 * i;
    if (end.substr(end.size() - kMagic.size()) != kMagic || footer > end.size() - kTailSize) return false;
    const std::string_view bytes =
        std::string_view(end).substr(end.size() - kTailSize - static_cast<size_t>(footer), static_cast<size_t>(footer));
    return std::all_of(metadata.begin(), metadata.end(),
                       [bytes](const auto &pair) { return bytes.find(key_value(pair)) != std::string_view::npos; });
}

}  // namespace parquet
