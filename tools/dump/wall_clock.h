// wall_clock.h -- stream time and the clock on the wall.
//
// A dump's time stamps count from the set's start. When the dump was written stands in its name, and that moment
// belongs to its newest sample.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/dump/analysis.h"

namespace vestra_dump {

// Seconds since 1970 in the name of a dump: 0000000000_PID_NAME_SECONDS, with "-tl" in lite mode, or, while it was
// being written, temp-vestra..._SECONDS_MICROSECONDS. Nothing where the name holds something else, such as a slot, or
// seconds of a set whose clock was not set (before 2000).
std::optional<int64_t> seconds_in_name(std::string_view path);

// "2026-11-24T22:40:58.250Z", and back (the fraction, and all behind the day, may be left out). Nothing for a time that
// is out of the years 1970 to 2255.
std::string format_time(int64_t unix_ns);
std::optional<int64_t> parse_time(std::string_view text);

// The oldest and newest time stamp of a dump, from its first and last stretch.
struct Span {
    int64_t first_ns, newest_ns;
};

// Of a file that can be read from anywhere; nothing for others, and for one without samples.
std::optional<Span> find_span(const std::string &path);

// What --epoch, --from and --to say, as they were typed; empty: not given.
struct TimeOptions {
    std::string epoch, from, to;
};

// The same for one dump.
struct DumpTime {
    std::optional<int64_t> written;   // seconds since 1970: the moment of its newest sample
    std::optional<int64_t> epoch_ns;  // unix time of stream time 0; not known in advance of what can be read only once
    TimeRange range;

    // Unix time of a moment of the stream; nothing when the epoch is not known.
    std::optional<int64_t> unix_ns(int64_t time_ns) const;
    // The same for people, or "".
    std::string wall_time(int64_t time_ns) const;

    // Once the newest sample is known.
    void set_newest(std::optional<int64_t> newest_ns);
};

// False with the reason in *error when an option makes no sense, or cannot be applied to this dump.
bool resolve(const TimeOptions &options, const std::string &path, DumpTime *time, std::string *error);

}  // namespace vestra_dump
