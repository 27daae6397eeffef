// report.h -- a dump as one self-contained HTML page.
#pragma once

#include <optional>
#include <vector>

#include "tools/dump/output.h"
#include "tools/dump/report_series.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

// Place of a damaged span on the time axis: between the samples around it.
struct DamageMark {
    std::optional<int64_t> before_ns, after_ns;  // nothing: the dump begins or ends there
};

// Collects what the page shows. Memory is bounded, whatever the dump's length.
class Report : public Summariser {
  public:
    Report(std::string path, const DumpTime &time, size_t top) : Summariser(std::move(path), time, top) {}

    void on_second(const SecondVitals &second) override { series_.add(second); }
    void on_time(int64_t time_ns) override;
    void on_damage(const DamagedSpan &span) override;

    const VitalSeries &series() const { return series_; }

    // One for each span of the summary.
    const std::vector<DamageMark> &marks() const { return marks_; }

  private:
    VitalSeries series_;
    std::vector<DamageMark> marks_;
    size_t open_ = 0;  // marks from here on wait for the next sample
    std::optional<int64_t> last_ns_;
};

// Writes the page. All texts from the dump are escaped.
void write_report(const Report &report, Output &out);

}  // namespace vestra_dump
