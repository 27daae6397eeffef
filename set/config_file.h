// Texts of the files that a set has and the daemon reads.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vestra_set {

// The daemon's configuration: the file that is shipped, with the values of a simulated set and then `overrides`, each
// NAME=VALUE. A NAME that the file does not have is an error, since a misspelt one would otherwise go unnoticed. On
// error: an empty text, and the reason in `*error`.
std::string make_config(const std::vector<std::string> &overrides, std::string *error);

// True when the configuration makes the daemon load the kernel module itself.
bool config_loads_module(const std::string &config);

// /etc/prd_info.ini, with CR LF line ends as a set has them.
std::string make_product_info();

// The system-information file for a chipset name.
std::string make_system_info(std::string_view chip);

}  // namespace vestra_set
