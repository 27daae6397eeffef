// trailer.h -- the trailer after a dump's payload: the image's version, and lite mode.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vestra_dump {

struct Trailer {
    std::string bytes;  // all of it, as it is in the file
    std::string build;  // without the '/' after it; empty if the version file has none
    std::string model;  // without its line end
    std::optional<int> lite_mode;

    bool build_cut = false;  // its last character is lost: the version file's lines end in LF alone
    bool model_cut = false;  // 32 bytes and no line end: there may have been more
};

// A possible reading of a file's end. `sure`: so much text that it cannot be an accident. Any other reading counts only if
// the payload before it ends with a complete record.
struct TrailerReading {
    Trailer trailer;
    bool sure;
};

// The readings of `end_of_file` (up to trace::kTrailerMax bytes), the likeliest first.
std::vector<TrailerReading> read_trailer(std::string_view end_of_file);

}  // namespace vestra_dump
