// source.h -- where a dump's bytes come from: a file, standard input, or memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vestra_dump {

class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // Reads up to `count` (above 0) of the next bytes into `out`. Returns their number, 0 at the end, or -1 with errno.
    virtual int64_t read(uint8_t *out, size_t count) = 0;
};

// Reads a string, which must outlive the source. For tests and benchmarks.
class MemorySource : public ByteSource {
  public:
    explicit MemorySource(std::string_view bytes) : left_(bytes) {}
    int64_t read(uint8_t *out, size_t count) override;

  private:
    std::string_view left_;
};

// Reads a file or a pipe; "-" is standard input. Shows progress on standard error while a long file is read, if that is
// a terminal.
class FileSource : public ByteSource {
  public:
    // Null with the reason in *error.
    static std::unique_ptr<FileSource> open(const std::string &path, std::string *error);
    ~FileSource() override;
    FileSource(const FileSource &) = delete;
    FileSource &operator=(const FileSource &) = delete;

    int64_t read(uint8_t *out, size_t count) override;

    // Bytes of a regular file; nothing for what can be read only once.
    std::optional<uint64_t> size() const { return size_; }

    // Goes to an offset of a regular file. False with errno.
    bool seek(uint64_t offset);

    void show_progress(bool show) { progress_ = show; }

    // Whether this is the file at `path`, under whatever name.
    bool is_same_file(const std::string &path) const;

  private:
    FileSource(int fd, std::string path, std::optional<uint64_t> size);
    void report_progress();
    void clear_progress();

    int fd_;
    std::string path_;  // printable
    std::optional<uint64_t> size_;
    uint64_t done_ = 0;
    bool progress_ = false;
    int shown_percent_ = -1;
};

}  // namespace vestra_dump
