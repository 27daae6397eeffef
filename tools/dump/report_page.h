// report_page.h -- the templates of reports and their index, generated from report/ by the build.
#pragma once

#include <string_view>

namespace vestra_dump {

extern const std::string_view kReportPage, kIndexPage;

}  // namespace vestra_dump
