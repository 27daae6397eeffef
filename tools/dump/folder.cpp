#include "tools/dump/folder.h"

#include <algorithm>

#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

constexpr size_t kCommLimit = 15;                  // bytes of a name that the kernel keeps
constexpr size_t kNamesMax = 1 << 14;              // that are remembered
constexpr size_t kProcessesMax = Processes::kMax;  // in each map
constexpr int kCore = 0;  // of all frames: a core with few samples has no time that can be checked
constexpr size_t kRoom = trace::kBlockMax - trace::kEmptyRecord;

// Figures of one process.
void clear_process(trace::SwitchMessage *message) {
    message->type = 1;
    message->element1 = message->pid = message->element4 = message->element5 = 0;
    message->cpu_a = message->cpu_b = message->rss = message->swap = 0;
    message->name = Folder::kName;
}

trace::SwitchMessage switch_message(const trace::FrameWalk &walk) {
    trace::SwitchMessage message;
    message.time_ns = walk.value(trace::kSwitchTime);
    message.element1 = walk.value(trace::kSwitchElement1);
    message.pid = walk.value(trace::kSwitchPid);
    message.element4 = walk.value(trace::kSwitchElement4);
    message.element5 = walk.value(trace::kSwitchElement5);
    message.cpu_a = walk.value(trace::kSwitchCpuA);
    message.cpu_b = walk.value(trace::kSwitchCpuB);
    message.rss = walk.value(trace::kSwitchRss);
    message.swap = walk.value(trace::kSwitchSwap);
    message.element10 = walk.value(trace::kSwitchElement10);
    message.element11 = walk.value(trace::kSwitchElement11);
    for (int i = 0; i < trace::kCoreCount; ++i) {
        message.cores[static_cast<size_t>(i)] = {walk.core(i, trace::kCoreUser), walk.core(i, trace::kCoreSystem),
                                                 walk.core(i, trace::kCoreIdle), walk.core(i, trace::kCoreTemperature),
                                                 walk.core(i, trace::kCoreIowait)};
    }
    return message;
}

trace::MeminfoMessage memory_message(const trace::FrameWalk &walk) {
    trace::MeminfoMessage message;
    message.time_ns = walk.value(trace::kMeminfoTime);
    message.element1 = walk.value(1);
    message.element2 = walk.value(2);
    message.name = "meminfo";
    for (int i = 0; i < 3; ++i) {
        const uint64_t *pair = walk.values(trace::kMeminfoDecimal0 + 2 * i);
        message.decimal[static_cast<size_t>(i)] = {pair[0], pair[1]};
    }
    message.element10 = walk.value(10);
    message.element11 = walk.value(11);
    message.element12 = walk.value(12);
    message.figure13 = walk.value(trace::kMeminfoPlain3);
    message.element14 = walk.value(14);
    message.element15 = walk.value(15);
    message.figure16 = walk.value(trace::kMeminfoPlain4);
    message.figure17 = walk.value(trace::kMeminfoPlain5);
    return message;
}

int64_t ticks_of_cores(const SwitchSample &sample) {
    int64_t ticks = 0;
    for (const CoreFigures &core : sample.cores) {
        ticks = trace::wrapping_sum(ticks, trace::wrapping_sum(core.user, core.system));
    }
    return ticks;
}

// How much a counter has risen.
uint64_t rise(uint64_t before, uint64_t now) {
    return now > before ? now - before : 0;
}

}  // namespace

/* ------------------------------ Names ------------------------------ */

bool NameFilter::lists(std::string_view name) {
    const std::string shown = printable(name);
    bool listed = false;
    for (size_t i = 0; i < names_.size(); ++i) {
        const std::string_view given = names_[i];
        if (given != name && given != shown && given.substr(0, kCommLimit) != name) continue;
        found_[i] = listed = true;
    }
    return listed;
}

bool NameFilter::shows(std::string_view name) {
    const auto known = known_.find(std::string(name));
    if (known != known_.end()) return known->second;
    const bool shown = lists(name) == only_ && name != Folder::kName;
    if (known_.size() >= kNamesMax) known_.clear();
    known_.emplace(name, shown);
    const auto has = [name](const std::string &hidden) { return name.find(hidden) != std::string_view::npos; };
    if (shown && !only_ && telling_.size() < kNamesMax && std::any_of(names_.begin(), names_.end(), has)) {
        telling_.emplace(name);
    }
    return shown;
}

std::vector<std::string> NameFilter::doubts() const {
    std::vector<std::string> texts;
    for (size_t i = 0; i < names_.size(); ++i) {
        if (!found_[i]) texts.push_back("no process has the name '" + printable(names_[i]) + "'");
    }
    for (const std::string &name : telling_) {
        texts.push_back("'" + printable(name) + "' is not hidden, but a hidden name is a part of it");
    }
    return texts;
}

/* ------------------------------ Samples ------------------------------ */

Folder::Folder(NameFilter &filter, const TimeRange &range, Output &out)
    : filter_(filter), range_(range), out_(out), block_(trace::kBlockMax), writer_(block_.data(), kRoom) {}

void Folder::on_frame(const Frame &frame, const FrameMessages &messages) {
    finish_frame();
    const bool is_switch = messages.memories.empty();
    frame_.assign(reinterpret_cast<const char *>(frame.raw), frame.raw_size);
    trace::FrameWalk walk(frame.raw, frame.raw_size, is_switch ? trace::kSwitchFrame : trace::kMeminfoFrame);
    size_t begin = trace::kFrameHeader;
    for (size_t i = 0; i < messages.count() && walk.next(); ++i) {
        const Stamp &stamp = messages.stamps[i];
        const auto type = uint64_t{frame.raw[begin]} & 0x7f;  // 1 or 2, however it is encoded
        begin = stamp.end;
        if (!stamp.believed || !range_.holds(stamp.time_ns)) continue;
        if (!is_switch) {
            info_.push_back(memory_message(walk));
            info_.back().type = type;
            continue;
        }
        const SwitchSample &sample = messages.switches[i];
        Taken &taken = taken_.emplace_back();
        taken.message = switch_message(walk);
        taken.message.type = type;
        taken.shown = sample.pid != kPid && filter_.shows(sample.name);
        if (taken.shown) {
            static constexpr std::string_view kNoName("\0", 1);  // readers refuse one of no bytes
            const auto *raw = reinterpret_cast<const char *>(frame.raw);
            taken.message.name = sample.name.empty()
                                     ? kNoName
                                     : std::string_view(frame_).substr(static_cast<size_t>(sample.name.data() - raw),
                                                                       sample.name.size());
        }
        taken.core_ticks = ticks_of_cores(sample);
        taken.offset = frame.offset;
    }
}

// Comes after on_frame for each sample in the frame with a process, in order.
void Folder::on_process(const SwitchSample & /*sample*/, const Process &process) {
    while (next_ < taken_.size() && static_cast<int32_t>(taken_[next_].message.pid) == 0) ++next_;
    if (next_ == taken_.size()) return;
    Taken &taken = taken_[next_++];
    taken.process = process.number;
    taken.used_ticks = static_cast<uint64_t>(process.used_ticks);
    taken.late = static_cast<int64_t>(taken.message.time_ns) != process.last_ns;
}

void Folder::finish_frame() {
    new_frame_ = true;
    for (const trace::MeminfoMessage &message : info_) {
        settle();
        write(trace::kMeminfoFrame, message);
    }
    for (const Taken &taken : taken_) take(taken);
    info_.clear();
    taken_.clear();
    next_ = 0;
}

void Folder::take(const Taken &taken) {
    std::optional<uint64_t> wrong;
    const auto time_ns = static_cast<int64_t>(taken.message.time_ns);
    const int64_t second = time_ns / trace::kNsPerSecond;
    const TickCounter::Verdict cores = cores_.take(taken.core_ticks, time_ns, taken.offset, &wrong);
    const bool first = !second_ || second != *second_ || cores == TickCounter::kBegun;
    if (first) settle();
    // A reading of the cores' counters that is not believed is left out. But where the counters have begun again, a
    // reader must see two that agree.
    if (cores == TickCounter::kBegun && held_) write(trace::kSwitchFrame, *held_);
    held_.reset();
    if (taken.shown) write(trace::kSwitchFrame, taken.message);
    trace::SwitchMessage rest = taken.message;
    clear_process(&rest);
    if (cores != TickCounter::kHeld) {
        if (!taken.shown && first) write(trace::kSwitchFrame, rest);
        last_ = rest;
        second_ = second;
    } else if (!taken.shown) {
        held_ = rest;
    }
    if (taken.shown) return;
    owed_ = owed_ || taken.process != 0 || (cores != TickCounter::kHeld && !first);
    if (taken.process == 0) return;
    if (!first_) first_ = last_;
    account(taken);
}

void Folder::account(const Taken &taken) {
    const trace::SwitchMessage &now = taken.message;
    if (before_.size() >= kProcessesMax) before_.clear();
    Counters &before = before_[now.pid];
    if (before.process == taken.process) {
        const uint64_t user = std::min(taken.used_ticks, rise(before.user, now.cpu_a));
        used_.user += user;
        used_.system += taken.used_ticks - user;
        used_.read_kib += rise(before.read_kib, now.element4);
        used_.written_kib += rise(before.written_kib, now.element5);
    }
    if (!taken.late) before = {taken.process, now.cpu_a, now.element4, now.element5};

    const int64_t second = static_cast<int64_t>(now.time_ns) / trace::kNsPerSecond;
    Memory &memory = memory_[second];
    const bool known = memory.processes.count(taken.process) > 0;
    if (!known && in_memory_ >= kProcessesMax) forget_memory(second);
    if (!known && in_memory_ >= kProcessesMax) return;
    in_memory_ += known ? 0 : 1;
    auto &[rss, swap] = memory.processes[taken.process];
    memory.rss += now.rss - rss;
    memory.swap -= swap;
    rss = now.rss;
    swap = now.swap > 1 ? now.swap : 0;  // 1 says that nothing is swapped out
    memory.swap += swap;
}

// Makes room: the oldest seconds go, but not `kept`.
void Folder::forget_memory(int64_t kept) {
    while (in_memory_ >= kProcessesMax && memory_.size() > 1) {
        const auto oldest = memory_.begin()->first == kept ? std::next(memory_.begin()) : memory_.begin();
        in_memory_ -= oldest->second.processes.size();
        memory_.erase(oldest);
    }
}

// Writes what was left out.
void Folder::settle() {
    if (!owed_) return;
    owed_ = false;
    const auto found = memory_.find(*second_);
    if (found == memory_.end()) return write(trace::kSwitchFrame, last_);  // only the cores' counters
    const auto set_memory = [&memory = found->second](trace::SwitchMessage *message) {
        message->rss = memory.rss;
        message->swap = memory.swap == 0 && memory.rss > 0 ? 1 : memory.swap;
    };
    // The first two samples are of the same second: what was used between them must count, too.
    if (!other_ns_ && static_cast<int64_t>(first_->time_ns) / trace::kNsPerSecond == *second_) {
        set_memory(&*first_);
        write_other(*first_);
    }
    trace::SwitchMessage message = last_;
    set_memory(&message);
    write_other(message);
}

void Folder::write_other(trace::SwitchMessage message) {
    const auto time_ns = static_cast<int64_t>(message.time_ns);
    // A late sample counts nothing, as with any process. And nobody believes that all processes together use more than all
    // cores have; what is more is added as soon as there is time for it.
    if (!other_ns_) {
        other_ns_ = time_ns;
    } else if (time_ns >= *other_ns_) {
        const double seconds = trace::to_seconds(static_cast<int64_t>(trace::distance(time_ns, *other_ns_)));
        const auto most = static_cast<uint64_t>(TickCounter::most(seconds));
        const uint64_t user = std::min(rise(written_.user, used_.user), most);
        written_.user += user;
        written_.system += std::min(rise(written_.system, used_.system), most - user);
        other_ns_ = time_ns;
    }
    message.pid = kPid;
    message.element1 = 1;  // init, which adopts processes
    message.element4 = used_.read_kib;
    message.element5 = used_.written_kib;
    message.cpu_a = written_.user;
    message.cpu_b = written_.system;
    write(trace::kSwitchFrame, message);
}

/* ------------------------------ Frames and blocks ------------------------------ */

template <class Message>
void Folder::write(int type, const Message &message) {
    if (new_frame_ || type != type_) begin_frame(type);
    new_frame_ = false;
    if (!writer_.add(message)) {
        end_block();
        begin_frame(type);
        writer_.add(message);
    }
    ++messages_;
}

void Folder::begin_frame(int type) {
    type_ = type;
    if (writer_.begin_frame(type, kCore)) return;
    end_block();
    writer_.begin_frame(type, kCore);
}

void Folder::on_empty_record(uint64_t /*offset*/) {
    finish_frame();
    if (writer_.size() > 0) end_block();
}

void Folder::end(const DumpTotals &totals) {
    finish_frame();
    settle();
    if (writer_.size() > 0) end_block();
    if (totals.trailer) out_.write(totals.trailer->bytes);
}

void Folder::end_block() {
    trace::put_frame_len(0, block_.data() + writer_.size());
    out_.write({reinterpret_cast<const char *>(block_.data()), writer_.size() + trace::kEmptyRecord});
    writer_ = trace::FrameWriter(block_.data(), kRoom);
    new_frame_ = true;
}

}  // namespace vestra_dump
