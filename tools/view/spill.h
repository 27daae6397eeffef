// spill.h -- records in the order in which they were added, in memory up to a limit and from there in an unlinked temporary
// file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace vestra_view {

class Bytes {
  public:
    explicit Bytes(size_t in_memory) : limit_(in_memory) {}
    ~Bytes();
    Bytes(const Bytes &) = delete;
    Bytes &operator=(const Bytes &) = delete;

    // What cannot be written or read is zeros; problem() then has the reason.
    void add(const void *bytes, size_t count);
    void read(uint64_t offset, void *out, size_t count) const;

    uint64_t size() const { return written_ + kept_.size(); }
    const std::string &problem() const { return problem_; }

  private:
    void move_to_file();

    size_t limit_;
    std::vector<char> kept_;  // the newest bytes: all, or those that are not in the file yet
    int file_ = -1;
    uint64_t written_ = 0;  // bytes in the file
    mutable std::string problem_;
};

template <class Record>
class Spill {
    static_assert(std::is_trivially_copyable_v<Record>);

  public:
    explicit Spill(size_t in_memory) : bytes_(in_memory) {}

    void add(const Record &record) { bytes_.add(&record, sizeof record); }
    Record at(uint64_t index) const {
        Record record;
        read(index, &record, 1);
        return record;
    }
    void read(uint64_t index, Record *out, size_t count) const {
        bytes_.read(index * sizeof(Record), out, count * sizeof(Record));
    }
    uint64_t size() const { return bytes_.size() / sizeof(Record); }
    const std::string &problem() const { return bytes_.problem(); }

  private:
    Bytes bytes_;
};

}  // namespace vestra_view
