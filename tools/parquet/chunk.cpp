#include "tools/parquet/chunk.h"

#include <zstd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tools/parquet/thrift.h"

namespace parquet {
namespace {

constexpr int kLevel = 3;
constexpr size_t kDistinctMax = size_t{1} << 15;  // of a dictionary of numbers
constexpr int kDictionaryPage = 2, kDataPageV2 = 3;

double to_double(uint64_t bits) {
    double value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

uint64_t to_bits(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

struct Dictionary {
    std::vector<uint64_t> entries;
    std::vector<uint32_t> indices;  // of each value in entries
};

// False if there are too many different values for a dictionary to be worth its bytes.
bool collect(const std::vector<uint64_t> &values, Dictionary *dictionary) {
    static constexpr size_t kSlots = 2 * kDistinctMax;
    const size_t most = std::min(values.size() / 2 + 1, kDistinctMax);
    std::vector<uint32_t> slots(kSlots);  // index + 1; 0: free
    dictionary->indices.reserve(values.size());
    for (const uint64_t value : values) {
        uint64_t hash = value * 0x9e3779b97f4a7c15U;
        hash ^= hash >> 32;
        size_t slot = static_cast<size_t>(hash % kSlots);
        while (slots[slot] != 0 && dictionary->entries[slots[slot] - 1] != value) slot = (slot + 1) % kSlots;
        if (slots[slot] == 0) {
            if (dictionary->entries.size() == most) return false;
            dictionary->entries.push_back(value);
            slots[slot] = static_cast<uint32_t>(dictionary->entries.size());
        }
        dictionary->indices.push_back(slots[slot] - 1);
    }
    return true;
}

void append_text(std::string_view text, std::string *out) {
    for (int shift = 0; shift < 32; shift += 8) out->append(1, static_cast<char>(uint64_t{text.size()} >> shift));
    out->append(text);
}

// The texts that occur, in the order of their bytes.
Dictionary collect_texts(const Values &values, std::string *page) {
    std::vector<uint32_t> places(values.texts->size());
    for (const uint64_t place : values.known) places[static_cast<size_t>(place)] = 1;
    Dictionary dictionary;
    for (size_t place = 0; place < places.size(); ++place) {
        if (places[place] == 0) continue;
        places[place] = static_cast<uint32_t>(dictionary.entries.size());
        dictionary.entries.push_back(place);
        append_text((*values.texts)[place], page);
    }
    for (const uint64_t place : values.known) dictionary.indices.push_back(places[static_cast<size_t>(place)]);
    return dictionary;
}

void add_page(Thrift *header, int kind, size_t plain, size_t stored) {
    header->number(1, kind);
    header->number(2, static_cast<int64_t>(plain));
    header->number(3, static_cast<int64_t>(stored));
}

void append_dictionary_page(const std::string &page, size_t entries, bool sorted, Compressor *compressor,
                            Chunk *chunk) {
    const std::string stored = compressor->compress(page);
    Thrift header(&chunk->bytes);
    add_page(&header, kDictionaryPage, page.size(), stored.size());
    header.begin(7);
    header.number(1, static_cast<int64_t>(entries));
    header.number(2, static_cast<int64_t>(Encoding::kPlain));
    header.boolean(3, sorted);
    header.end();
    header.end();
    chunk->uncompressed = chunk->bytes.size() + page.size();
    chunk->bytes += stored;
    chunk->dictionary_size = chunk->bytes.size();
}

void append_data_page(const Values &values, const std::string &page, Compressor *compressor, Chunk *chunk) {
    std::string levels;
    if (values.nullable) append_runs(values.rows, 1, &levels);
    const std::string compressed = compressor->compress(page);
    const bool smaller = compressed.size() < page.size();
    const std::string &stored = smaller ? compressed : page;
    const size_t before = chunk->bytes.size();
    Thrift header(&chunk->bytes);
    add_page(&header, kDataPageV2, levels.size() + page.size(), levels.size() + stored.size());
    header.begin(8);
    header.number(1, static_cast<int64_t>(chunk->rows));
    header.number(2, static_cast<int64_t>(chunk->nulls));
    header.number(3, static_cast<int64_t>(chunk->rows));
    header.number(4, static_cast<int64_t>(chunk->encoding));
    header.number(5, static_cast<int64_t>(levels.size()));  // definition levels
    header.number(6, 0);                                    // repetition levels
    header.boolean(7, smaller);
    header.end();
    header.end();
    chunk->uncompressed += chunk->bytes.size() - before + levels.size() + page.size();
    chunk->bytes.append(levels).append(stored);
}

Chunk with_dictionary(const Values &values, const Dictionary &dictionary, const std::string &page, Chunk chunk,
                      Compressor *compressor) {
    const int width = bits_for(dictionary.entries.size() - 1);
    std::string indices(1, static_cast<char>(width));
    append_runs(dictionary.indices, width, &indices);
    chunk.encoding = Encoding::kDictionary;
    append_dictionary_page(page, dictionary.entries.size(), values.type == Type::kText, compressor, &chunk);
    append_data_page(values, indices, compressor, &chunk);
    return chunk;
}

std::string encoded(uint64_t value) {
    std::string bytes;
    append_plain({value}, &bytes);
    return bytes;
}

void find_extremes(const Values &values, Chunk *chunk) {
    if (values.known.empty()) return;
    const auto extremes = [&values](const auto &less) {
        const auto [least, greatest] = std::minmax_element(values.known.begin(), values.known.end(), less);
        return std::pair(*least, *greatest);
    };
    if (values.type == Type::kText) {
        const auto [least, greatest] = extremes([](uint64_t a, uint64_t b) { return a < b; });
        chunk->least = (*values.texts)[static_cast<size_t>(least)];
        chunk->greatest = (*values.texts)[static_cast<size_t>(greatest)];
    } else if (values.type == Type::kReal) {
        const auto [least, greatest] = extremes([](uint64_t a, uint64_t b) { return to_double(a) < to_double(b); });
        // Readers must not be misled by the sign of a zero.
        chunk->least = encoded(to_double(least) == 0 ? to_bits(-0.0) : least);
        chunk->greatest = encoded(to_double(greatest) == 0 ? to_bits(0.0) : greatest);
    } else {
        const auto [least, greatest] =
            extremes([](uint64_t a, uint64_t b) { return static_cast<int64_t>(a) < static_cast<int64_t>(b); });
        chunk->least = encoded(least);
        chunk->greatest = encoded(greatest);
    }
}

}  // namespace

Compressor::Compressor() : context_(ZSTD_createCCtx()) {
    if (context_ == nullptr) throw std::runtime_error("no memory for zstd");
}

Compressor::~Compressor() {
    ZSTD_freeCCtx(context_);
}

std::string Compressor::compress(std::string_view bytes) {
    std::string out(ZSTD_compressBound(bytes.size()), '\0');
    const size_t size = ZSTD_compressCCtx(context_, out.data(), out.size(), bytes.data(), bytes.size(), kLevel);
    if (ZSTD_isError(size) != 0) throw std::runtime_error(std::string("zstd: ") + ZSTD_getErrorName(size));
    out.resize(size);
    return out;
}

Chunk make_chunk(const Values &values, Compressor *compressor) {
    Chunk chunk;
    chunk.rows = values.nullable ? values.rows.size() : values.known.size();
    chunk.nulls = chunk.rows - values.known.size();
    find_extremes(values, &chunk);
    std::string page;
    if (values.known.empty()) {
        append_data_page(values, page, compressor, &chunk);
        return chunk;
    }
    if (values.type == Type::kText) {
        const Dictionary texts = collect_texts(values, &page);
        return with_dictionary(values, texts, page, std::move(chunk), compressor);
    }
    Chunk direct = chunk;
    if (values.type == Type::kReal) {
        append_plain(values.known, &page);
    } else {
        append_delta(values.known, &page);
        direct.encoding = Encoding::kDelta;
    }
    append_data_page(values, page, compressor, &direct);
    Dictionary dictionary;
    if (!collect(values.known, &dictionary)) return direct;
    page.clear();
    append_plain(dictionary.entries, &page);
    Chunk indirect = with_dictionary(values, dictionary, page, std::move(chunk), compressor);
    return indirect.bytes.size() < direct.bytes.size() ? indirect : direct;
}

}  // namespace parquet
