#include "tools/dump/row_text.h"

#include "tools/dump/text.h"
#include "trace/percentages.h"

namespace vestra_dump {
namespace {

constexpr const char *kWallColumn = "wall_time";

void append_csv(const Value &value, std::string *out) {
    switch (value.kind) {
        case Value::kInteger:
            return append_number(value.integer, out);
        case Value::kReal:
            return append_plain(value.real, out);
        case Value::kText:
            break;
        default:
            return;
    }
    const std::string_view text = value.text;
    const bool blanks = !text.empty() && (text.front() == ' ' || text.back() == ' ');  // some readers strip them
    if (!blanks && text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out->append(text);
        return;
    }
    out->append(1, '"');
    for (const char c : text) out->append(c == '"' ? 2 : 1, c);
    out->append(1, '"');
}

// Texts of rows are UTF-8 without control characters; see Value.
void append_json(std::string_view text, std::string *out) {
    out->append(1, '"');
    for (const char c : text) {
        if (c == '"' || c == '\\') out->append(1, '\\');
        out->append(1, c);
    }
    out->append(1, '"');
}

void append_json(const Value &value, std::string *out) {
    switch (value.kind) {
        case Value::kInteger:
            return append_number(value.integer, out);
        case Value::kReal:
            return append_number(value.real, out);
        case Value::kText:
            return append_json(value.text, out);
        default:
            out->append("null");
    }
}

}  // namespace

bool WallText::append(const Row &row, size_t column, std::string *out) {
    if (column >= row.size() || row[column].kind != Value::kInteger) return false;
    const auto unix_ns = time_.unix_ns(row[column].integer);
    if (!unix_ns || *unix_ns < 0) return false;
    const int64_t second = *unix_ns / trace::kNsPerSecond;
    if (second != second_) {
        second_ = second;
        text_ = format_time(second * trace::kNsPerSecond);
        text_.resize(text_.find('.') + 1);  // an empty text stays empty
    }
    if (text_.empty()) return false;
    const auto ms = static_cast<int>(*unix_ns % trace::kNsPerSecond / 1000000);
    const char digits[] = {static_cast<char>('0' + ms / 100), static_cast<char>('0' + ms / 10 % 10),
                           static_cast<char>('0' + ms % 10), 'Z'};
    out->append(text_).append(digits, sizeof(digits));
    return true;
}

CsvWriter::CsvWriter(const Table &table, const DumpTime &time, Output &out)
    : wall_(time), out_(out), time_column_(table.time_column()) {
    std::string &text = out_.buffer();
    for (const Column &column : table.columns) {
        if (&column != table.columns.data()) text.append(1, ',');
        text.append(column.name);
    }
    if (time_column_ < table.columns.size()) text.append(1, ',').append(kWallColumn);
    text.append(1, '\n');
}

void CsvWriter::add(const Table & /*table*/, const Row &row) {
    std::string &text = out_.buffer();
    for (const Value &value : row) {
        if (&value != row.data()) text.append(1, ',');
        append_csv(value, &text);
    }
    if (time_column_ < row.size()) {
        text.append(1, ',');
        wall_.append(row, time_column_, &text);
    }
    text.append(1, '\n');
    out_.done();
}

void JsonWriter::add(const Table &table, const Row &row) {
    std::string &text = out_.buffer();
    text.append("{\"table\":\"").append(table.name).append(1, '"');
    for (size_t i = 0; i < row.size(); ++i) {
        if (row[i].kind == Value::kNothing) continue;
        text.append(",\"").append(table.columns[i].name).append("\":");
        append_json(row[i], &text);
    }
    const size_t before = text.size();
    text.append(",\"").append(kWallColumn).append("\":\"");
    if (wall_.append(row, table.time_column(), &text)) {
        text.append(1, '"');
    } else {
        text.resize(before);
    }
    text.append("}\n");
    out_.done();
}

}  // namespace vestra_dump
