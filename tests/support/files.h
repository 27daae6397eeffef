// Files for tests: read, write and list them; texts that are compared with a file; the version file that a dump takes its
// trailer from; a USB stick.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "gtest/gtest.h"

namespace vestra_test {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

inline constexpr char kStick[] = "/tmp/stick";
inline constexpr char kVersionText[] = "Model=QX-55\nBuild=1234.5\r\n";  // of /etc/prd_info.ini
inline constexpr char kTrailer[] = "1234.5/QX-55\n\x0d";                 // of a dump that was written with it

inline std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Makes the directory, too, if there is none.
inline void write_file(const fs::path &path, std::string_view text) {
    fs::create_directories(path.parent_path());
    ASSERT_TRUE(std::ofstream(path, std::ios::binary | std::ios::trunc) << text << std::flush) << path;
}

// What is in /tmp when the program starts: the build tree may be mounted there.
inline const std::set<fs::path> kNotOurs(fs::directory_iterator("/tmp"), fs::directory_iterator{});

// The names in a directory, sorted; in /tmp only what the tests made there.
inline Strings names_in(const fs::path &directory) {
    Strings names;
    for (const auto &entry : fs::directory_iterator(directory)) {
        if (kNotOurs.count(entry.path()) == 0) names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// All files below a directory that has only the tests', each a line "NAME: CONTENT".
inline std::string files_in(const fs::path &directory) {
    std::vector<fs::path> directories = {directory}, files;
    for (size_t i = 0; i < directories.size(); ++i) {
        const fs::path at = directories[i];
        for (const auto &name : names_in(at)) (fs::is_directory(at / name) ? directories : files).push_back(at / name);
    }
    std::sort(files.begin(), files.end());
    std::string text;
    for (const fs::path &file : files) text += file.string() + ": " + ::testing::PrintToString(read_file(file)) + "\n";
    return text;
}

// Long texts that must not change are in data/logs. With VESTRA_WRITE_LOGS in the environment the file is written instead.
inline void expect_golden(const std::string &name, const std::string &text) {
    const std::string path = VESTRA_TEST_LOGS "/" + name + ".log";
    if (getenv("VESTRA_WRITE_LOGS") != nullptr) write_file(path, text);
    EXPECT_EQ(text, read_file(path)) << path;
}

}  // namespace vestra_test
