// trailer.h -- what stands behind a dump's payload: the image's version, and lite mode.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vestra_dump {

struct Trailer {
    std::string bytes;  // all of it, as it is in the file
    std::string build;  // without the '/' that ends it; empty where the version file has none
    std::string model;  // without its line end
    std::optional<int> lite_mode;

    bool build_cut = false;  // its last character is lost: the version file's lines end in LF alone
    bool model_cut = false;  // 32 bytes and no line end: there may have been more
};

// What the end of a file can be read as, the likeliest first. `sure`: so much text that it is no accident; the others
// count only where the payload in front of them ends with a whole record.
struct TrailerReading {
    Trailer trailer;
    bool sure;
};
std::vector<TrailerReading> read_trailer(std::string_view end_of_file);

}  // namespace vestra_dump
