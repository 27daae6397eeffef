// report_page.h -- the page that a report is written on; made from report/ when the program is built.
#pragma once

#include <cstddef>

namespace vestra_dump {

extern const unsigned char kReportPage[];
extern const size_t kReportPageSize;

}  // namespace vestra_dump
