#include "tools/dump/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace vestra_dump {
namespace {

bool is_plain(char c) {
    return c >= ' ' && c <= '~' && c != '\\';
}

// Bytes of the well-formed UTF-8 character at the beginning, if it is neither ASCII nor a control character; else 0.
size_t character(std::string_view bytes) {
    const auto byte = [bytes](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    const uint8_t first = byte(0);
    const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : first >= 0xc2 ? 2 : 0;
    if (size == 0 || first > 0xf4 || bytes.size() < size) return 0;
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    const uint8_t second = byte(1);
    const bool too_long = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool surrogate = first == 0xed && second >= 0xa0;
    const bool too_great = first == 0xf4 && second >= 0x90;
    const bool control = first == 0xc2 && second < 0xa0;
    return too_long || surrogate || too_great || control ? 0 : size;
}

}  // namespace

void append_printable(std::string_view bytes, std::string *out) {
    static constexpr char kDigits[] = "0123456789abcdef";
    while (!bytes.empty()) {
        const auto special = std::find_if_not(bytes.begin(), bytes.end(), is_plain);
        out->append(bytes.begin(), special);
        bytes.remove_prefix(static_cast<size_t>(special - bytes.begin()));
        if (bytes.empty()) return;
        size_t taken = character(bytes);
        if (taken > 0) {
            out->append(bytes.substr(0, taken));
        } else {
            taken = 1;
            const auto value = static_cast<uint8_t>(bytes[0]);
            if (value == '\\') {
                out->append("\\\\");
            } else {
                out->append("\\x").append(1, kDigits[value >> 4]).append(1, kDigits[value & 15]);
            }
        }
        bytes.remove_prefix(taken);
    }
}

void append_plain(double number, std::string *out) {
    std::array<char, 1100> digits;  // the smallest number above 0 has 1,076 characters
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed);
    out->append(digits.data(), result.ptr);
}

std::string fixed(double value, int decimals) {
    std::array<char, 352> text{};  // the greatest double has 309 digits before the point
    const int size = std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return {text.data(), static_cast<size_t>(size)};
}

std::string printable(std::string_view bytes) {
    std::string text;
    append_printable(bytes, &text);
    return text;
}

}  // namespace vestra_dump
