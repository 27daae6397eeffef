#include "set/trace/synthetic_source.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <utility>

namespace vestra_set {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;  // ns
constexpr uint64_t kShortestStep = 100'000;  // ns; figures are kept in microseconds
constexpr uint64_t kStart = 600 * kSecond;   // the set has been up for ten minutes
constexpr uint64_t kTick = 4000;             // us: 250 per second
constexpr uint32_t kDefaultProcesses = 24;
constexpr uint32_t kMaxProcesses = 32000;
constexpr size_t kFrameMessages = 8;      // most messages of a switch frame
constexpr size_t kInfoEvery = 64;         // switch frames between two CPU and memory frames
constexpr size_t kMessageGuess = 128;     // about the bytes of a switch message; spreads time stamps over a full block
constexpr size_t kDamageRoom = 1024;      // bytes that the longest damaged frame needs
constexpr uint64_t kSwapTotal = 524'288;  // KiB

constexpr const char *kNames[] = {"ui-shell", "compositor", "media-player", "audio-mixer", "browser", "tuner",
                                  "epg",      "input",      "netd",         "voice",       "updater", "logger"};
constexpr std::string_view kIdleName = "swapper";
constexpr size_t kCommLimit = 15;  // bytes of a name that the kernel keeps

// Ticks of something that takes `ppm` millionths of `us`, and `extra` millionths of a microsecond.
uint64_t ticks(uint64_t us, uint64_t ppm, uint64_t extra) {
    return (us * ppm + extra) / (kTick * kWhole);
}

}  // namespace

bool reports(const ModuleControl &control, int64_t pid, std::string_view name) {
    if (control.names.empty() && control.pids.empty()) return true;
    const auto named = [&](const std::string &listed) {
        return std::string_view(listed).substr(0, kCommLimit) == name.substr(0, kCommLimit);
    };
    return std::find(control.pids.begin(), control.pids.end(), pid) != control.pids.end() ||
           std::any_of(control.names.begin(), control.names.end(), named);
}

/* ------------------------------ Set-up ------------------------------ */

std::unique_ptr<SyntheticSource> SyntheticSource::make(const SourceOptions &options, std::string *error) {
    static constexpr std::pair<const char *, Profile> kProfiles[] = {{"steady", Profile::kSteady},
                                                                     {"burst", Profile::kBurst},
                                                                     {"stall", Profile::kStall},
                                                                     {"hostile", Profile::kHostile},
                                                                     {"everyday", Profile::kEveryday}};
    const auto *const found = std::find_if(std::begin(kProfiles), std::end(kProfiles),
                                           [&](const auto &entry) { return options.profile == entry.first; });
    std::vector<SyntheticFault> faults(options.faults.size());
    for (size_t i = 0; i < faults.size(); ++i) {
        if (!parse_fault(options.faults[i], &faults[i], error)) return nullptr;
    }
    if (found == std::end(kProfiles)) {
        *error = "profile \"" + options.profile + "\": must be steady, burst, stall, hostile or everyday";
    } else if (options.processes > kMaxProcesses) {
        *error = std::to_string(options.processes) + " processes: must be at most " + std::to_string(kMaxProcesses);
    } else if (options.step_ns < kShortestStep || options.step_ns > 3600 * kSecond) {
        *error = "step of " + std::to_string(options.step_ns) + " ns: must be 100 us to 1 h";
    } else {
        std::unique_ptr<SyntheticSource> source(new SyntheticSource(options, found->second));
        source->events_.plant(std::move(faults), source->processes_, kStart);
        return source;
    }
    return nullptr;
}

std::unique_ptr<TraceSource> make_synthetic_source(const SourceOptions &options, std::string *error) {
    return SyntheticSource::make(options, error);
}

SyntheticSource::SyntheticSource(const SourceOptions &options, Profile profile)
    : profile_(profile),
      block_size_(options.block_size),
      step_ns_(options.rate > 0 ? static_cast<uint64_t>(static_cast<double>(kSecond) / options.rate) : options.step_ns),
      pace_(options.rate),
      random_(options.seed),
      events_(profile == Profile::kEveryday, options.seed) {
    clock_ = {kStart, kStart / 1000};
    make_processes(options.processes > 0 ? options.processes : kDefaultProcesses);
    ModuleControl control;
    control.tracing = true;
    SyntheticSource::apply(control);
}

void SyntheticSource::make_processes(uint32_t count) {
    processes_.resize(count);
    std::array<uint64_t, kCoreCount> weights{};
    std::vector<uint64_t> weight(count);
    for (uint32_t i = 0; i < count; ++i) {
        SyntheticProcess &process = processes_[i];
        process.core = static_cast<uint8_t>(static_cast<uint64_t>(i) * kCoreCount / count);
        process.pid = 300 + i;
        process.parent = i < 8 ? 1 : 300 + static_cast<uint32_t>(random(i));
        process.name = std::string(kNames[i % std::size(kNames)]);
        if (i >= std::size(kNames))
            process.name = process.name.substr(0, 9) + "-" + std::to_string(i / std::size(kNames));
        process.rss = 1024 + random(120'000);
        process.swap = 1 + random(8000);
        process.disk_rate = random(64);
        weight[i] = 1 + random(100) * random(100);
        weights[process.core] += weight[i];
    }
    for (uint32_t i = 0; i < count; ++i) {
        SyntheticProcess &process = processes_[i];
        const uint64_t share = weight[i] * kCoreLoad / weights[process.core];
        process.system_ppm = share * (10 + random(30)) / 100;
        process.user_ppm = share - process.system_ppm;
        user_ppm_[process.core] += process.user_ppm;
        system_ppm_[process.core] += process.system_ppm;
    }
}

void SyntheticSource::apply(const ModuleControl &control) try {
    control_ = control;
    reported_.clear();
    for (uint32_t i = 0; i < processes_.size(); ++i) {
        if (reports(control, processes_[i].pid, processes_[i].name)) reported_.push_back(i);
    }
    next_process_ = 0;
} catch (const std::exception &) {
    reported_.clear();  // then only the idle process is reported
}

/* ------------------------------ The figures ------------------------------ */

SyntheticSource::Clock SyntheticSource::at(const Clock &begin, uint64_t ns) const {
    return {ns, begin.work_us + (ns - begin.ns) / 1000 * load_ / 1000};
}

CoreTimes SyntheticSource::core_times(size_t core, const Clock &now, const ExtraTime &extra) const {
    const uint64_t up_us = now.ns / 1000;
    const uint64_t seconds = now.ns / kSecond;
    const uint64_t busy =
        now.work_us * (user_ppm_[core] + system_ppm_[core]) + extra.user + extra.system + extra.iowait;
    CoreTimes times;
    times.user = ticks(now.work_us, user_ppm_[core], extra.user);
    times.system = ticks(now.work_us, system_ppm_[core], extra.system);
    times.iowait = ticks(up_us, kEvenIoWait, extra.iowait);
    times.idle = (up_us * (kWhole - kEvenIoWait) - busy) / (kTick * kWhole);
    const int64_t base = control_.temperature != 0 ? control_.temperature : 45;
    times.temperature = static_cast<uint64_t>(base + static_cast<int64_t>(core + swing(seconds, 60, 6)));
    return times;
}

// The figures of a switch message that do not belong to a process.
SwitchMessage SyntheticSource::set_message(const Clock &now) const {
    SwitchMessage message;
    message.type = messages_ % 8 == 7 ? 2 : 1;
    message.time_ns = now.ns;
    message.name = kIdleName;
    message.element10 = 400 + 5 * load_ + swing(now.ns / kSecond, 20, 300);
    message.element11 = 1 + load_ / 250;
    const ExtraTime extra = events_.core_extra(now.ns);
    for (size_t core = 0; core < kCoreCount; ++core) message.cores[core] = core_times(core, now, extra);
    events_.change_set(&message);
    return message;
}

// The reported process with this index; the idle process if none is reported.
SwitchMessage SyntheticSource::switch_message(size_t index, const Clock &now) const {
    SwitchMessage message = set_message(now);
    if (!reported_.empty()) {
        const size_t number = reported_[index % reported_.size()];
        const SyntheticProcess &process = processes_[number];
        const ExtraTime extra = events_.process_extra(number, now.ns);
        const uint64_t disk = now.work_us * process.disk_rate / 1'000'000;
        message.element1 = process.parent;
        message.pid = process.pid;
        message.name = process.name;
        message.element4 = control_.disk_read ? disk : 0;
        message.element5 = control_.disk_write ? disk / 2 : 0;
        message.cpu_a = ticks(now.work_us, process.user_ppm, extra.user);
        message.cpu_b = ticks(now.work_us, process.system_ppm, extra.system);
        message.rss = process.rss + swing(now.ns / kSecond + process.pid, 30, process.rss / 8);
        message.swap = process.swap;
        events_.change(number, &message);
    }
    return message;
}

MeminfoMessage SyntheticSource::info_message(const Clock &now) const {
    const uint64_t seconds = now.ns / kSecond;
    const uint64_t used = 550 + swing(seconds, 90, 300);  // thousandths of the memory
    const uint64_t swapped = 50 + swing(seconds, 300, 200);
    MeminfoMessage message;
    message.time_ns = now.ns;
    message.element1 = processes_.size();
    message.element2 = 1 + load_ / 250;
    message.name = "meminfo";
    message.decimal = {tenths(used), tenths(swapped), tenths(load_ / 25)};
    message.element10 = kMemory;
    message.element11 = kSwapTotal;
    message.element12 = swing(seconds, 10, 900);
    message.figure13 = kMemory * (1000 - used) / 2000;
    message.element14 = 20'000;
    message.element15 = 60'000;
    message.figure16 = kMemory * (1000 - used) / 2500;
    message.figure17 = kMemory * (1000 - used) / 1000;
    events_.change(&message);
    return message;
}

/* ------------------------------ Blocks ------------------------------ */

size_t SyntheticSource::next_block(uint8_t *out, size_t capacity) try {
    const uint64_t periods = pace_.take();
    if (periods == 0) return 0;
    plan_.frames.clear();
    const uint64_t block = blocks_++;
    const bool burst = profile_ == Profile::kBurst && block % 8 >= 6;
    plan_.begin_ns = clock_.ns;
    plan_.end_ns = clock_.ns + step_ns_ * periods;
    load_ = events_.begin_block(plan_.begin_ns, plan_.end_ns, next_load(burst));
    size_t size = 0;
    if (control_.tracing && !stalled()) {
        const bool fill = burst || (block_size_ > 0 && profile_ != Profile::kBurst);
        size = write_block(out, std::min<size_t>(capacity, block_size_ > 0 ? block_size_ : kBlockMax), fill);
    }
    clock_ = at(clock_, plan_.end_ns);
    return size;
} catch (const std::exception &) {
    return 0;
}

// In thousandths.
uint64_t SyntheticSource::next_load(bool burst) {
    if (profile_ == Profile::kBurst) return burst ? 1000 : 100;
    if (profile_ != Profile::kEveryday) return 700 + random(301);
    wander_ = std::clamp<uint64_t>(wander_ + random(121), 60, 360) - 60;
    return 200 + wander_;
}

bool SyntheticSource::stalled() {
    if (profile_ != Profile::kStall) return false;
    if (stall_left_ > 0) {
        --stall_left_;
        return true;
    }
    if (stall_next_ > 0) {
        --stall_next_;
        return false;
    }
    stall_next_ = 1 + random(8);
    stall_left_ = random(24);
    return true;
}

PlannedFrame *SyntheticSource::plan_frame(const FrameWriter &writer, Damage damage) {
    if (!keep_plan_) return nullptr;
    PlannedFrame frame;
    frame.offset = writer.size();
    frame.damage = damage;
    frame.reached = !given_up_;
    plan_.frames.push_back(std::move(frame));
    return &plan_.frames.back();
}

// Writes every process once or, with `fill`, as many messages as fit.
size_t SyntheticSource::write_block(uint8_t *out, size_t limit, bool fill) {
    if (limit < kEmptyRecord) return 0;
    FrameWriter writer(out, limit - kEmptyRecord);
    const Clock begin = clock_;
    const uint64_t span = plan_.end_ns - plan_.begin_ns;
    const size_t once = std::max<size_t>(reported_.size(), 1);
    const size_t target = fill ? limit / kMessageGuess + 1 : once;
    const uint64_t gap = span / target;
    given_up_ = false;
    bool room = write_info(&writer, begin);
    size_t written = 0;
    for (size_t frames = 1; room && (fill || written < target); ++frames) {
        const uint64_t now = begin.ns + std::min<uint64_t>(written * gap, span - 1);
        write_guests(&writer, begin, now);
        if (profile_ == Profile::kHostile && random(3) == 0) write_damage(&writer, at(begin, now));
        const size_t count = std::min(kFrameMessages, fill ? kFrameMessages : target - written);
        const size_t added = write_switches(&writer, at(begin, now), gap, count);
        written += added;
        room = added > 0;
        if (frames % kInfoEvery == 0) room = room && write_info(&writer, at(begin, now));
    }
    write_guests(&writer, begin, plan_.end_ns);
    if (writer.size() == 0 && !events_.recorded(begin.ns)) return 0;  // in a gap
    FrameWriter mark(out + writer.size(), kEmptyRecord);
    if (profile_ == Profile::kHostile && random(6) == 0) {
        plan_frame(writer, Damage::kCutLength);
        mark.put_bytes("\x07\x07\x07", 1 + static_cast<size_t>(random(3)));
    } else {
        mark.end_block();
    }
    return writer.size() + mark.size();
}

bool SyntheticSource::write_info(FrameWriter *writer, const Clock &now) {
    if (!events_.recorded(now.ns)) return true;
    const MeminfoMessage message = info_message(now);
    if (writer->room() < kLengthField + kFrameHeader + message_size(message)) return false;
    PlannedFrame *planned = plan_frame(*writer, Damage::kNone);
    writer->begin_frame(kMeminfoFrame, 0);
    writer->add(message);
    if (planned != nullptr) planned->infos.push_back(message);
    return true;
}

// Writes one frame of up to `count` messages of processes of one core, `gap_ns` apart. Returns the number that fit, those
// included that are not reported at the time.
size_t SyntheticSource::write_switches(FrameWriter *writer, const Clock &begin, uint64_t gap_ns, size_t count) {
    size_t added = 0;
    int core = -1;  // of the frame
    PlannedFrame *planned = nullptr;
    for (; added < count; ++added) {
        const uint64_t now = std::min<uint64_t>(begin.ns + added * gap_ns, plan_.end_ns - 1);
        const bool none = reported_.empty();
        if (none ? events_.recorded(now) : events_.reported(reported_[next_process_], now)) {
            const SwitchMessage message = switch_message(next_process_, at(begin, now));
            const int its_core = none ? 0 : processes_[reported_[next_process_]].core;
            if (core < 0) {
                if (writer->room() < kLengthField + kFrameHeader + message_size(message)) return 0;
                core = its_core;
                planned = plan_frame(*writer, Damage::kNone);
                writer->begin_frame(kSwitchFrame, core);
            }
            if (its_core != core || !writer->add(message)) break;
            if (planned != nullptr) planned->switches.push_back(message);
        }
        ++messages_;
        if (++next_process_ >= reported_.size()) next_process_ = 0;
    }
    return added;
}

// Writes the messages of guests that are due, each in a frame.
void SyntheticSource::write_guests(FrameWriter *writer, const Clock &begin, uint64_t until_ns) {
    uint64_t ns = 0;
    while (const Guest *guest = events_.next_guest(until_ns, &ns)) {
        SwitchMessage message = set_message(at(begin, ns));
        message.element1 = guest->parent;
        message.pid = guest->pid;
        message.name = guest->name;
        message.cpu_a = ticks((ns - guest->from_ns) / 1000, guest->ppm / 2, 0);
        message.cpu_b = message.cpu_a;
        message.rss = guest->rss;
        message.swap = 1;
        const bool room = writer->room() >= kLengthField + kFrameHeader + message_size(message);
        if (!room || !reports(control_, guest->pid, guest->name)) continue;
        PlannedFrame *planned = plan_frame(*writer, Damage::kNone);
        writer->begin_frame(kSwitchFrame, static_cast<int>(guest->pid % kCoreCount));
        writer->add(message);
        if (planned != nullptr) planned->switches.push_back(message);
    }
}

// Writes one damaged frame. False if there is too little room.
bool SyntheticSource::write_damage(FrameWriter *writer, const Clock &now) {
    if (writer->room() < kDamageRoom) return false;
    // Damage that makes a reader drop the rest of the block is rare, or little of the stream would be left.
    const bool ending = random(16) == 0;
    const auto first = static_cast<uint64_t>(ending ? Damage::kOverlongLength : Damage::kCore);
    const auto last = static_cast<uint64_t>(ending ? Damage::kBeyondBlock : Damage::kExtremes);
    const auto damage = static_cast<Damage>(first + random(last - first + 1));
    SwitchMessage good = switch_message(static_cast<size_t>(random(processes_.size())), now);
    const auto core =
        static_cast<int>(damage == Damage::kCore ? kCoreCount + random(256 - kCoreCount) : random(kCoreCount));
    const int type = damage == Damage::kUnknownType               ? 9 + static_cast<int>(random(247))
                     : damage == Damage::kNoise && random(2) == 0 ? kMeminfoFrame
                                                                  : kSwitchFrame;
    PlannedFrame *planned = plan_frame(*writer, damage);
    // Writes the frame up to its fault.
    const auto begin = [&] {
        writer->begin_frame(type, core);
        writer->add(good);
        if (planned != nullptr) planned->switches.push_back(good);
    };
    const auto noise = [&](uint64_t count) {
        for (; count > 0; --count) {
            const auto byte = static_cast<uint8_t>(random());
            writer->add_bytes(&byte, 1);
        }
    };
    switch (damage) {
        case Damage::kCore:
            writer->begin_frame(type, core);
            writer->add(good);
            break;
        case Damage::kMessageType: {
            static constexpr uint64_t kTypes[] = {0, 3, 127, 1ULL << 32, UINT64_MAX};
            begin();
            good.type = kTypes[random(std::size(kTypes))];
            writer->add(good);
            break;
        }
        case Damage::kLongVarint:
            begin();
            writer->add_varint(1);
            writer->add_long_varint(now.ns, 11);
            break;
        case Damage::kCutVarint:
            begin();
            writer->add_varint(1);
            writer->add_bytes("\x80\xff\x80", 1 + static_cast<size_t>(random(3)));
            break;
        case Damage::kEmptyName:
            begin();
            good.name = {};
            writer->add(good);
            break;
        case Damage::kNameTooLong: {
            static constexpr uint64_t kLengths[] = {200, INT32_MAX, UINT32_MAX, 1ULL << 32, INT64_MAX, UINT64_MAX};
            begin();
            for (const uint64_t value : {uint64_t{1}, now.ns, uint64_t{0}, good.pid}) writer->add_varint(value);
            writer->add_varint(kLengths[random(std::size(kLengths))]);
            noise(random(100));
            break;
        }
        case Damage::kCutMessage: {
            uint8_t scratch[kDamageRoom];
            FrameWriter whole(scratch, sizeof scratch);
            whole.begin_frame(kSwitchFrame, core);
            whole.add(good);
            const uint64_t size = whole.size() - kLengthField - kFrameHeader;
            begin();
            writer->add_bytes(scratch + kLengthField + kFrameHeader, 1 + static_cast<size_t>(random(size - 1)));
            break;
        }
        case Damage::kShortFrame:
            writer->begin_record(0);
            writer->add_bytes("\x07", 1);
            break;
        case Damage::kUnknownType:
            writer->begin_frame(type, core);
            noise(random(100));
            break;
        case Damage::kNoise:
            writer->begin_frame(type, core);
            writer->add_varint(100);  // not a message type
            noise(random(100));
            break;
        case Damage::kExtremes: {
            constexpr uint64_t kGreatest = std::numeric_limits<uint64_t>::max();
            SwitchMessage extreme;
            extreme.time_ns = now.ns;
            const std::string long_name(300, 'n');
            extreme.name = long_name;
            extreme.element1 = extreme.element4 = extreme.element5 = extreme.cpu_a = extreme.cpu_b = kGreatest;
            extreme.pid = extreme.rss = extreme.swap = extreme.element10 = extreme.element11 = kGreatest;
            for (CoreTimes &times : extreme.cores) times = {kGreatest, kGreatest, kGreatest, kGreatest, kGreatest};
            writer->begin_frame(type, core);
            writer->add(extreme);
            if (planned != nullptr) planned->switches.push_back(extreme);
            break;
        }
        case Damage::kOverlongLength:
            writer->begin_record(static_cast<uint32_t>(kFrameMax + 1 + random(UINT32_MAX - kFrameMax)));
            given_up_ = true;
            break;
        case Damage::kBeyondBlock:
            writer->begin_record(kFrameMax);
            given_up_ = true;
            break;
        case Damage::kNone:
        case Damage::kCutLength:
            break;
    }
    return true;
}

}  // namespace vestra_set
