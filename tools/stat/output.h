// output.h -- answers as text: tables for people, JSON lines for programs.
#pragma once

#include <string>
#include <vector>

#include "platform/vestra_api.h"

namespace vestra_stat {

// One answer of the daemon: the requested vitals, all with the same window.
struct Answer {
    int window = 0;   // seconds; 0: the current values
    double time = 0;  // of the answer, seconds since 1970
    std::vector<vestra_api_data> vitals;
};

// A heading and a line for each vital. "-" stands for an unknown figure, and for all figures of a window without data.
std::string as_table(const Answer &answer);

// One line; null stands for an unknown figure.
std::string as_json(const Answer &answer);

// The seventeen vitals with their numbers, units and meanings.
std::string list_of_vitals();

// Writes to standard output. False with errno if that fails.
bool print(const std::string &text);

}  // namespace vestra_stat
