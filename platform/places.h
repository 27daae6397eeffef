// places.h -- where an implementation of the platform keeps the files of the services that all of them share.
#pragma once

#include <string>

// The directory of the configuration keys, a file each.
std::string keys_directory();

// The key file of the system information.
std::string system_info_file();
