// database.h -- dumps in a SQLite file: the tables of tables.h with the number of their dump, and the table of dumps.
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

// Every operation throws DatabaseError when SQLite refuses it; the transaction is then rolled back by the destructor.
class Database : public RowSink {
  public:
    // Makes the file and the tables where there are none. Refuses a database of something else.
    explicit Database(const std::string &path);

    ~Database() override;
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Begins a dump, in a transaction. One that was loaded under the same name before is taken out; an empty name is
    // no name. What is added goes to it until it is ended with all that is known about it, or dropped.
    void begin_dump(const std::string &name);
    void add(const Table &table, const Row &row) override;
    void end_dump(const Summary &summary);
    void drop_dump();

    // Makes the indices, where there are none yet: faster when the rows are there.
    void finish();

  private:
    struct Close {
        void operator()(sqlite3 *db) const { sqlite3_close(db); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    void execute(const std::string &sql);
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
