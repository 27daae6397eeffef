// tables.h -- what a dump contains, as tables that are the same in CSV, JSON, SQLite and Parquet.
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
    std::string_view text;  // printable; must be valid until the row is written

    static Value of(int64_t value) { return {kInteger, value, 0, {}}; }
    static Value of_unsigned(uint64_t value);  // the greatest signed number for values beyond it
    static Value of(double value);             // nothing for values that are not finite
    static Value of(std::string_view value) { return {kText, 0, 0, value}; }
};

struct Column {
    const char *name;
    const char *type;       // in SQL
    bool nullable = false;  // may be unknown
};

struct Table {
    const char *name;
    std::vector<Column> columns;

    // Index of the column with the row's time; past the last if there is none.
    size_t time_column() const;
};

using Row = std::vector<Value>;

extern const Table kVitalsTable;     // one row for each second
extern const Table kProcessesTable;  // one row for each sample of a process
extern const Table kFramesTable;     // one row for each frame
extern const Table kDamageTable;     // one row for each damaged span
extern const Table kDumpsTable;      // one row for each dump; has no time

// Fill *row. `name` holds the printable name for it.
void fill_row(const SecondVitals &second, Row *row);
void fill_row(const SwitchSample &sample, const Process &process, std::string *name, Row *row);
void fill_row(const Frame &frame, size_t messages, Row *row);
void fill_row(const DamagedSpan &span, Row *row);

// Texts of a row that are made from a dump's.
struct VersionTexts {
    std::string build, model;
};
void fill_row(const Overview &overview, VersionTexts *texts, Row *row);

// Where rows go.
class RowSink {
  public:
    virtual ~RowSink() = default;
    virtual void add(const Table &table, const Row &row) = 0;
};

struct TableSelection {
    bool vitals = false, processes = false, frames = false, damage = false;

    bool any() const { return vitals || processes || frames || damage; }
};

// Makes the rows of the selected tables.
class RowMaker : public DumpSink {
  public:
    RowMaker(const TableSelection &tables, RowSink &sink) : tables_(tables), sink_(sink) {}

    void on_second(const SecondVitals &second) override;
    void on_process(const SwitchSample &sample, const Process &process) override;
    void on_frame(const Frame &frame, const FrameMessages &messages) override;
    void on_damage(const DamagedSpan &span) override;

  private:
    TableSelection tables_;
    RowSink &sink_;
    Row row_;
    std::string name_;
};

}  // namespace vestra_dump
