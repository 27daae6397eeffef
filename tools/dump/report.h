// report.h -- a dump as one self-contained HTML page, and an index of many.
#pragma once

#include <string>
#include <vector>

#include "tools/dump/finding.h"
#include "tools/dump/output.h"
#include "tools/dump/report_processes.h"
#include "tools/dump/report_series.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

// What a page is made from.
struct ReportParts {
    const VitalSeries &vitals;
    const ProcessSeries &processes;
    const Overview &overview;
    const std::vector<Finding> &findings;  // best first
    size_t top;                            // processes in the tables
};

// Writes the page. All texts from the dump are escaped.
void write_report(const ReportParts &parts, Output &out);

// A dump in the index.
struct IndexRow {
    std::string page;  // name of its file; empty: there is none
    std::string name;  // of the dump: any bytes
    std::vector<std::string> cells;
};

// `parts`: null for a file that could not be read.
IndexRow index_row(const std::string &page, const std::string &name, const ReportParts *parts);

void write_index(const std::string &directory, const std::vector<IndexRow> &rows, Output &out);

}  // namespace vestra_dump
