// database.h -- dumps in a SQLite file: the tables of tables.h, with the number of their dump, and a table of dumps.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "tools/dump/summary.h"
#include "tools/dump/tables.h"

namespace vestra_dump {

struct DatabaseError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Every operation throws DatabaseError when SQLite refuses it; the destructor then rolls back the transaction.
class Database : public RowSink {
  public:
    // Creates the file and the tables if they do not exist. Refuses another program's database.
    explicit Database(const std::string &path);

    ~Database() override;
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Begins a transaction for one dump. An earlier dump of the same name is deleted, unless the name is empty. Rows
    // belong to this dump until end_dump, which adds the summary and commits, or drop_dump, which rolls back.
    void begin_dump(const std::string &name);
    void add(const Table &table, const Row &row) override;
    void end_dump(const Overview &overview);
    void drop_dump();

    // Creates the indices that do not exist yet. Faster after the rows are in.
    void finish();

  private:
    struct Close {
        void operator()(sqlite3 *db) const { sqlite3_close(db); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    void run_sql(const std::string &sql);
    int64_t query(const std::string &sql);
    Statement prepare(const std::string &sql);
    void bind(sqlite3_stmt *statement, int place, const Value &value);
    void step(sqlite3_stmt *statement);
    void check(int result);
    [[noreturn]] void fail();

    std::unique_ptr<sqlite3, Close> db_;
    std::map<const Table *, Statement> inserts_;
    int64_t dump_ = 0;
};

}  // namespace vestra_dump
