// state_dir.h -- the directory in which the simulated services keep their state.
//
// It is /run/vestra-set, or the value of the environment variable VESTRA_SET_DIR, which the launcher's remote
// control and the tests set. The launcher creates it with its subdirectories; nothing here does. Without it, every
// service fails with a log line.
#pragma once

#include <string>
#include <string_view>

#include "platform/files.h"

// Path of `relative` in the state directory. Reads the environment on each call.
std::string state_path(std::string_view relative);
