// Long log texts that must not change are in data/logs, one file each, as they are logged.
#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "gtest/gtest.h"

// Compares a text with its file. With VESTRA_WRITE_LOGS in the environment the file is written instead.
inline void expect_golden(const std::string &name, const std::string &text) {
    const std::string path = VESTRA_TEST_LOGS "/" + name + ".log";
    if (getenv("VESTRA_WRITE_LOGS") != nullptr) std::ofstream(path, std::ios::binary) << text;
    std::ostringstream wanted;
    wanted << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_EQ(text, wanted.str()) << path;
}
