#include "tools/dump/database.h"

#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

// In the header of the SQLite file: that it is ours, and the version of the tables below.
constexpr int64_t kApplication = 0x56534444;  // "VSDD"
constexpr int64_t kVersion = 2;

constexpr const Table *kTables[] = {&kVitalsTable, &kProcessesTable, &kFramesTable, &kDamageTable};

constexpr const char *kViews = R"(
CREATE VIEW IF NOT EXISTS seconds AS
  SELECT d.file, d.model, d.build,
         strftime('%Y-%m-%dT%H:%M:%SZ', (v.second * 1000000000 + d.epoch_ns) / 1000000000, 'unixepoch') AS wall_time, v.*
  FROM vitals v JOIN dumps d USING (dump_id);
CREATE VIEW IF NOT EXISTS top_cpu AS
  SELECT dump_id, pid, name, sum(used_ticks) / 250.0 AS cpu_seconds,
         max(cpu_total) AS peak_percent, count(*) AS samples
  FROM processes GROUP BY dump_id, pid, name ORDER BY cpu_seconds DESC;
CREATE VIEW IF NOT EXISTS top_memory AS
  SELECT dump_id, pid, name, max(rss_kib) AS peak_rss_kib, max(swap_kib) AS peak_swap_kib,
         max(rss_kib) - min(rss_kib) AS growth_kib, count(*) AS samples
  FROM processes GROUP BY dump_id, pid, name ORDER BY peak_rss_kib DESC;
)";

constexpr const char *kIndices = R"(
CREATE INDEX IF NOT EXISTS vitals_by_second ON vitals(dump_id, second);
CREATE INDEX IF NOT EXISTS processes_by_pid ON processes(dump_id, pid, time_ns);
CREATE INDEX IF NOT EXISTS processes_by_name ON processes(name, dump_id, time_ns);
CREATE INDEX IF NOT EXISTS frames_by_offset ON frames(dump_id, "offset");
CREATE INDEX IF NOT EXISTS damage_by_offset ON damage(dump_id, "offset");
)";

// A column may be named like a word of SQL.
std::string quoted(const char *name) {
    return std::string("\"") + name + '"';
}

std::string create_table(const Table &table) {
    const char *const key = &table == &kDumpsTable ? "(dump_id INTEGER PRIMARY KEY, file TEXT NOT NULL"
                                                   : "(dump_id INTEGER NOT NULL REFERENCES dumps(dump_id)";
    std::string sql = std::string("CREATE TABLE IF NOT EXISTS ") + table.name + key;
    for (const Column &column : table.columns) sql += ", " + quoted(column.name) + ' ' + column.type;
    return sql + ')';
}

std::string insert_into(const Table &table) {
    std::string sql = std::string("INSERT INTO ") + table.name + " VALUES(?";
    for (size_t i = 0; i < table.columns.size(); ++i) sql += ",?";
    return sql + ')';
}

}  // namespace

void Database::fail() {
    throw DatabaseError(sqlite3_errmsg(db_.get()));
}

void Database::check(int result) {
    if (result != SQLITE_OK) fail();
}

void Database::run_sql(const std::string &sql) {
    check(sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr));
}

Database::Statement Database::prepare(const std::string &sql) {
    sqlite3_stmt *statement = nullptr;
    check(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &statement, nullptr));
    return Statement(statement);
}

void Database::step(sqlite3_stmt *statement) {
    const int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    if (result != SQLITE_DONE && result != SQLITE_ROW) fail();
}

int64_t Database::query(const std::string &sql) {
    const Statement statement = prepare(sql);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) fail();
    return sqlite3_column_int64(statement.get(), 0);
}

Database::Database(const std::string &path) {
    sqlite3 *db = nullptr;
    const int result = sqlite3_open(path.c_str(), &db);
    db_.reset(db);
    if (db == nullptr) throw DatabaseError("no memory");
    check(result);
    sqlite3_busy_timeout(db, 10000);       // ms, for another load into the same file
    run_sql("PRAGMA cache_size = -8192");  // KiB
    run_sql("BEGIN IMMEDIATE");
    if (query("SELECT count(*) FROM sqlite_schema") == 0) {
        run_sql("PRAGMA application_id = " + std::to_string(kApplication));
        run_sql("PRAGMA user_version = " + std::to_string(kVersion));
    } else if (query("PRAGMA application_id") != kApplication || query("PRAGMA user_version") != kVersion) {
        throw DatabaseError("a database of another program, or of another version of this one");
    }
    run_sql(create_table(kDumpsTable));
    for (const Table *table : kTables) run_sql(create_table(*table));
    run_sql(kViews);
    run_sql("COMMIT");
    for (const Table *table : kTables) inserts_[table] = prepare(insert_into(*table));
}

Database::~Database() {
    inserts_.clear();  // before the connection that they belong to
}

void Database::begin_dump(const std::string &name) {
    run_sql("BEGIN IMMEDIATE");
    const auto with_text = [this](const std::string &sql, const std::string &text) {
        const Statement statement = prepare(sql);
        check(sqlite3_bind_text(statement.get(), 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
        step(statement.get());
    };
    const std::string file = printable(name);
    if (!name.empty()) {
        for (const Table *table : kTables) {
            with_text(std::string("DELETE FROM ") + table->name +
                          " WHERE dump_id IN (SELECT dump_id FROM dumps WHERE file = ?)",
                      file);
        }
        with_text("DELETE FROM dumps WHERE file = ?", file);
    }
    with_text("INSERT INTO dumps(file) VALUES(?)", file.empty() ? "-" : file);
    dump_ = sqlite3_last_insert_rowid(db_.get());
}

void Database::bind(sqlite3_stmt *statement, int place, const Value &value) {
    int result = SQLITE_OK;
    switch (value.kind) {
        case Value::kInteger:
            result = sqlite3_bind_int64(statement, place, value.integer);
            break;
        case Value::kReal:
            result = sqlite3_bind_double(statement, place, value.real);
            break;
        case Value::kText:
            result = sqlite3_bind_text(statement, place, value.text.data(), static_cast<int>(value.text.size()),
                                       SQLITE_STATIC);
            break;
        default:
            result = sqlite3_bind_null(statement, place);
    }
    check(result);
}

void Database::add(const Table &table, const Row &row) {
    sqlite3_stmt *insert = inserts_.at(&table).get();
    int place = 1;
    bind(insert, place, Value::of(dump_));
    for (const Value &value : row) bind(insert, ++place, value);
    step(insert);
}

void Database::end_dump(const Overview &overview) {
    VersionTexts texts;
    Row row;
    fill_row(overview, &texts, &row);
    std::string sql = "UPDATE dumps SET ";
    for (const Column &column : kDumpsTable.columns) sql.append(quoted(column.name)).append(" = ?, ");
    const Statement update = prepare(sql + "dump_id = dump_id WHERE dump_id = " + std::to_string(dump_));
    int place = 0;
    for (const Value &value : row) bind(update.get(), ++place, value);
    step(update.get());
    run_sql("COMMIT");
}

void Database::drop_dump() {
    sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Database::finish() {
    run_sql("BEGIN IMMEDIATE");
    run_sql(kIndices);
    run_sql("COMMIT");
}

}  // namespace vestra_dump
