// recording.h -- what the screen shows: seconds with vitals, and perhaps the processes of each. A dump, or a running daemon.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/vitals.h"

namespace vestra_view {

constexpr size_t kVitalCount = VESTRA_API_VITALS;
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

struct Second {
    int64_t second = 0;                           // its number. Of a dump: of stream time
    int64_t time_ns = 0;                          // of its last sample, on the same clock
    std::array<double, kVitalCount> vitals = {};  // kUnknown: not known
};

// A process in a second.
struct ProcessRow {
    int32_t pid = 0, parent = 0;
    std::string name;                                           // printable
    int64_t time_ns = 0;                                        // of the sample
    double cpu = kUnknown, user = kUnknown, system = kUnknown;  // percent of all cores
    uint64_t rss = 0, swap = 0;                                 // KiB
    std::optional<int64_t> growth;  // KiB of resident memory more than in its first sample of the recording
};

// Which process: an id that was used again under another name is another process.
struct ProcessId {
    int32_t pid = 0;
    std::string name;  // printable

    bool operator==(const ProcessId &other) const { return pid == other.pid && name == other.name; }
};

// Something to jump to.
struct Mark {
    int64_t from_ns, to_ns;
    std::string text;            // one line, printable
    std::optional<int32_t> pid;  // of the process meant, if one is
};

// Which seconds a column of a line over time stands for. A short recording has several columns for a second.
struct Axis {
    int64_t first, seconds;  // the recording's
    size_t columns;          // above 0

    size_t column_of(int64_t second) const;
    struct Part {
        int64_t begin, end;  // seconds since the first; end is not part of it
    };
    Part part(size_t column) const;
};

// The greatest figure of every column of a line over time; kUnknown: there is none.
using Line = std::vector<double>;

// One thread, except where an implementation says otherwise. An index is that of a second, oldest first. With no second,
// nothing but size(), title() and problem() may be called.
class Recording {
  public:
    virtual ~Recording() = default;

    virtual size_t size() const = 0;  // seconds
    virtual Second second(size_t index) const = 0;
    virtual std::string title() const = 0;                     // printable
    virtual std::string problem() const = 0;                   // why figures are missing or old; "": none. Printable
    virtual std::string wall_time(int64_t time_ns) const = 0;  // "2026-11-25T15:23:15.544Z"; "": not known

    // Of the whole recording, in that many columns (1 and more). Where the low figures tell, such as free memory, a
    // column has its least.
    virtual Line line(size_t vital, size_t columns) const = 0;

    // The next peak of a vital after that second, or before it: the highest second of a stretch in which the vital is
    // above the middle between its average and its maximum. Where low figures tell, the same upside down.
    virtual std::optional<size_t> peak(size_t vital, size_t index, bool forward) const = 0;

    virtual const std::vector<Mark> &findings() const = 0;  // by from_ns, as all marks
    virtual const std::vector<Mark> &damage() const = 0;    // and gaps

    virtual bool has_processes() const = 0;
    virtual std::vector<ProcessRow> processes(size_t index) = 0;
    // CPU usage and resident memory (KiB) of a process, as line().
    struct ProcessLines {
        Line cpu, rss;
    };
    virtual ProcessLines process_lines(const ProcessId &process, size_t columns) const = 0;

    // The second of a time that a person gave; `index`: where the cursor is. Nothing, with the reason in *error, if it is
    // no time.
    virtual std::optional<size_t> find_time(const std::string &text, size_t index, std::string *error) const = 0;

    // A live recording goes on by itself, unless it is paused.
    virtual bool is_live() const { return false; }
    virtual bool paused() const { return false; }
    virtual void pause(bool /*pause*/) {}

    // Statistics of the newest seconds, if there are any: of how many, and of a vital.
    struct WindowFigures {
        double maximum = kUnknown, minimum = kUnknown, average = kUnknown;
    };
    virtual int window() const { return 0; }
    virtual WindowFigures window_figures(size_t /*vital*/) const { return {}; }

    // The last second that begins at or before that time; the first if there is none.
    size_t index_of(int64_t time_ns) const;
    Axis axis(size_t columns) const;
};

// The next top of a stretch of figures above `middle` that is after that place, or before it. `value`: of each place up to
// `size`. The top is the first of the highest.
std::optional<size_t> find_peak(size_t size, const std::function<double(size_t)> &value, double middle, size_t index,
                                bool forward);

// Whether the low figures of a vital are those that tell.
bool low_tells(size_t vital);

}  // namespace vestra_view
