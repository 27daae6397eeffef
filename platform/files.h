// files.h -- the small files in which platform services keep their state.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Contents of a regular file of at most `limit` bytes. Returns nothing, with a log line, if it is missing, larger or
// not a regular file. With `quiet_when_missing`, a missing file is not logged.
std::optional<std::string> read_state_file(const std::string &path, size_t limit, bool quiet_when_missing = false);

// Names in a directory that do not begin with a dot, sorted. Returns nothing, with a log line, if it cannot be read.
std::optional<std::vector<std::string>> list_directory(const std::string &path);

// Replaces the file atomically (mode 0644): a reader sees either the old or the new contents. A symbolic link at `path`
// is replaced, not followed. On failure returns false, with a log line and errno, and leaves the old file alone.
bool replace_state_file(const std::string &path, std::string_view contents);

// Encodes a key as a file name. Letters, digits, '.', '_' and '-' stay; every other byte becomes %XX. So does a leading
// '.', because temporary files begin with one. An empty key becomes "%".
std::string encode_name(std::string_view key);
