// wall_clock.h -- stream time and wall-clock time.
//
// A dump's time stamps count from the set's start. The dump's name contains the time at which it was written, which
// belongs to its newest sample.
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

// The oldest and newest time stamp of a dump.
struct TimeSpan {
    int64_t first_ns, newest_ns;
};

// From the beginning and the end of a regular file. Nothing for another file, or one without samples.
std::optional<TimeSpan> find_span(const std::string &path);

// --epoch, --from and --to as given; empty: not given.
struct TimeOptions {
    std::string epoch, from, to;
};

// The same for one dump.
struct DumpTime {
    std::optional<int64_t> written;   // seconds since 1970: the time of its newest sample
    std::optional<int64_t> epoch_ns;  // Unix time of stream time 0; for a pipe not known in advance
    TimeRange range;

    // Unix time of a stream time; nothing if the epoch is not known.
    std::optional<int64_t> unix_ns(int64_t time_ns) const;
    // The same for people, or "".
    std::string wall_time(int64_t time_ns) const;

    // Sets the epoch, once the newest sample is known.
    void set_newest(std::optional<int64_t> newest_ns);
};

// False with the reason in *error if an option is invalid or cannot be applied to this dump.
bool resolve(const TimeOptions &options, const std::string &path, DumpTime *time, std::string *error);

}  // namespace vestra_dump
