#include "platform/simulated/state_dir.h"

#include <cstdlib>

#include "platform/places.h"

static constexpr char kDefaultDirectory[] = "/run/vestra-set";

std::string state_path(std::string_view relative) {
    const char *directory = getenv("VESTRA_SET_DIR");
    std::string path = directory != nullptr && *directory != '\0' ? directory : kDefaultDirectory;
    path += '/';
    path += relative;
    return path;
}

std::string keys_directory() {
    return state_path("vconf");
}

std::string system_info_file() {
    return state_path("system_info.ini");
}
