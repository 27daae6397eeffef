#include "tools/parquet/encodings.h"

#include <algorithm>

#include "tools/parquet/thrift.h"

namespace parquet {
namespace {

constexpr size_t kPacked = 8;  // values of a packed group; a run that is shorter is packed
constexpr size_t kMini = 32, kMinisInBlock = 4;

// The lowest first.
template <size_t count>
void append_bytes(uint64_t value, std::string *out) {
    char bytes[count];
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(value >> 8 * i);
    out->append(bytes, count);
}

// Packs numbers, the lowest bit first.
class Packer {
  public:
    explicit Packer(std::string *out) : out_(*out) {}

    void put(uint64_t value, int width) {
        if (width > 32) put_part(value & 0xffffffff, 32);
        put_part(width > 32 ? value >> 32 : value, width > 32 ? width - 32 : width);
    }

    // Fills the last byte with zeros.
    void end() {
        for (; bits_ > 0; bits_ -= 8, kept_ >>= 8) append_bytes<1>(kept_, &out_);
        bits_ = 0;
    }

  private:
    // Up to 32 bits.
    void put_part(uint64_t value, int width) {
        kept_ |= value << bits_;
        bits_ += width;
        if (bits_ < 32) return;
        append_bytes<4>(kept_, &out_);
        kept_ >>= 32;
        bits_ -= 32;
    }

    std::string &out_;
    uint64_t kept_ = 0;
    int bits_ = 0;  // of kept_, below 32
};

size_t run_at(const std::vector<uint32_t> &values, size_t at) {
    size_t end = at + 1;
    while (end < values.size() && values[end] == values[at]) ++end;
    return end - at;
}

bool is_run(const std::vector<uint32_t> &values, size_t at) {
    if (values.size() - at < kPacked) return false;
    const auto begin = values.begin() + static_cast<std::ptrdiff_t>(at);
    return std::all_of(begin, begin + kPacked, [first = values[at]](uint32_t value) { return value == first; });
}

}  // namespace

int bits_for(uint64_t greatest) {
    int bits = 1;
    while (bits < 64 && greatest >> bits != 0) ++bits;
    return bits;
}

void append_plain(const std::vector<uint64_t> &values, std::string *out) {
    for (const uint64_t value : values) append_bytes<8>(value, out);
}

void append_runs(const std::vector<uint32_t> &values, int width, std::string *out) {
    for (size_t at = 0; at < values.size();) {
        if (is_run(values, at)) {
            const size_t run = run_at(values, at);
            append_varint(uint64_t{run} << 1, out);
            for (int shift = 0; shift < width; shift += 8) out->append(1, static_cast<char>(values[at] >> shift));
            at += run;
            continue;
        }
        size_t end = at;
        while (end < values.size() && !is_run(values, end)) end += kPacked;
        append_varint(uint64_t{(end - at) / kPacked} << 1 | 1, out);
        Packer packer(out);
        for (; at < end; ++at) packer.put(at < values.size() ? values[at] : 0, width);
        packer.end();
    }
}

void append_delta(const std::vector<uint64_t> &values, std::string *out) {
    append_varint(kMini * kMinisInBlock, out);
    append_varint(kMinisInBlock, out);
    append_varint(values.size(), out);
    append_varint(zigzag(static_cast<int64_t>(values.front())), out);
    std::vector<uint64_t> deltas;
    for (size_t at = 1; at < values.size();) {
        deltas.clear();
        for (; at < values.size() && deltas.size() < kMini * kMinisInBlock; ++at) {
            deltas.push_back(values[at] - values[at - 1]);
        }
        const auto less = [](uint64_t a, uint64_t b) { return static_cast<int64_t>(a) < static_cast<int64_t>(b); };
        const uint64_t least = *std::min_element(deltas.begin(), deltas.end(), less);
        append_varint(zigzag(static_cast<int64_t>(least)), out);
        for (uint64_t &delta : deltas) delta -= least;
        const size_t minis = (deltas.size() + kMini - 1) / kMini;
        deltas.resize(minis * kMini);
        int widths[kMinisInBlock] = {};
        for (size_t mini = 0; mini < minis; ++mini) {
            uint64_t bits = 0;
            for (size_t i = mini * kMini; i < (mini + 1) * kMini; ++i) bits |= deltas[i];
            widths[mini] = bits == 0 ? 0 : bits_for(bits);
        }
        for (const int width : widths) out->append(1, static_cast<char>(width));
        Packer packer(out);
        for (size_t i = 0; i < deltas.size(); ++i) packer.put(deltas[i], widths[i / kMini]);
        packer.end();
    }
}

}  // namespace parquet
