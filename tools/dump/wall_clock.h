// wall_clock.h -- stream time and wall-clock time.
//
// A dump's time stamps count from the set's start. The dump's name contains the time at which it was written, which
// belongs to its newest sample, so it says nothing if the end of the recording is missing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/dump/analysis.h"

namespace vestra_dump {

// Seconds since 1970 in the name of a dump: 0000000000_PID_NAME_SECONDS, with "-tl" in lite mode, or, while it was being
// written, temp-vestra..._SECONDS_MICROSECONDS. Nothing if the name has something else there, such as a slot, or a time
// before 2000, from a set whose clock was not set.
std::optional<int64_t> seconds_in_name(std::string_view path);

// "2026-11-24T22:40:58.250Z", and back; the fraction, and everything after the day, may be missing. Empty or nothing for
// a time outside the years 1970 to 2255.
std::string format_time(int64_t unix_ns);
std::optional<int64_t> parse_time(std::string_view text);

// --epoch, --from and --to as given; empty: not given.
struct TimeOptions {
    std::string epoch, from, to;

    bool has_range() const { return !from.empty() || !to.empty(); }
};

// The same for one dump.
struct DumpTime {
    std::optional<int64_t> epoch_ns;  // Unix time of stream time 0; nothing if it is not known
    bool end_is_missing = false;      // the name has a time, but the recording's end, to which it belongs, is damaged
    TimeRange range;

    // Unix time of a stream time; nothing if the epoch is not known.
    std::optional<int64_t> unix_ns(int64_t time_ns) const;
    // The same for people, or "".
    std::string wall_time(int64_t time_ns) const;
};

// False with the reason in *error if an option is invalid or cannot be applied to this dump.
bool resolve(const TimeOptions &options, const std::string &path, const Survey &survey, DumpTime *time,
             std::string *error);

// For people: why the wall-clock times are missing although the name has a time.
extern const char *const kEndIsMissing;

}  // namespace vestra_dump
