// output.h -- answers as text: tables for people, JSON lines for programs.
#pragma once

#include <string>
#include <vector>

#include "platform/vestra_api.h"

namespace vestra_stat {

// One answer of the daemon: the vitals that were asked for, all with the same window.
struct Answer {
    int window = 0;   // seconds; 0: the current values
    double time = 0;  // when it came, seconds since 1970
    std::vector<vestra_api_data> vitals;
};

// A heading and a line for each vital. A figure that is no number, and all of a window in which there is no second, is
// "-".
std::string as_table(const Answer &answer);

// One line; what is "-" in the table is null.
std::string as_json(const Answer &answer);

// The seventeen vitals with their numbers, units and meanings.
std::string list_of_vitals();

// Writes all of it to standard output. False with errno when that fails.
bool print(const std::string &text);

}  // namespace vestra_stat
