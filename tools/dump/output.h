// output.h -- writes to a file or to standard output in large pieces and keeps the first failure.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace vestra_dump {

// One thread. What is written after a failure is dropped.
//
// A file is written under a hidden temporary name beside it, which close() renames: an existing file is replaced by a complete
// one or stays as it is. What is no regular file, such as a device, is written to directly.
class Output {
  public:
    // "-" is standard output. Null with the reason in *error.
    static std::unique_ptr<Output> open(const std::string &path, std::string *error);
    ~Output();  // without close(), the file is not changed
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::string_view bytes) {
        buffer_.append(bytes);
        if (buffer_.size() >= kFull) flush();
    }

    // Writes the rest and closes. False with the reason in *error if not everything was written.
    bool close(std::string *error);
    // The same without the rename, which close() does later.
    bool complete(std::string *error);
    bool has_failed() const { return error_ != 0; }

    // The buffer itself, for writers that append in small parts; they call done() after each complete piece.
    std::string &buffer() { return buffer_; }
    void done() {
        if (buffer_.size() >= kFull) flush();
    }

  private:
    Output() = default;
    void flush();

    static constexpr size_t kFull = size_t{64} * 1024;  // bytes

    int fd_ = -1;
    int error_ = 0;                   // errno of the first failure
    std::string target_, temporary_;  // empty: written to directly
    std::string buffer_;
};

}  // namespace vestra_dump
