#include "tools/dump/analysis.h"

#include <algorithm>

namespace vestra_dump {
namespace {

int64_t whole_second(int64_t time_ns) {
    return time_ns / trace::kNsPerSecond * trace::kNsPerSecond;
}

class Analysis : public DumpVisitor {
  public:
    // `timeline`: asked which samples to believe, or with `learn` told of all samples, which are then believed.
    Analysis(Timeline *timeline, bool learn, const TimeRange &range, DumpSink &sink)
        : timeline_(*timeline), learn_(learn), range_(range), sink_(sink), vitals_([this](const SecondVitals &second) {
              hand_on(second);
          }) {}

    Summary read(ByteSource &source, size_t top, bool figures) {
        summary_.totals = read_dump(source, *this, figures);
        vitals_.finish();
        end_astray();
        for (const uint64_t offset : processes_.left_over()) mark_counter(offset);
        if (const auto offset = cores_.left_over()) mark_counter(*offset);
        hand_on_damage(std::nullopt);
        DumpTotals &totals = summary_.totals;
        for (const auto &[type, frames] : not_whole_) totals.frames[type] -= frames;
        totals.frame_bytes -= bytes_not_whole_;
        totals.damaged_bytes += bytes_not_whole_;
        totals.damaged_spans += spans_found_;
        summary_.by_cpu = processes_.top_by_cpu(top);
        summary_.by_memory = processes_.top_by_memory(top);
        summary_.processes = processes_.seen();
        return std::move(summary_);
    }

    std::string replay(ByteSource &source, const Checkpoint &from, uint64_t stop, uint64_t payload) {
        processes_.restore(from.processes);
        std::string error = read_part(source, from.place, stop, payload, *this);
        hand_on_damage(std::nullopt);
        return error;
    }

    void on_frame(const Frame &found, FrameMessages &messages) override {
        Frame frame = found;
        const bool timed = messages.count() > 0;
        if (timed && decide(&frame, &messages) == 0) return;
        if (timed) {
            hand_on_damage(frame.first_ns);
            last_ns_ = std::max(last_ns_.value_or(frame.last_ns), frame.last_ns);
            inside_ = frame.last_ns >= range_.from && frame.first_ns <= range_.to;
        }
        if (inside_ || range_.is_all()) sink_.on_frame(frame, messages);
        for (size_t i = 0; i < messages.switches.size(); ++i) {
            if (messages.stamps[i].believed) take(messages.switches[i], frame.offset);
        }
        for (size_t i = 0; i < messages.memories.size(); ++i) {
            if (messages.stamps[i].believed) take(messages.memories[i]);
        }
    }

    void on_empty_record(uint64_t offset) override {
        if (learn_) timeline_.add_block_end();
        sink_.on_empty_record(offset);
    }

    void on_block_end(const Place &next) override {
        const bool forgot = processes_.times_forgotten() != times_forgotten_;
        times_forgotten_ = processes_.times_forgotten();
        sink_.on_block_end(next.offset, forgot, [&] {
            return Checkpoint{next, timeline_.position(), processes_.save()};
        });
    }

    void on_damage(const DamagedSpan &span) override {
        if (learn_) timeline_.add_damage();
        end_astray();
        mark(span);
    }

  private:
    // Marks the stamps of a frame that are not believed and returns the number of those that are. The frame's times become
    // theirs.
    size_t decide(Frame *frame, FrameMessages *messages) {
        size_t believed = 0;
        for (Stamp &stamp : messages->stamps) {
            if (learn_) {
                if (!frame->whole) timeline_.add_damage();  // it may be between any two of its messages
                timeline_.add(frame->core, stamp.time_ns, frame->offset, frame->offset + frame->bytes);
            } else {
                stamp.believed = timeline_.believes(frame->core);
            }
            if (!stamp.believed) continue;
            frame->first_ns = believed == 0 ? stamp.time_ns : std::min(frame->first_ns, stamp.time_ns);
            frame->last_ns = believed == 0 ? stamp.time_ns : std::max(frame->last_ns, stamp.time_ns);
            ++believed;
        }
        const size_t astray = messages->count() - believed;
        if (astray == 0) {
            end_astray();
            return believed;
        }
        summary_.samples_astray += astray;
        if (frame->whole) {
            ++not_whole_[frame->type];
            bytes_not_whole_ += frame->bytes;
            if (astray_.bytes == 0) astray_ = {frame->offset, 0, Reason::kAstray, 0, {}, {}};
            astray_.bytes = frame->offset + frame->bytes - astray_.offset;
            astray_.messages += believed;
        }
        frame->whole = false;
        return believed;
    }

    void take(const SwitchSample &sample, uint64_t offset) {
        count_time(sample.time_ns);
        std::optional<uint64_t> wrong;
        if (sample.pid != 0) {
            const bool inside = range_.holds(sample.time_ns);
            const Process &process = processes_.take(sample, inside, offset, &wrong);
            if (inside) sink_.on_process(sample, process);
            if (wrong) mark_counter(*wrong);
        }
        int64_t ticks = 0;
        for (const CoreFigures &core : sample.cores) {
            ticks = trace::wrapping_sum(ticks, trace::wrapping_sum(core.user, core.system));
        }
        wrong.reset();
        if (cores_.take(ticks, sample.time_ns, offset, &wrong) != TickCounter::kHeld) vitals_.take(sample);
        if (wrong) mark_counter(*wrong);
    }

    void take(const MemorySample &sample) {
        count_time(sample.time_ns);
        vitals_.take(sample);
    }

    void count_time(int64_t time_ns) {
        if (!range_.holds(time_ns)) return;
        summary_.first_ns = std::min(summary_.first_ns.value_or(time_ns), time_ns);
        summary_.last_ns = std::max(summary_.last_ns.value_or(time_ns), time_ns);
    }

    void hand_on(const SecondVitals &second) {
        const int64_t begin = second.second * trace::kNsPerSecond;
        const bool from = range_.from <= 0 || begin >= whole_second(range_.from);
        if (from && begin <= range_.to) sink_.on_second(second);
    }

    void end_astray() {
        if (astray_.bytes == 0) return;
        ++spans_found_;
        const DamagedSpan span = astray_;
        astray_ = {};
        mark(span);
    }

    void mark_counter(uint64_t offset) {
        ++summary_.counters_wrong;
        if (offset == last_counter_) return;  // one mark for a frame
        last_counter_ = offset;
        ++spans_found_;
        mark({offset, 0, Reason::kCounters, 0, {}, {}});
    }

    // Damage waits until the time after it is known, but not for ever.
    void mark(DamagedSpan span) {
        span.from_ns = last_ns_;
        waiting_.push_back(span);
        if (waiting_.size() >= Summary::kSpansKept) hand_on_damage(std::nullopt);
    }

    void hand_on_damage(std::optional<int64_t> next_ns) {
        for (DamagedSpan &span : waiting_) {
            span.to_ns = next_ns;
            if (summary_.spans.size() < Summary::kSpansKept) summary_.spans.push_back(span);
            sink_.on_damage(span);
        }
        waiting_.clear();
    }

    Timeline &timeline_;
    const bool learn_;
    TimeRange range_;
    DumpSink &sink_;
    Vitals vitals_;
    Processes processes_;
    TickCounter cores_;  // user and system ticks of all
    Summary summary_;
    bool inside_ = false;             // the last frame with messages was in the range
    std::optional<int64_t> last_ns_;  // the newest time so far
    DamagedSpan astray_ = {};         // that grows; no bytes: there is none
    std::vector<DamagedSpan> waiting_;
    std::map<int, uint64_t> not_whole_;  // frames by type that are intact but not believed
    uint64_t bytes_not_whole_ = 0, spans_found_ = 0;
    uint64_t times_forgotten_ = 0;
    std::optional<uint64_t> last_counter_;  // offset of the frame with the last wrong counter
};

}  // namespace

double Summary::seconds() const {
    return first_ns ? trace::to_seconds(static_cast<int64_t>(trace::distance(*last_ns, *first_ns))) : 0;
}

double Summary::average_percent(const Process &process) const {
    const double ticks = trace::ticks_in(seconds());
    return ticks > 0 ? process.cpu_ticks * 100 / ticks : 0;
}

bool Survey::end_is_whole() const {
    return totals.end_is_whole() && timeline.last_astray().value_or(0) <= totals.last_block;
}

Survey survey(ByteSource &source) {
    DumpSink nothing;
    Survey survey;
    survey.totals = Analysis(&survey.timeline, true, {}, nothing).read(source, 0, false).totals;
    survey.timeline.finish();
    return survey;
}

Summary analyse(ByteSource &source, Timeline *timeline, const TimeRange &range, size_t top, DumpSink &sink) {
    timeline->rewind();
    return Analysis(timeline, false, range, sink).read(source, top, true);
}

std::string replay(ByteSource &source, Timeline *timeline, const Checkpoint &from, uint64_t stop, uint64_t payload,
                   DumpSink &sink) {
    timeline->go_to(from.timeline);
    return Analysis(timeline, false, {}, sink).replay(source, from, stop, payload);
}

std::optional<Summary> analyse_at_once(ByteSource &source, size_t top, DumpSink &sink, Survey *survey) {
    Summary summary = Analysis(&survey->timeline, true, {}, sink).read(source, top, true);
    survey->totals = summary.totals;
    survey->timeline.finish();
    return survey->timeline.astray() == 0 ? std::optional(std::move(summary)) : std::nullopt;
}

}  // namespace vestra_dump
