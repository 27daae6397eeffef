// text.h -- numbers as text, and texts from a dump in a harmless form.
#pragma once

#include <array>
#include <charconv>
#include <string>
#include <string_view>

namespace vestra_dump {

// Names in a dump are any bytes. The result is UTF-8 without control characters: a byte that is not part of UTF-8, and
// each byte of a control character, becomes \xNN, and a backslash is doubled. So nothing is lost, and the text is safe in
// a terminal, a table, JSON or SQL.
std::string printable(std::string_view bytes);
void append_printable(std::string_view bytes, std::string *out);

// The shortest text that reads back as the same number.
template <class Number>
void append_number(Number number, std::string *out) {
    std::array<char, 32> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    out->append(digits.data(), result.ptr);
}

// The same without an exponent.
void append_plain(double number, std::string *out);

// With that many digits after the point.
std::string fixed(double value, int decimals);

}  // namespace vestra_dump
