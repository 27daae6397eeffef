#include "tools/view/canvas.h"

#include <wchar.h>

#include <algorithm>

namespace vestra_view {
namespace {

struct Glyph {
    char32_t character;
    int width;     // columns
    size_t bytes;  // of the text
};

// The character at the beginning of a text. The text should be UTF-8; any other bytes are '?'.
Glyph next_glyph(std::string_view text, bool utf8) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) return {first >= ' ' && first != 0x7f ? char32_t{first} : U'?', 1, 1};
    const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : first >= 0xc2 ? 2 : 1;
    if (size == 1 || text.size() < size) return {U'?', 1, 1};
    auto character = static_cast<char32_t>(first & (0x7f >> size));
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return {U'?', 1, 1};
        character = character << 6 | (byte(i) & 0x3fU);
    }
    // Marks that combine, and those that change the direction of the text, have no width.
    const int width = utf8 && character >= 0xa0 ? wcwidth(static_cast<wchar_t>(character)) : 0;
    return width == 1 || width == 2 ? Glyph{character, width, size} : Glyph{U'?', 1, size};
}

}  // namespace

Canvas::Canvas(int rows, int columns, bool utf8)
    : rows_(std::max(rows, 0)),
      columns_(std::max(columns, 0)),
      utf8_(utf8),
      cells_(static_cast<size_t>(rows_) * static_cast<size_t>(columns_)) {}

int Canvas::put(int row, int column, std::string_view text, Style style, int width) {
    if (row < 0 || row >= rows_ || column < 0) return 0;
    const int end = static_cast<int>(std::min<long>(columns_, static_cast<long>(column) + width));
    int at = column;
    while (!text.empty()) {
        const Glyph glyph = next_glyph(text, utf8_);
        if (at + glyph.width > end) break;
        cells_[index(row, at)] = {glyph.character, style};
        if (glyph.width == 2) cells_[index(row, at + 1)] = {0, style};
        at += glyph.width;
        text.remove_prefix(glyph.bytes);
    }
    return at - column;
}

void Canvas::put_right(int row, int column, int width, std::string_view text, Style style) {
    put(row, column + std::max(width - width_of(text, utf8_), 0), text, style, width);
}

void Canvas::paint(int row, int column, int width, Style style) {
    if (row < 0 || row >= rows_) return;
    for (int at = std::max(column, 0); at < std::min(columns_, column + width); ++at)
        cells_[index(row, at)].style = style;
}

int Canvas::width_of(std::string_view text, bool utf8) {
    int width = 0;
    while (!text.empty()) {
        const Glyph glyph = next_glyph(text, utf8);
        width += glyph.width;
        text.remove_prefix(glyph.bytes);
    }
    return width;
}

}  // namespace vestra_view
