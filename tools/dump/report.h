// report.h -- a dump as one self-contained HTML page.
#pragma once

#include "tools/dump/output.h"
#include "tools/dump/report_series.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

// Collects what the page shows. Memory is bounded, whatever the dump's length.
class Report : public DumpSink {
  public:
    void on_second(const SecondVitals &second) override { series_.add(second); }

    const VitalSeries &series() const { return series_; }

  private:
    VitalSeries series_;
};

// Writes the page. All texts from the dump are escaped.
void write_report(const Report &report, const Overview &overview, Output &out);

}  // namespace vestra_dump
