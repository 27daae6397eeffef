#include "tools/dump/wall_clock.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "trace/percentages.h"

namespace vestra_dump {
namespace {

constexpr int64_t kYear2000 = 946684800;   // seconds since 1970
constexpr int64_t kYear2255 = 8993808000;  // what 64 bits of nanoseconds hold, nearly
constexpr int64_t kNs = trace::kNsPerSecond;

std::optional<int64_t> whole_number(std::string_view text) {
    int64_t value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

// Cuts the last underscore and the part after it off, and returns that part.
std::string_view take_last(std::string_view *name) {
    const size_t line = name->rfind('_');
    if (line == std::string_view::npos) return {};
    const std::string_view part = name->substr(line + 1);
    *name = name->substr(0, line);
    return part;
}

// "601.5", "+10" after the oldest sample, "-30" before the newest, or a date and time.
std::optional<int64_t> parse_moment(const std::string &text, const std::optional<TimeSpan> &span,
                                    const std::optional<int64_t> &epoch_ns, std::string *error) {
    if (const auto unix_ns = parse_time(text)) {
        if (!epoch_ns) {
            *error = "'" + text + "': the time of the dump is not known; give --epoch";
            return std::nullopt;
        }
        int64_t moment = 0;
        if (__builtin_sub_overflow(*unix_ns, *epoch_ns, &moment)) return INT64_MAX;
        return moment;
    }
    double seconds = 0;
    const bool relative = !text.empty() && (text[0] == '+' || text[0] == '-');
    const char *begin = text.data() + (!text.empty() && text[0] == '+' ? 1 : 0);
    const auto parsed = std::from_chars(begin, text.data() + text.size(), seconds, std::chars_format::fixed);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() || !(std::fabs(seconds) < 4e9)) {
        *error = "'" + text + "' is not a time: seconds of the stream (601.5), +seconds after the oldest sample, " +
                 "-seconds before the newest, or a date and time (2026-11-24T22:40:58Z)";
        return std::nullopt;
    }
    const auto ns = static_cast<int64_t>(std::llround(seconds * static_cast<double>(kNs)));
    if (!relative) return ns;
    if (!span) {
        *error = "'" + text + "' needs a dump with samples";
        return std::nullopt;
    }
    int64_t moment = 0;
    if (__builtin_add_overflow(text[0] == '+' ? span->first_ns : span->newest_ns, ns, &moment)) return INT64_MAX;
    return moment;
}

}  // namespace

std::optional<int64_t> seconds_in_name(std::string_view path) {
    std::string_view name = path.substr(path.rfind('/') + 1);
    constexpr std::string_view kLite = "-tl", kZeros = "0000000000_", kTemporary = "temp-vestra";
    if (name.size() > kLite.size() && name.substr(name.size() - kLite.size()) == kLite)
        name.remove_suffix(kLite.size());
    if (name.substr(0, kTemporary.size()) == kTemporary) {
        take_last(&name);
    } else if (name.substr(0, kZeros.size()) != kZeros) {
        return std::nullopt;
    }
    const auto seconds = whole_number(take_last(&name));
    if (!seconds || *seconds < kYear2000 || *seconds >= kYear2255) return std::nullopt;
    return seconds;
}

std::string format_time(int64_t unix_ns) {
    int64_t seconds = unix_ns / kNs, rest = unix_ns % kNs;
    if (rest < 0) {
        rest += kNs;
        --seconds;
    }
    const auto time = static_cast<time_t>(seconds);
    tm parts = {};
    if (seconds < 0 || seconds >= kYear2255 || time != seconds || gmtime_r(&time, &parts) == nullptr) return {};
    std::array<char, 32> text{};
    const size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text.data() + size, text.size() - size, ".%03dZ", static_cast<int>(rest / 1000000));
    return text.data();
}

std::optional<int64_t> parse_time(std::string_view text) {
    // A day, then as much of the time of day as is given.
    tm parts = {};
    const std::string copy(text);
    const char *left = nullptr;
    for (const char *format :
         {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        parts = {};
        left = strptime(copy.c_str(), format, &parts);
        if (left != nullptr) break;
    }
    if (left == nullptr || copy.find('-') != 4) return std::nullopt;
    int64_t fraction = 0;
    if (*left == '.') {
        int64_t scale = kNs;
        for (++left; *left >= '0' && *left <= '9'; ++left) {
            scale /= 10;
            fraction += (*left - '0') * scale;
        }
    }
    if (*left == 'Z') ++left;
    if (*left != '\0') return std::nullopt;
    const auto seconds = static_cast<int64_t>(timegm(&parts));
    if (seconds < 0 || seconds >= kYear2255) return std::nullopt;
    return seconds * kNs + fraction;
}

std::optional<int64_t> DumpTime::unix_ns(int64_t time_ns) const {
    int64_t result = 0;
    if (!epoch_ns || __builtin_add_overflow(time_ns, *epoch_ns, &result)) return std::nullopt;
    return result;
}

std::string DumpTime::wall_time(int64_t time_ns) const {
    const auto unix_time = unix_ns(time_ns);
    return unix_time ? format_time(*unix_time) : std::string();
}

// The time of the newest sample that --epoch gives, in seconds since 1970; -1: none. False if it is invalid.
static bool parse_epoch(const std::string &text, int64_t *seconds) {
    *seconds = -1;
    if (text == "none") return true;
    const auto unix_ns = parse_time(text);
    *seconds = unix_ns ? *unix_ns / kNs : whole_number(text).value_or(-1);
    return *seconds >= 0 && *seconds < kYear2255;
}

const char *const kEndIsMissing =
    "the wall-clock times are not known, because the end of the recording, to which the time in the name belongs, is "
    "missing or damaged; --epoch sets them";

bool resolve(const TimeOptions &options, const std::string &path, const Survey &survey, DumpTime *time,
             std::string *error) {
    *time = DumpTime{};
    const std::optional<TimeSpan> &span = survey.timeline.span();
    int64_t written = -1;
    if (options.epoch.empty() || options.epoch == "name") {
        written = seconds_in_name(path).value_or(-1);
        time->end_is_missing = written >= 0 && span && !survey.end_is_whole();
    } else if (!parse_epoch(options.epoch, &written)) {
        *error = "--epoch '" + options.epoch + "' is not a time: seconds since 1970, a date and time, name, or none";
        return false;
    }
    int64_t epoch_ns = 0;
    if (written >= 0 && span && !time->end_is_missing &&
        !__builtin_sub_overflow(written * kNs, span->newest_ns, &epoch_ns)) {
        time->epoch_ns = epoch_ns;
    }
    for (const auto &[text, moment] : {std::pair{&options.from, &time->range.from}, {&options.to, &time->range.to}}) {
        if (text->empty()) continue;
        const auto parsed = parse_moment(*text, span, time->epoch_ns, error);
        if (!parsed) return false;
        *moment = *parsed;
    }
    return true;
}

}  // namespace vestra_dump
