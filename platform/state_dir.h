// state_dir.h -- where the stand-ins keep what the services of a set keep.
//
// The directory is /run/vestra-set, or what the environment variable VESTRA_SET_DIR names (the launcher's remote
// control and tests use that). The launcher makes it with its subdirectories; nothing here does. Without it every
// service fails, with a line in the log.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Path of `relative` in the state directory. Reads the environment at each call.
std::string state_path(std::string_view relative);

// Contents of a regular file of at most `limit` bytes. Nothing, with a log line, when it is missing, larger, or not a
// file. `quiet_when_missing`: a missing file is no news.
std::optional<std::string> read_state_file(const std::string &path, size_t limit, bool quiet_when_missing = false);

// Names in the directory `relative` that do not begin with a point, sorted. Nothing, with a log line, when it cannot be
// read.
std::optional<std::vector<std::string>> list_state_directory(std::string_view relative);

// Replaces the file (mode 0644) in one step: a reader sees the old contents or the new ones. A link in its place is
// replaced, not followed. False, with a log line and errno, on failure; the old file is as it was then.
bool replace_state_file(const std::string &path, std::string_view contents);

// A key as a file name: letters, digits, '.', '_' and '-' stay, every other byte becomes %XX, and so does a '.' at the
// beginning, because files in the making begin with one. An empty key becomes "%".
std::string encode_name(std::string_view key);
