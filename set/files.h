// Small whole files. Failures are reported by the result, with errno set.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vestra_set {

// Everything up to the end of a descriptor, or nothing when it cannot be read or is longer than `limit` bytes.
std::optional<std::string> read_all(int fd, size_t limit = 16 * 1024 * 1024);

// The same for a file.
std::optional<std::string> read_file(const std::string &path, size_t limit = 16 * 1024 * 1024);

// Writes all of `text` to a descriptor.
bool write_all(int fd, std::string_view text);

// Writes a file in place; makes it where it is missing.
bool write_file(const std::string &path, std::string_view text);

// Makes a directory and those above it; true when it is there afterwards.
bool make_directories(const std::string &path);

}  // namespace vestra_set
