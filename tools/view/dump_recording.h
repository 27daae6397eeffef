// dump_recording.h -- a dump as the screen shows it. Vitals, findings and damage come from the index; the processes of a
// second are read from the dump when they are asked for.
//
// The processes of a second are those with a sample in it; their figures are those of the last one, as in
// "vestra-dump csv --processes".
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/dump/wall_clock.h"
#include "tools/view/dump_index.h"
#include "tools/view/recording.h"

namespace vestra_view {

class DumpRecording : public Recording {
  public:
    // Reads the dump once. `source` and `survey` must outlive it. `path`: as it was given.
    DumpRecording(vestra_dump::ByteSource &source, vestra_dump::Survey &survey, const vestra_dump::DumpTime &time,
                  const std::string &path);

    size_t size() const override { return static_cast<size_t>(index_.seconds().size()); }
    Second second(size_t index) const override;
    std::string title() const override;
    std::string problem() const override;
    std::string wall_time(int64_t time_ns) const override { return time_.wall_time(time_ns); }
    Line line(size_t vital, size_t columns) const override;
    std::optional<size_t> peak(size_t vital, size_t index, bool forward) const override;
    const std::vector<Mark> &findings() const override { return index_.findings(); }
    const std::vector<Mark> &damage() const override { return index_.damage(); }
    bool has_processes() const override { return true; }
    std::vector<ProcessRow> processes(size_t index) override;
    ProcessLines process_lines(const ProcessId &process, size_t columns) const override;
    std::optional<size_t> find_time(const std::string &text, size_t index, std::string *error) const override;

    const vestra_dump::Summary &summary() const { return summary_; }

  private:
    std::optional<int64_t> growth(const ProcessRow &row) const;

    vestra_dump::ByteSource &source_;
    vestra_dump::Survey &survey_;
    vestra_dump::DumpTime time_;
    std::string path_, problem_;
    DumpIndex index_;
    vestra_dump::Summary summary_;
};

}  // namespace vestra_view
