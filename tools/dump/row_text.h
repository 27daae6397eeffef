// row_text.h -- rows as CSV (RFC 4180, LF line ends) and as lines of JSON.
#pragma once

#include "tools/dump/output.h"
#include "tools/dump/tables.h"
#include "tools/dump/wall_clock.h"

namespace vestra_dump {

// Wall-clock times as text. The text of a second is made once for all rows in it.
class WallText {
  public:
    explicit WallText(const DumpTime &time) : time_(time) {}

    // Appends the time in a row's column. False if the row has no time or the epoch is not known.
    bool append(const Row &row, size_t column, std::string *out);

  private:
    const DumpTime &time_;
    int64_t second_ = -1;  // since 1970
    std::string text_;     // of the second, up to its point
};

// One table, with a header line. A table with times ends with a column for the wall-clock time, which is empty if the
// epoch is not known.
class CsvWriter : public RowSink {
  public:
    CsvWriter(const Table &table, const DumpTime &time, Output &out);
    void add(const Table &table, const Row &row) override;

  private:
    WallText wall_;
    Output &out_;
    size_t time_column_;
};

// Objects with the table's name under "table". Unknown values are left out.
class JsonWriter : public RowSink {
  public:
    JsonWriter(const DumpTime &time, Output &out) : wall_(time), out_(out) {}
    void add(const Table &table, const Row &row) override;

  private:
    WallText wall_;
    Output &out_;
};

}  // namespace vestra_dump
