#include "tools/dump/wall_clock.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

#include "trace/percentages.h"

namespace vestra_dump {
namespace {

constexpr int64_t kYear2000 = 946684800;          // seconds since 1970
constexpr int64_t kYear2255 = 8993808000;         // what 64 bits of nanoseconds hold, nearly
constexpr uint64_t kPartMax = uint64_t{1} << 20;  // bytes: seven blocks of the greatest size
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

// Reads the first or last part of a dump.
bool read_part(const std::string &path, bool last, Analysis *times) {
    std::string error;
    const auto file = FileSource::open(path, &error);
    if (file == nullptr || !file->size()) return false;
    const uint64_t begin = last && *file->size() > kPartMax ? *file->size() - kPartMax : 0;
    if (!file->seek(begin)) return false;
    if (last) {
        read_dump(*file, *times, begin > 0);
        return true;
    }
    std::vector<uint8_t> bytes(kPartMax);
    size_t size = 0;
    for (int64_t got = 1; got > 0 && size < bytes.size(); size += static_cast<size_t>(got)) {
        got = file->read(bytes.data() + size, bytes.size() - size);
        if (got <= 0) break;
    }
    MemorySource source({reinterpret_cast<const char *>(bytes.data()), size});
    read_dump(source, *times);
    return true;
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
        *error = "'" + text + "' needs a file with samples, not a pipe";
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

std::optional<TimeSpan> find_span(const std::string &path) {
    Analysis begin, end;
    if (!read_part(path, true, &end)) return std::nullopt;
    if (!end.newest_ns()) {
        // Only damage there: reads the whole dump.
        std::string error;
        const auto file = FileSource::open(path, &error);
        if (file == nullptr) return std::nullopt;
        read_dump(*file, end);
    }
    if (!end.newest_ns()) return std::nullopt;
    read_part(path, false, &begin);
    return TimeSpan{begin.first_ns().value_or(*end.first_ns()), *end.newest_ns()};
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

void DumpTime::set_newest(std::optional<int64_t> newest_ns) {
    if (written && newest_ns) epoch_ns = *written * kNs - *newest_ns;
}

bool resolve(const TimeOptions &options, const std::string &path, DumpTime *time, std::string *error) {
    *time = DumpTime{};
    std::optional<int64_t> &written = time->written;
    written = seconds_in_name(path);
    if (!options.epoch.empty() && options.epoch != "name") {
        written.reset();
        if (options.epoch != "none") {
            if (const auto unix_ns = parse_time(options.epoch)) {
                written = *unix_ns / kNs;
            } else {
                written = whole_number(options.epoch);
            }
            if (!written || *written < 0 || *written >= kYear2255) {
                *error =
                    "--epoch '" + options.epoch + "' is not a time: seconds since 1970, a date and time, name, or none";
                return false;
            }
        }
    }
    const auto is_relative = [](const std::string &text) {
        return !text.empty() && (text[0] == '+' || text[0] == '-');
    };
    std::optional<TimeSpan> span;
    if (written || is_relative(options.from) || is_relative(options.to)) span = find_span(path);
    if (span) time->set_newest(span->newest_ns);
    for (const auto &[text, moment] : {std::pair{&options.from, &time->range.from}, {&options.to, &time->range.to}}) {
        if (text->empty()) continue;
        const auto parsed = parse_moment(*text, span, time->epoch_ns, error);
        if (!parsed) return false;
        *moment = *parsed;
    }
    return true;
}

}  // namespace vestra_dump
