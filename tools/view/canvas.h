// canvas.h -- a screen of character cells in memory.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vestra_view {

enum class Style : unsigned char { kPlain, kTitle, kFaint, kCursor, kWarning, kAlarm };

struct Cell {
    char32_t character = U' ';  // 0: the right half of the one before
    Style style = Style::kPlain;
};

// What is outside of it is cut off. Without `utf8`, it holds ASCII only. It never holds a control character, or one that
// a terminal would not advance for: those become '?'.
class Canvas {
  public:
    Canvas(int rows, int columns, bool utf8);

    int rows() const { return rows_; }
    int columns() const { return columns_; }
    bool utf8() const { return utf8_; }
    const Cell &at(int row, int column) const { return cells_[index(row, column)]; }

    // Writes UTF-8 text in at most `width` columns and returns how many it took.
    int put(int row, int column, std::string_view text, Style style = Style::kPlain, int width = 1 << 20);
    // The same, with its end at column + width - 1.
    void put_right(int row, int column, int width, std::string_view text, Style style = Style::kPlain);
    // Styles cells that are there.
    void paint(int row, int column, int width, Style style);

    static int width_of(std::string_view text, bool utf8);

  private:
    size_t index(int row, int column) const {
        return static_cast<size_t>(row) * static_cast<size_t>(columns_) + static_cast<size_t>(column);
    }

    int rows_, columns_;
    bool utf8_;
    std::vector<Cell> cells_;
};

}  // namespace vestra_view
