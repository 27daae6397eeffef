// lake.h -- dumps as Parquet files in a directory tree, which engines read as tables with two columns more, model and day:
//
//   LAKE/{dumps,vitals,processes,damage}/model=MODEL/day=YYYY-MM-DD/DUMP.parquet
//
// The day is that of the newest sample, in UTC. A model or day that is not known is "unknown". All tables have a column with
// the dump's name, and wall_time if they have times.
//
// Whether the lake has a dump is decided by the file in `dumps`, which is the last one to get its name. Its metadata has a
// fingerprint of the dump.
#pragma once

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/dump/output.h"
#include "tools/dump/tables.h"
#include "tools/parquet/writer.h"

namespace vestra_dump {

// Something in the lake cannot be written.
struct LakeError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A dump as the lake sees it, before it is converted.
struct LakeEntry {
    std::string name;         // printable
    std::string file;         // name of its files, harmless anywhere
    std::string place;        // "model=MODEL/day=DAY"
    std::string fingerprint;  // of its bytes
    std::string options;      // on which the rows depend, apart from the dump
};

// Makes the entry. `name`: any bytes.
LakeEntry make_entry(const std::string &name, const DumpTime &time, const Survey &survey, ByteSource &source,
                     const std::string &version);

// What the lake has under the entry's name.
enum class Presence : uint8_t { kNone, kSame, kOlder, kOther };
struct Existing {
    Presence presence = Presence::kNone;  // kOlder: the same dump, to be converted again; kOther: another dump
    bool clean = false;                   // kSame: the dump is
    std::vector<std::string> misplaced;   // places of it apart from the entry's
};
Existing find_existing(const std::string &lake, const LakeEntry &entry);

// While it exists, no other converter changes which dumps the lake has. Waits for its turn. Does nothing where the file
// system cannot lock a directory.
class LakeLock {
  public:
    explicit LakeLock(const std::string &lake);
    ~LakeLock();
    LakeLock(const LakeLock &) = delete;
    LakeLock &operator=(const LakeLock &) = delete;

  private:
    int fd_;
};

// Writes the files of one dump. Without finish(), the lake does not change. All operations throw LakeError.
class LakeWriter : public RowSink {
  public:
    LakeWriter(const std::string &lake, const LakeEntry &entry, const DumpTime &time);
    ~LakeWriter() override;
    void add(const Table &table, const Row &row) override;

    // Writes everything that is left, under temporary names.
    void complete(const Overview &overview);
    // Then puts the files in place, and takes away those at the places `misplaced`. What is replaced is not listed in
    // `dumps` meanwhile.
    void finish(const std::vector<std::string> &misplaced);

  private:
    class File;

    const std::string lake_;
    const LakeEntry entry_;
    const DumpTime &time_;
    std::array<std::unique_ptr<File>, 4> files_;  // in the order in which they get their names
};

}  // namespace vestra_dump
