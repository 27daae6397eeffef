// tables.h -- what a dump holds as four tables, the same in CSV, JSON and SQLite.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "tools/dump/summary.h"

namespace vestra_dump {

// One cell.
struct Value {
    enum Kind : uint8_t { kNothing, kInteger, kReal, kText } kind = kNothing;
    int64_t integer = 0;
    double real = 0;
    std::string_view text;  // harmless, or printable() made it so; lives until the row is written

    static Value of(int64_t value) { return {kInteger, value, 0, {}}; }
    static Value of_unsigned(uint64_t value);  // the greatest signed number for what is beyond it
    static Value of(double value);             // nothing for what is not finite
    static Value of(std::string_view value) { return {kText, 0, 0, value}; }
};

struct Column {
    const char *name;
    const char *type;  // of SQL
};

struct Table {
    const char *name;
    std::vector<Column> columns;
};

using Row = std::vector<Value>;

extern const Table kVitalsTable;     // one row a second
extern const Table kProcessesTable;  // one row a sample of a process
extern const Table kFramesTable;     // one row a frame
extern const Table kDamageTable;     // one row a damaged span

// Each fills *row. `name` holds the printable name meanwhile.
void fill_row(const Second &second, Row *row);
void fill_row(const SwitchSample &sample, const Usage &usage, std::string *name, Row *row);
void fill_row(const Frame &frame, Row *row);
void fill_row(const DamagedSpan &span, Row *row);

// Where rows go.
class RowSink {
  public:
    virtual ~RowSink() = default;
    virtual void add(const Table &table, const Row &row) = 0;
};

struct Wanted {
    bool vitals = false, processes = false, frames = false, damage = false;

    bool any() const { return vitals || processes || frames || damage; }
};

// Makes the wanted rows of a dump, and its summary besides.
class RowMaker : public Summariser {
  public:
    RowMaker(std::string path, const DumpTime &time, size_t top, const Wanted &wanted, RowSink &sink);

    void on_second(const Second &second) override;
    void on_process(const SwitchSample &sample, const Usage &usage) override;
    void on_frame(const Frame &frame) override;
    void on_damage(const DamagedSpan &span) override;

  private:
    TimeRange range_;
    Wanted wanted_;
    RowSink &sink_;
    Row row_;
    std::string name_;
};

}  // namespace vestra_dump
