// A recorded dump as frame records and trailer, read piece by piece: the memory used does not grow with the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "set/trace/frame_check.h"

namespace vestra_set {

// What stands behind the payload; docs/dump-format.md.
struct DumpTrailer {
    std::string build;  // without the '/' that ends it
    std::string model;  // without its line end
    std::optional<int> lite_mode;
    size_t size = 0;  // bytes, length bytes included
};

// The trailer of a file whose last bytes are `tail` (kTrailerLimit of them, or the whole file). Nothing where they are
// none.
constexpr size_t kTrailerLimit = 512;
std::optional<DumpTrailer> find_trailer(std::string_view tail);

// A stretch of the payload. Stretches follow each other without gap and cover all of it.
struct DumpRecord {
    enum Kind {
        kEnd,      // of the payload; size 0
        kEmpty,    // an empty frame record: our recordings mark the end of a block so
        kFrame,    // a frame, as `frame` judges it; a bad one too when nothing in it looks like the start of another
        kDamaged,  // bytes that belong to no frame record, up to where one begins
    } kind = kEnd;
    uint64_t offset = 0;
    uint64_t size = 0;  // bytes, a frame's length field included
    FrameCheck frame;   // kFrame
};

// One thread at a time.
class DumpFile {
  public:
    ~DumpFile();
    DumpFile(const DumpFile &) = delete;
    DumpFile &operator=(const DumpFile &) = delete;

    // Null with the reason in *error when the file cannot be opened or is no regular file.
    static std::unique_ptr<DumpFile> open(const std::string &path, std::string *error);

    uint64_t size() const { return size_; }
    uint64_t payload_size() const { return payload_; }
    const std::optional<DumpTrailer> &trailer() const { return trailer_; }

    // The stretch that begins at `offset`. A file that can no longer be read ends there, as does one that was cut.
    DumpRecord record(uint64_t offset);

    // Copies up to `count` bytes of the payload from `offset`; returns how many there were.
    size_t copy(uint64_t offset, uint8_t *out, size_t count);

  private:
    DumpFile(int fd, uint64_t size);

    const uint8_t *bytes(uint64_t offset, size_t count, size_t *available);
    uint64_t find_anchor(uint64_t from, uint64_t to);

    int fd_;
    uint64_t size_;
    uint64_t payload_;
    std::optional<DumpTrailer> trailer_;
    std::vector<uint8_t> window_;  // bytes of the file from window_offset_ on
    size_t window_size_ = 0;
    uint64_t window_offset_ = 0;
    uint64_t barren_begin_ = 0;  // no frame record that could be trusted begins in [begin, end)
    uint64_t barren_end_ = 0;
};

}  // namespace vestra_set
