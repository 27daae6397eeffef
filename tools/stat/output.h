// output.h -- answers as text: tables for people, JSON lines for programs.
#pragma once

#include <string>
#include <vector>

#include "client/vestra_api.h"
#include "tools/stat/history.h"

namespace vestra_stat {

enum class Format { kTable, kJson, kCsv, kOpenMetrics };

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

// The current values in the OpenMetrics text format, in base units. Unknown ones are left out: the daemon has 0 for all
// vitals that it has no sample for.
std::string as_openmetrics(const Answer &answer);

// What is known of the last 180 s, oldest second first.
struct Past {
    double time = 0;              // of the answer, seconds since 1970
    std::vector<int> types;       // the vitals to show
    std::vector<Second> seconds;  // newest first
};

// A heading and a line for each second, as text or CSV, or one line of JSON. Unknown figures: "-", nothing, null.
std::string as_text(const Past &past, Format format);

// The seventeen vitals with their numbers, units and meanings.
std::string list_of_vitals();

// Writes to standard output. False with errno if that fails.
bool print(const std::string &text);

}  // namespace vestra_stat
