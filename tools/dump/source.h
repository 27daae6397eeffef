// source.h -- where a dump's bytes come from: a file, a pipe, or memory. A dump is read twice, so every source can be read
// at any offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vestra_dump {

class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // Reads up to `count` (above 0) bytes at `offset` into `out`. Returns their number, 0 at the end, or -1 with errno.
    virtual int64_t read_at(uint64_t offset, uint8_t *out, size_t count) = 0;
};

// Reads a string, which must outlive the source. For tests and benchmarks.
class MemorySource : public ByteSource {
  public:
    explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
    int64_t read_at(uint64_t offset, uint8_t *out, size_t count) override;

  private:
    std::string_view bytes_;
};

// Reads a file as long as it is when it is opened; "-" is standard input. What can be read only once, such as a pipe, is
// first copied to an unlinked temporary file in TMPDIR or /var/tmp. Shows progress on standard error while a long file is
// read, if that is a terminal.
class FileSource : public ByteSource {
  public:
    // Null with the reason in *error.
    static std::unique_ptr<FileSource> open(const std::string &path, std::string *error);
    ~FileSource() override;
    FileSource(const FileSource &) = delete;
    FileSource &operator=(const FileSource &) = delete;

    int64_t read_at(uint64_t offset, uint8_t *out, size_t count) override;

    uint64_t size() const { return size_; }

    void show_progress(bool show) { progress_ = show; }

    // Whether this is the file at `path`, under whatever name.
    bool is_same_file(const std::string &path) const;

  private:
    FileSource(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    bool spool();
    void report_progress(uint64_t done);
    void clear_progress();

    int fd_;
    std::string path_;    // printable
    uint64_t begin_ = 0;  // offset of the dump in the file: standard input may begin anywhere
    uint64_t size_ = 0;   // bytes of the dump
    bool progress_ = false;
    int shown_percent_ = -1;
};

// A descriptor of an unlinked file in TMPDIR or /var/tmp, or -1 with errno.
int temporary_file();

}  // namespace vestra_dump
