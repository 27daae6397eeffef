// thrift.h -- writes structures in Thrift's compact protocol, in which Parquet keeps everything but the figures.
//
//   field      1 byte   difference to the last field's number << 4 | kind; the number follows if the difference is > 15
//   integers   zigzag, then 7 bits a byte, the lowest first; the last byte has bit 7 clear
//   text       its length in bytes, 7 bits a byte, then the bytes
//   list       1 byte   elements << 4 | kind; 15 << 4 | kind, then the number, for 15 and more
//   structure  its fields, then a byte 0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace parquet {

inline void append_varint(uint64_t value, std::string *out) {
    for (; value >= 0x80; value >>= 7) out->append(1, static_cast<char>(value | 0x80));
    out->append(1, static_cast<char>(value));
}

inline uint64_t zigzag(int64_t value) {
    return (static_cast<uint64_t>(value) << 1) ^ (value < 0 ? ~uint64_t{0} : 0);
}

// Appends one structure. Fields must come in the order of their numbers, which are 1 to 15.
class Thrift {
  public:
    enum Kind : uint8_t { kTrue = 1, kFalse = 2, kShort = 4, kInt = 5, kLong = 6, kText = 8, kList = 9, kStruct = 12 };

    explicit Thrift(std::string *out) : out_(*out) {}

    void number(int field, int64_t value, Kind kind = kInt) {
        begin_field(field, kind);
        append_varint(zigzag(value), &out_);
    }
    void text(int field, std::string_view value) {
        begin_field(field, kText);
        element(value);
    }
    void boolean(int field, bool value) { begin_field(field, value ? kTrue : kFalse); }

    // The elements follow: element(), or begin_element() to end() for structures.
    void list(int field, Kind kind, size_t elements) {
        begin_field(field, kList);
        out_.append(1, static_cast<char>((elements < 15 ? elements << 4 : 0xf0) | kind));
        if (elements >= 15) append_varint(elements, &out_);
    }
    void element(int32_t value) { append_varint(zigzag(value), &out_); }
    void element(std::string_view value) {
        append_varint(value.size(), &out_);
        out_.append(value);
    }
    void begin_element() { fields_.push_back(0); }

    // A structure in a field, whose own fields follow.
    void begin(int field) {
        begin_field(field, kStruct);
        fields_.push_back(0);
    }
    // Ends the innermost structure, at last the whole.
    void end() {
        out_.append(1, '\0');
        fields_.pop_back();
    }

  private:
    void begin_field(int field, Kind kind) {
        out_.append(1, static_cast<char>(static_cast<unsigned>(field - fields_.back()) << 4 | kind));
        fields_.back() = field;
    }

    std::string &out_;
    std::vector<int> fields_ = {0};  // the last field of each structure that is open
};

}  // namespace parquet
