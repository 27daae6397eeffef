#include "tools/dump/perfetto_trace.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <protozero/pbf_builder.hpp>
#include <type_traits>

#include "tools/dump/perfetto_fields.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

using namespace perfetto;
template <class Field>
using Builder = protozero::pbf_builder<Field>;
using Packet = Builder<TracePacket>;

constexpr int64_t kNs = trace::kNsPerSecond;
constexpr auto kNsPerTick = kNs / static_cast<int64_t>(trace::kTicksPerSecond);
constexpr uint64_t kKibMax = INT64_MAX / 1024;  // importers compute in bytes
constexpr int64_t kBatchNs = kNs / 10;
constexpr size_t kBatchMax = size_t{32} * 1024;       // bytes
constexpr double kWholeMax = 9'007'199'254'740'992.;  // 2^53: whole numbers below are exact

// Numbers of tracks, to which TraceIdentity::tracks is added.
enum TrackNumber : uint64_t { kRoot = 1, kMarks, kGaps, kFirstGroup, kFirstVital = 16, kFirstProcess = 64 };
static_assert(kFirstVital + kVitalCount <= kFirstProcess);

struct Group {
    const char *name;
    std::initializer_list<size_t> vitals;  // packet types, in the order in which they are shown
};
const Group kGroups[] = {
    {"CPU", {2, 4, 3, 10}}, {"Memory", {11, 16, 14, 15, 12}}, {"Temperature", {9, 5, 6, 7, 8}}, {"Load", {13, 1, 0}}};

protozero::data_view view(std::string_view text) {
    return {text.data(), text.size()};
}

// FNV-1a, and a step that mixes the last bytes into the upper bits.
uint64_t hash(std::string_view bytes) {
    uint64_t sum = 0xcbf29ce484222325;
    for (const char c : bytes) sum = (sum ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    return (sum ^ sum >> 32) * 0x9e3779b97f4a7c15;
}

std::string title(std::string_view name, const std::optional<int32_t> &pid) {
    std::string text(name);
    if (pid) text.append(text.empty() ? "pid " : " (pid ").append(std::to_string(*pid)).append(text.empty() ? "" : ")");
    return text;
}

// Annotations of an event.
class Annotations {
  public:
    explicit Annotations(Builder<TrackEvent> &event) : event_(event) {}

    template <class Value>
    void add(const char *name, const Value &value) {
        Builder<DebugAnnotation> one(event_, TrackEvent::kDebugAnnotations);
        one.add_string(DebugAnnotation::kName, name);
        if constexpr (std::is_floating_point_v<Value>) {
            one.add_double(DebugAnnotation::kDoubleValue, value);
        } else if constexpr (std::is_unsigned_v<Value>) {
            one.add_uint64(DebugAnnotation::kUintValue, value);
        } else if constexpr (std::is_signed_v<Value>) {
            one.add_int64(DebugAnnotation::kIntValue, value);
        } else {
            one.add_string(DebugAnnotation::kStringValue, view(value));
        }
    }

  private:
    Builder<TrackEvent> &event_;
};

}  // namespace

TraceIdentity identify(const std::string &machine, const std::string &path, const Survey &survey) {
    const std::string file = path == "-" ? "standard input" : std::filesystem::path(path).filename().string();
    const TimeSpan span = survey.timeline.span().value_or(TimeSpan{});
    std::string dump = file;
    for (const auto figure : {static_cast<int64_t>(survey.totals.bytes), span.first_ns, span.newest_ns}) {
        dump.append(1, '/').append(std::to_string(figure));
    }
    const auto id = static_cast<uint32_t>(hash(machine.empty() ? dump : machine) >> 36);  // in four bytes as a varint
    return {printable(machine.empty() ? file : machine), std::max(id, 1U), hash(dump) >> 43 << 20};
}

PerfettoTrace::PerfettoTrace(const TraceIdentity &identity, const DumpTime &time, int64_t first_ns, Output &out)
    : machine_(identity.machine),
      range_(time.range),
      out_(out),
      tracks_begin_(identity.tracks),
      next_track_(identity.tracks + kFirstProcess) {
    write_clocks(time, first_ns);
    write_vital_tracks(identity.name);
}

// A time below 0 is left out.
template <class Fill>
void PerfettoTrace::write_packet(int64_t time_ns, Fill fill) {
    protozero::pbf_writer trace(out_.buffer());
    {
        Packet packet(trace, kPacket);
        if (time_ns >= 0) packet.add_uint64(TracePacket::kTimestamp, static_cast<uint64_t>(time_ns));
        packet.add_uint32(TracePacket::kSequenceId, 1);
        packet.add_uint32(TracePacket::kMachineId, machine_);
        if (first_) {
            packet.add_uint32(TracePacket::kSequenceFlags, kIncrementalStateCleared);
            packet.add_bool(TracePacket::kFirstPacketOnSequence, true);
            first_ = false;
        }
        fill(packet);
    }
    out_.done();
}

template <class Fill>
void PerfettoTrace::write_track(int64_t time_ns, uint64_t uuid, uint64_t parent, std::string_view name, Fill fill) {
    write_packet(time_ns, [&](Packet &packet) {
        Builder<TrackDescriptor> track(packet, TracePacket::kTrackDescriptor);
        track.add_uint64(TrackDescriptor::kUuid, uuid);
        if (parent != 0) track.add_uint64(TrackDescriptor::kParentUuid, parent);
        if (!name.empty()) track.add_string(TrackDescriptor::kName, view(name));
        fill(track);
    });
}

void PerfettoTrace::write_counter(int64_t time_ns, uint64_t uuid, double figure) {
    write_packet(time_ns, [&](Packet &packet) {
        Builder<TrackEvent> event(packet, TracePacket::kTrackEvent);
        event.add_enum(TrackEvent::kType, kCounter);
        event.add_uint64(TrackEvent::kTrackUuid, uuid);
        if (std::trunc(figure) == figure && std::fabs(figure) < kWholeMax) {  // shorter
            event.add_int64(TrackEvent::kCounterValue, static_cast<int64_t>(figure));
        } else {
            event.add_double(TrackEvent::kDoubleCounterValue, figure);
        }
    });
}

template <class Fill>
void PerfettoTrace::write_event(int64_t time_ns, uint64_t uuid, int32_t type, std::string_view category,
                                std::string_view name, Fill annotate) {
    write_packet(time_ns, [&](Packet &packet) {
        Builder<TrackEvent> event(packet, TracePacket::kTrackEvent);
        event.add_enum(TrackEvent::kType, type);
        event.add_uint64(TrackEvent::kTrackUuid, uuid);
        if (type == kSliceEnd) return;
        event.add_string(TrackEvent::kCategories, view(category));
        event.add_string(TrackEvent::kName, view(name));
        annotate(Annotations(event));
    });
}

// One reading of both clocks is enough: neither was adjusted, as far as a dump knows.
void PerfettoTrace::write_clocks(const DumpTime &time, int64_t first_ns) {
    const auto unix_ns = time.unix_ns(first_ns);
    if (!unix_ns || *unix_ns < 0 || first_ns < 0) return;
    write_packet(first_ns, [&](Packet &packet) {
        Builder<ClockSnapshot> snapshot(packet, TracePacket::kClockSnapshot);
        for (const auto &[clock, reading] : {std::pair{kBoottime, first_ns}, {kRealtime, *unix_ns}}) {
            Builder<Clock> one(snapshot, ClockSnapshot::kClocks);
            one.add_uint32(Clock::kClockId, clock);
            one.add_uint64(Clock::kTimestamp, static_cast<uint64_t>(reading));
        }
        snapshot.add_enum(ClockSnapshot::kPrimaryTraceClock, kBoottime);
    });
}

void PerfettoTrace::write_vital_tracks(const std::string &name) {
    const uint64_t root = tracks_begin_ + kRoot;
    const auto ranked = [](int rank) {
        return [rank](Builder<TrackDescriptor> &track) {
            track.add_int32(TrackDescriptor::kSiblingOrderRank, rank);
            track.add_enum(TrackDescriptor::kChildOrdering, kOrderedByRank);
        };
    };
    int rank = 0;
    write_track(-1, root, 0, "Vitals of " + name, ranked(-1));
    write_track(-1, tracks_begin_ + kMarks, root, "Damage and findings", ranked(rank++));
    write_track(-1, tracks_begin_ + kGaps, root, "Seconds without samples", ranked(rank++));
    uint64_t group_track = tracks_begin_ + kFirstGroup;
    for (const Group &group : kGroups) {
        write_track(-1, group_track, root, group.name, ranked(rank++));
        int place = 0;
        for (const size_t type : group.vitals) {
            const VitalName &vital = kVitalNames[type];
            write_track(-1, tracks_begin_ + kFirstVital + type, group_track, vital.label,
                        [&](Builder<TrackDescriptor> &track) {
                            track.add_int32(TrackDescriptor::kSiblingOrderRank, place++);
                            std::string text = vital.meaning;
                            if (vital.from_module) text += "; as the kernel module sends it";
                            track.add_string(TrackDescriptor::kDescription, text);
                            Builder<CounterDescriptor> counter(track, TrackDescriptor::kCounter);
                            counter.add_string(CounterDescriptor::kUnitName, vital.unit);
                            counter.add_string(CounterDescriptor::kYAxisShareKey, vital.unit);
                        });
        }
        ++group_track;
    }
}

// Of each second, the latest counters that can be believed.
void PerfettoTrace::on_frame(const Frame &frame, const FrameMessages &messages) {
    for (size_t i = 0; i < messages.switches.size(); ++i) {
        const SwitchSample &sample = messages.switches[i];
        if (!messages.stamps[i].believed || !range_.holds(sample.time_ns) || sample.time_ns < 0) continue;
        int64_t ticks = 0;
        for (const CoreFigures &core : sample.cores) {
            for (const int64_t part : {core.user, core.system, core.idle, core.iowait}) {
                ticks = trace::wrapping_sum(ticks, part);
            }
        }
        std::optional<uint64_t> wrong;
        if (core_counter_.take(ticks, sample.time_ns, frame.offset, &wrong) == TickCounter::kHeld) continue;
        if (sample.time_ns < cores_ns_) continue;
        if (cores_ns_ >= 0 && sample.time_ns / kNs != cores_ns_ / kNs) write_cores();
        cores_ns_ = sample.time_ns;
        cores_ = sample.cores;
    }
}

void PerfettoTrace::write_cores() {
    const auto believable = [](int64_t ticks) { return ticks >= 0 && ticks <= INT64_MAX / kNsPerTick; };
    for (const CoreFigures &core : cores_) {
        if (!believable(core.user) || !believable(core.system) || !believable(core.idle) || !believable(core.iowait)) {
            return;
        }
    }
    write_packet(cores_ns_, [this](Packet &packet) {
        Builder<SysStats> stats(packet, TracePacket::kSysStats);
        for (uint32_t i = 0; i < cores_.size(); ++i) {
            const CoreFigures &core = cores_[i];
            Builder<CpuTimes> times(stats, SysStats::kCpuStat);
            times.add_uint32(CpuTimes::kCpuId, i);
            for (const auto &[field, ticks] : {std::pair{CpuTimes::kUserNs, core.user},
                                               {CpuTimes::kSystemNs, core.system},
                                               {CpuTimes::kIdleNs, core.idle},
                                               {CpuTimes::kIoWaitNs, core.iowait}}) {
                times.add_uint64(field, static_cast<uint64_t>(ticks * kNsPerTick));
            }
        }
    });
}

// An importer takes a second track of a process id for another process, and figures that are given by process id for those
// of the newest. So what is known of the earlier one is written before. The track has the time of the batch, or the batch
// would be earlier.
PerfettoTrace::Track &PerfettoTrace::track_of(const SwitchSample &sample) {
    const auto found = tracks_.find(sample.pid);
    if (found != tracks_.end() && found->second.name == sample.name) return found->second;
    if (found == tracks_.end() && tracks_.size() >= Processes::kMax) {
        tracks_.clear();
        forgot_ = true;
    }
    if (found != tracks_.end() || forgot_) start_batch(sample.time_ns);
    Track &track = tracks_[sample.pid];
    track = {next_track_, std::string(sample.name), -1, 0, 0, 0};
    next_track_ += 2;
    const std::string name = printable(sample.name);
    write_track(batch_ns_, track.uuid, 0, {}, [&](Builder<TrackDescriptor> &descriptor) {
        Builder<ProcessDescriptor> process(descriptor, TrackDescriptor::kProcess);
        process.add_int32(ProcessDescriptor::kPid, sample.pid);
        process.add_string(ProcessDescriptor::kProcessName, name);
    });
    protozero::pbf_writer tree(tree_);
    Builder<TreeProcess> process(tree, static_cast<protozero::pbf_tag_type>(ProcessTree::kProcesses));
    process.add_int32(TreeProcess::kPid, sample.pid);
    if (sample.parent > 0) process.add_int32(TreeProcess::kParent, sample.parent);
    process.add_string(TreeProcess::kCommandLine, name);
    // Of a single word, the importer takes what is before a blank.
    if (name.find(' ') != std::string::npos) process.add_string(TreeProcess::kCommandLine, "");
    return track;
}

// Only changes are written.
void PerfettoTrace::on_process(const SwitchSample &sample, const Process &process) {
    if (sample.time_ns < 0) return;
    if (sample.time_ns - batch_ns_ >= kBatchNs || sample.time_ns < batch_ns_ || stats_.size() >= kBatchMax) {
        start_batch(sample.time_ns);
    }
    Track &track = track_of(sample);
    const Usage &usage = process.usage;
    if (usage.known && std::isfinite(usage.total) && usage.total != track.percent) {
        if (track.percent < 0) {
            write_track(sample.time_ns, track.uuid + 1, track.uuid, "CPU", [](Builder<TrackDescriptor> &cpu) {
                Builder<CounterDescriptor> counter(cpu, TrackDescriptor::kCounter);
                counter.add_string(CounterDescriptor::kUnitName, "%");
            });
        }
        track.percent = usage.total;
        write_counter(sample.time_ns, track.uuid + 1, usage.total);
    }
    if (sample.rss == track.rss && sample.swap == track.swap) return;
    if (track.batch == batch_) start_batch(sample.time_ns);
    track.batch = batch_;
    batch_end_ns_ = std::max(batch_end_ns_, sample.time_ns);
    protozero::pbf_writer stats(stats_);
    Builder<StatsProcess> memory(stats, static_cast<protozero::pbf_tag_type>(ProcessStats::kProcesses));
    memory.add_int32(StatsProcess::kPid, sample.pid);
    if (sample.rss != track.rss) memory.add_uint64(StatsProcess::kRssKb, std::min(sample.rss, kKibMax));
    if (sample.swap != track.swap) memory.add_uint64(StatsProcess::kSwapKb, std::min(sample.swap, kKibMax));
    track.rss = sample.rss;
    track.swap = sample.swap;
}

// Writes the batch that there is.
void PerfettoTrace::start_batch(int64_t time_ns) {
    if (!tree_.empty()) {
        write_packet(batch_ns_, [this](Packet &packet) { packet.add_message(TracePacket::kProcessTree, tree_); });
    }
    if (!stats_.empty()) {
        protozero::pbf_writer(stats_).add_uint64(static_cast<protozero::pbf_tag_type>(ProcessStats::kCollectionEnd),
                                                 static_cast<uint64_t>(batch_end_ns_));
        write_packet(batch_ns_, [this](Packet &packet) { packet.add_message(TracePacket::kProcessStats, stats_); });
    }
    tree_.clear();
    stats_.clear();
    batch_ns_ = batch_end_ns_ = time_ns;
    ++batch_;
}

void PerfettoTrace::on_second(const SecondVitals &second) {
    if (second.time_ns < 0) return;
    if (last_second_ >= 0 && second.second > last_second_ + 1) {
        const uint64_t gaps = tracks_begin_ + kGaps;
        write_event((last_second_ + 1) * kNs, gaps, kSliceBegin, "gap", "No samples", [](Annotations) {});
        write_event(second.second * kNs, gaps, kSliceEnd, {}, {}, [](Annotations) {});
    }
    last_second_ = second.second;
    for (size_t type = 0; type < kVitalCount; ++type) {
        const double figure = second.vital[type];
        if (!second.knows(type) || !std::isfinite(figure)) continue;
        write_counter(second.time_ns, tracks_begin_ + kFirstVital + type, figure);
    }
    if (!second.has_memory) return;
    write_packet(second.time_ns, [&second](Packet &packet) {
        Builder<SysStats> stats(packet, TracePacket::kSysStats);
        for (const auto &[key, type] : {std::pair{kMemFree, 14}, {kMemAvailable, 16}, {kCached, 15}}) {
            const double kib = second.vital[static_cast<size_t>(type)];
            if (!(kib >= 0 && kib < kWholeMax / 1024)) continue;
            Builder<MeminfoValue> one(stats, SysStats::kMeminfo);
            one.add_enum(MeminfoValue::kKey, key);
            one.add_uint64(MeminfoValue::kValue, static_cast<uint64_t>(kib));
        }
    });
}

// Damage is marked at the last sample before it, or at the first sample of the dump.
void PerfettoTrace::on_damage(const DamagedSpan &span) {
    const auto time_ns = span.from_ns ? span.from_ns : span.to_ns;
    if (!time_ns || !range_.holds(*time_ns) || *time_ns < 0) return;
    write_event(*time_ns, tracks_begin_ + kMarks, kInstant, "damage", "Damage", [&span](Annotations mark) {
        mark.add("reason", std::string_view(describe(span.reason)));
        mark.add("offset", span.offset);
        mark.add("bytes", span.bytes);
        mark.add("messages", span.messages);
    });
}

void PerfettoTrace::write_attributes(const Overview &overview) {
    const DumpTotals &totals = overview.summary.totals;
    write_packet(-1, [&](Packet &packet) {
        Builder<TraceAttributes> all(packet, TracePacket::kTraceAttributes);
        const auto add = [&all](const char *key, const auto &value) {
            Builder<Attribute> one(all, TraceAttributes::kAttribute);
            one.add_string(Attribute::kKey, key);
            if constexpr (std::is_integral_v<std::decay_t<decltype(value)>>) {
                one.add_int64(Attribute::kLongValue, static_cast<int64_t>(value));
            } else {
                one.add_string(Attribute::kStringValue, value);
            }
        };
        add("dump", printable(overview.path));
        if (totals.trailer) {
            add("model", printable(totals.trailer->model));
            add("build", printable(totals.trailer->build));
        }
        add("has_trailer", totals.trailer.has_value());
        add("damaged_bytes", totals.damaged_bytes);
        add("damaged_spans", totals.damaged_spans);
        add("samples_astray", overview.summary.samples_astray);
    });
}

void PerfettoTrace::end(const Overview &overview, const std::vector<Finding> &findings) {
    start_batch(batch_end_ns_);
    if (cores_ns_ >= 0) write_cores();
    for (const Finding &finding : findings) {
        if (finding.from_ns < 0) continue;
        std::string name = finding.kind;
        if (finding.pid || !finding.name.empty()) name.append(": ").append(title(finding.name, finding.pid));
        write_event(finding.from_ns, tracks_begin_ + kMarks, kInstant, "finding", name, [&finding](Annotations mark) {
            mark.add("text", finding.text);
            mark.add("score", finding.score);
            mark.add("until_ns", finding.to_ns);
            mark.add("command", finding.command);
        });
    }
    write_attributes(overview);
}

}  // namespace vestra_dump
