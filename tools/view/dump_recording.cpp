#include "tools/view/dump_recording.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <unordered_map>

#include "tools/dump/text.h"

namespace vestra_view {
namespace {

using vestra_dump::Process;
using vestra_dump::SwitchSample;

constexpr int64_t kNs = trace::kNsPerSecond;

// Keeps the last sample of each process in a second.
class Collector : public vestra_dump::DumpSink {
  public:
    explicit Collector(int64_t second) : second_(second) {}

    void on_process(const SwitchSample &sample, const Process &process) override {
        if (sample.time_ns < 0 || sample.time_ns / kNs != second_) return;
        ProcessRow &row = rows_[process.number];
        if (row.time_ns > sample.time_ns) return;
        if (row.name.empty()) row.name = vestra_dump::printable(process.name);
        row.pid = sample.pid;
        row.parent = sample.parent;
        row.time_ns = sample.time_ns;
        const auto percent = [&](double value) { return process.usage.known ? value : kUnknown; };
        row.cpu = percent(process.usage.total);
        row.user = percent(process.usage.user);
        row.system = percent(process.usage.system);
        row.rss = sample.rss;
        row.swap = sample.swap;
    }

    void on_damage(const vestra_dump::DamagedSpan &span) override {
        unreadable_ = unreadable_ || span.reason == vestra_dump::Reason::kUnreadable;
    }

    std::vector<ProcessRow> take_rows() {
        std::vector<ProcessRow> rows;
        rows.reserve(rows_.size());
        for (auto &[number, row] : rows_) rows.push_back(std::move(row));
        return rows;
    }
    bool unreadable() const { return unreadable_; }

  private:
    const int64_t second_;
    std::unordered_map<uint64_t, ProcessRow> rows_;  // by the process's number
    bool unreadable_ = false;
};

// A vital of seconds, read in large pieces.
class Column {
  public:
    Column(const DumpIndex &index, size_t vital)
        : seconds_(index.seconds()), tops_(index.extremes(vital).tops), vital_(vital) {}

    // Upside down where low figures tell. Any figure up to `middle` may stand for all up to it.
    double at(size_t index, double middle) {
        if (tops_[index / kPiece] <= middle) return middle;
        if (index / kPiece != piece_) {
            piece_ = index / kPiece;
            records_.resize(std::min<size_t>(kPiece, static_cast<size_t>(seconds_.size()) - piece_ * kPiece));
            seconds_.read(piece_ * kPiece, records_.data(), records_.size());
        }
        const double value = records_[index % kPiece].vitals[vital_];
        return low_tells(vital_) ? -value : value;
    }

  private:
    static constexpr size_t kPiece = DumpIndex::kPiece;
    const Spill<DumpIndex::SecondRecord> &seconds_;
    const std::vector<double> &tops_;
    const size_t vital_;
    size_t piece_ = SIZE_MAX;
    std::vector<DumpIndex::SecondRecord> records_;
};

void raise(double *figure, double value) {
    if (std::isnan(*figure) || value > *figure) *figure = value;
}

}  // namespace

DumpRecording::DumpRecording(vestra_dump::ByteSource &source, vestra_dump::Survey &survey,
                             const vestra_dump::DumpTime &time, const std::string &path)
    : source_(source),
      survey_(survey),
      time_(time),
      path_(path),
      index_(survey.timeline.span().value_or(vestra_dump::TimeSpan{}).newest_ns) {
    summary_ = analyse(source, &survey.timeline, {}, 0, index_);
    index_.finish(path, survey.timeline.span().value_or(vestra_dump::TimeSpan{}).first_ns);
}

Second DumpRecording::second(size_t index) const {
    const DumpIndex::SecondRecord record = index_.seconds().at(index);
    return {record.second, record.time_ns, record.vitals};
}

std::string DumpRecording::title() const {
    return path_ == "-" ? "standard input" : vestra_dump::printable(path_.substr(path_.rfind('/') + 1));
}

std::string DumpRecording::problem() const {
    return problem_.empty() ? index_.problem() : problem_;
}

Line DumpRecording::line(size_t vital, size_t columns) const {
    Line line(columns, kUnknown);
    const Axis along = axis(columns);
    const int64_t width = index_.bin_seconds();
    for (size_t column = 0; column < columns; ++column) {
        const Axis::Part covered = along.part(column);
        double figure = kUnknown;
        for (int64_t bin = covered.begin / width; bin <= (covered.end - 1) / width; ++bin) {
            if (bin >= static_cast<int64_t>(index_.bins().size())) break;
            const double value = static_cast<double>(index_.bins()[static_cast<size_t>(bin)][vital]);
            if (!std::isnan(value)) raise(&figure, low_tells(vital) ? -value : value);
        }
        line[column] = low_tells(vital) ? -figure : figure;
    }
    return line;
}

std::optional<size_t> DumpRecording::peak(size_t vital, size_t index, bool forward) const {
    const DumpIndex::Extremes &extremes = index_.extremes(vital);
    if (extremes.count == 0) return std::nullopt;
    const double middle = (extremes.sum / extremes.count + extremes.top) / 2;
    if (!(extremes.top > middle)) return std::nullopt;
    Column column(index_, vital);
    return find_peak(
        size(), [&](size_t at) { return column.at(at, middle); }, middle, index, forward);
}

std::vector<ProcessRow> DumpRecording::processes(size_t index) {
    const DumpIndex::SecondRecord record = index_.seconds().at(index);
    Collector collector(record.second);
    problem_ = vestra_dump::replay(source_, &survey_.timeline, index_.checkpoint_before(record.begin), record.end,
                                   summary_.totals.payload_bytes, collector);
    if (collector.unreadable()) problem_ = "parts of this second cannot be read";
    if (!problem_.empty()) problem_ = "the dump: " + problem_;
    std::vector<ProcessRow> rows = collector.take_rows();
    for (ProcessRow &row : rows) row.growth = growth(row);
    return rows;
}

std::optional<int64_t> DumpRecording::growth(const ProcessRow &row) const {
    const auto &tracks = index_.tracks();
    const auto after = std::upper_bound(tracks.begin(), tracks.end(), row, [](const ProcessRow &a, const auto &track) {
        return std::tie(a.pid, a.time_ns) < std::tie(track.id.pid, track.first_ns);
    });
    if (after == tracks.begin()) return std::nullopt;
    const DumpIndex::Track &track = *std::prev(after);
    if (!(track.id == ProcessId{row.pid, row.name})) return std::nullopt;
    return static_cast<int64_t>(row.rss - track.first_rss);
}

Recording::ProcessLines DumpRecording::process_lines(const ProcessId &process, size_t columns) const {
    ProcessLines lines = {Line(columns, kUnknown), Line(columns, kUnknown)};
    const auto &tracks = index_.tracks();
    const Axis along = axis(columns);
    const auto begin = std::lower_bound(tracks.begin(), tracks.end(), process.pid,
                                        [](const auto &track, int32_t pid) { return track.id.pid < pid; });
    for (auto track = begin; track != tracks.end() && track->id.pid == process.pid; ++track) {
        if (track->id.name != process.name) continue;
        for (const auto &point : track->points) {
            const int64_t from = along.first + int64_t{point.slot} * index_.slot_seconds();
            const size_t first = along.column_of(from), next = along.column_of(from + index_.slot_seconds());
            for (size_t column = first; column < std::max(next, first + 1); ++column) {
                if (!std::isnan(point.cpu)) raise(&lines.cpu[column], static_cast<double>(point.cpu));
                raise(&lines.rss[column], point.rss);
            }
        }
    }
    return lines;
}

std::optional<size_t> DumpRecording::find_time(const std::string &text, size_t index, std::string *error) const {
    // A time of day is one of the cursor's day.
    const std::string day = wall_time(second(index).time_ns).substr(0, 10);
    const bool of_day = text.size() >= 5 && text[2] == ':' && !day.empty();
    vestra_dump::TimeOptions options;
    options.from = of_day ? day + "T" + text : text;
    vestra_dump::DumpTime time;
    // The epoch of the dump stays as it was given.
    options.epoch = "none";
    if (time_.epoch_ns) {
        const auto newest = survey_.timeline.span().value_or(vestra_dump::TimeSpan{}).newest_ns;
        options.epoch = std::to_string((*time_.epoch_ns + newest) / kNs);
    }
    if (!resolve(options, path_, survey_, &time, error)) return std::nullopt;
    return index_of(time.range.from);
}

}  // namespace vestra_view
