// report_page.h -- the template of reports, generated from report/ by the build.
#pragma once

#include <cstddef>

namespace vestra_dump {

extern const unsigned char kReportPage[];
extern const size_t kReportPageSize;

}  // namespace vestra_dump
