#include "set/trace/synthetic_faults.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

#include "set/trace/synthetic_source.h"

namespace vestra_set {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;       // ns
constexpr uint64_t kLatestFault = 1'000'000'000;  // seconds
constexpr uint64_t kUsable = 960'000;             // millionths of a core that activities and I/O wait get at most
constexpr size_t kGuestsMax = 2000;               // of a block; more would not fit into it
constexpr uint32_t kGuestPids = 20'000;           // then process ids are used again
constexpr uint64_t kChildCpu = 12'000;            // us that a child of a storm runs, ...
constexpr uint64_t kStormCpu = 1'200'000;         // ... and at most all of them together in a second
constexpr uint64_t kThrottled = 550;              // thousandths of the load that are left when it is too hot
constexpr uint64_t kUnlimited = UINT64_MAX;

struct KindOfFault {
    const char *name;
    uint64_t usual, least, most;  // of the parameter; 0: it takes none
    const char *unit;
    bool of_process;
};
// By FaultKind. A storm's process is the parent.
constexpr KindOfFault kKinds[] = {{"memory-growth", 800, 1, 1'000'000, "KiB a second", true},
                                  {"cpu-hog", 80, 1, 98, "percent of a core", true},
                                  {"process-storm", 12, 1, 500, "processes a second", true},
                                  {"memory-pressure", 4, 1, 90, "percent of memory that stay available", false},
                                  {"io-wait", 15, 1, 75, "percent", false},
                                  {"overheating", 85, 50, 150, "degrees Celsius", false},
                                  {"vanished", 0, 0, 0, "", true},
                                  {"gap", 8, 1, 3600, "seconds", false}};
constexpr uint64_t kCool = 45;  // degrees Celsius: what overheating begins with

constexpr const char *kStormNames[] = {"sh", "cat", "grep", "sed"};
constexpr const char *kGuestNames[] = {"sh", "sync", "curl", "thumbnailer", "app-loader", "date", "dbus-call", "ls"};

const KindOfFault &kind_of(const SyntheticFault &fault) {
    return kKinds[static_cast<size_t>(fault.kind)];
}

bool take_number(std::string_view text, uint64_t *number) {
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), *number);
    return !text.empty() && parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
}

// Microseconds of a time in which [from, to) has run since `begin`.
uint64_t overlap_us(uint64_t from, uint64_t to, uint64_t begin, uint64_t now) {
    from = std::max(from, begin);
    to = std::min(to, now);
    return to > from ? (to - from) / 1000 : 0;
}

uint64_t whole_tenths(const trace::Decimal &figure) {
    return figure.integer * 10 + figure.fraction;
}

}  // namespace

const char *fault_name(FaultKind kind) {
    return kKinds[static_cast<size_t>(kind)].name;
}

bool parse_fault(const std::string &text, SyntheticFault *fault, std::string *error) {
    const size_t at = text.find('@'), colon = std::min(text.find(':'), at);
    const std::string name = text.substr(0, colon);
    const auto *const kind =
        std::find_if(std::begin(kKinds), std::end(kKinds), [&](const KindOfFault &row) { return name == row.name; });
    const bool with_parameter = colon < at;
    uint64_t parameter = 0;
    *error = "fault \"" + text + "\": ";
    if (at == std::string::npos || !take_number(text.substr(at + 1), &fault->second)) {
        *error += "must be KIND[:PARAM]@SECOND";
    } else if (kind == std::end(kKinds)) {
        *error += "the kinds are";
        for (const KindOfFault &row : kKinds) *error += std::string(&row == kKinds ? " " : ", ") + row.name;
    } else if (with_parameter && kind->most == 0) {
        *error += name + " takes no parameter";
    } else if (with_parameter && (!take_number(text.substr(colon + 1, at - colon - 1), &parameter) ||
                                  parameter < kind->least || parameter > kind->most)) {
        *error += "the parameter must be " + std::to_string(kind->least) + " to " + std::to_string(kind->most) + " (" +
                  kind->unit + ")";
    } else if (fault->second > kLatestFault) {
        *error += "the second must be at most " + std::to_string(kLatestFault);
    } else {
        error->clear();
        fault->kind = static_cast<FaultKind>(kind - std::begin(kKinds));
        fault->amount = (with_parameter ? parameter : kind->usual) * 1000;
        return true;
    }
    return false;
}

/* ------------------------------ Faults ------------------------------ */

void SyntheticEvents::plant(std::vector<SyntheticFault> faults, const std::vector<SyntheticProcess> &processes,
                            uint64_t begin_ns) {
    for (const SyntheticProcess &process : processes) pids_.push_back(process.pid);
    own_.resize(processes.size());
    first_guest_ = processes.back().pid + 100;
    next_second_ = begin_ns / kSecond;
    begin_ns_ = end_ns_ = begin_ns;
    for (Cache &cache : caches_) {
        cache = {random_.index(processes.size()), random_.between(8'000, 40'000), random_.between(30'000, 60'000),
                 random_.below(20'000)};
    }
    uint64_t number = 0;
    for (SyntheticFault &fault : faults) {
        const KindOfFault &kind = kind_of(fault);
        SeededRandom random(seed_ * 1000 + ++number);  // faults do not change what else happens
        const uint64_t cool = fault.kind == FaultKind::kOverheating ? kCool * 1000 : 0;
        fault.from_ns = begin_ns + fault.second * kSecond + random.below(kSecond / 1000) * 1000;
        fault.amount = cool + (fault.amount - cool) * random.between(700, 1300) / 1000;
        fault.amount = std::clamp(fault.amount, kind.least * 1000, kind.most * 1000);
        fault.ramp_ns = random.between(20, 30) * kSecond;
        const size_t process = random.index(processes.size());
        if (kind.of_process) {
            fault.process = process;
            fault.pid = processes[process].pid;
            fault.name = processes[process].name;
        }
        const uint64_t share = fault.amount * 10;  // of percent: millionths
        switch (fault.kind) {
            case FaultKind::kCpuHog:
                activities_.push_back({process, fault.from_ns, kUnlimited, share * 9 / 10, share / 10, 0});
                break;
            case FaultKind::kProcessStorm: {
                const uint64_t all = std::min(kChildCpu * fault.amount / 1000, kStormCpu);
                activities_.push_back({kNoProcess, fault.from_ns, kUnlimited, all / 2, all / 2, 0});
                break;
            }
            case FaultKind::kMemoryPressure:  // the kernel searches for pages, and reads back what it needs after all
                activities_.push_back({kNoProcess, fault.from_ns, kUnlimited, 0, 80'000, 20'000});
                break;
            case FaultKind::kIoWait:
                activities_.push_back({kNoProcess, fault.from_ns, kUnlimited, 0, 0, share});
                break;
            default:
                break;
        }
    }
    faults_ = std::move(faults);
}

// Of its full effect, in thousandths.
uint64_t SyntheticEvents::progress(const SyntheticFault &fault, uint64_t ns) {
    return ns < fault.from_ns ? 0 : std::min<uint64_t>((ns - fault.from_ns) / (fault.ramp_ns / 1000), 1000);
}

bool SyntheticEvents::recorded(uint64_t ns) const {
    return std::none_of(faults_.begin(), faults_.end(), [ns](const SyntheticFault &fault) {
        return fault.kind == FaultKind::kGap && ns >= fault.from_ns &&
               ns < fault.from_ns + fault.amount * (kSecond / 1000);
    });
}

bool SyntheticEvents::reported(size_t process, uint64_t ns) const {
    return recorded(ns) && std::none_of(faults_.begin(), faults_.end(), [=](const SyntheticFault &fault) {
               return fault.kind == FaultKind::kVanished && fault.process == process && ns >= fault.from_ns;
           });
}

/* ------------------------------ CPU time ------------------------------ */

uint64_t SyntheticEvents::begin_block(uint64_t begin_ns, uint64_t end_ns, uint64_t load) {
    for (const Activity &activity : activities_) {
        const ExtraTime passed = extra(activity, end_ns_);
        all_.user += passed.user / kCoreCount;
        all_.system += passed.system / kCoreCount;
        all_.iowait += passed.iowait;
        if (activity.process == kNoProcess) continue;
        own_[activity.process].user += passed.user;
        own_[activity.process].system += passed.system;
    }
    begin_ns_ = begin_ns;
    end_ns_ = end_ns;
    const auto is_over = [=](const auto &one) { return one.to_ns <= begin_ns; };
    activities_.erase(std::remove_if(activities_.begin(), activities_.end(), is_over), activities_.end());
    guests_.erase(std::remove_if(guests_.begin(), guests_.end(), is_over), guests_.end());
    for (; next_second_ * kSecond < end_ns; ++next_second_) {
        if (everyday_) pass_second(next_second_);
    }
    for (const SyntheticFault &fault : faults_) {
        if (fault.kind == FaultKind::kProcessStorm) add_storm(fault);
        const bool hot = fault.kind == FaultKind::kOverheating && progress(fault, begin_ns) >= 800;
        if (hot) load = load * kThrottled / 1000;
    }
    line_up_guests();
    const uint64_t asked = most_asked();
    granted_ = asked > kUsable ? kUsable * 1000 / asked : 1000;
    const uint64_t left = kWhole - kEvenIoWait - std::min(asked, kUsable);
    load_ = std::min(load, left * 1000 / kCoreLoad);
    return load_;
}

// The most that activities ask for at any time of the block, I/O wait included, of each core.
uint64_t SyntheticEvents::most_asked() const {
    uint64_t most = 0;
    for (const Activity &begins : activities_) {
        const uint64_t at = std::max(begins.from_ns, begin_ns_);
        uint64_t sum = 0;
        for (const Activity &one : activities_) {
            if (one.from_ns <= at && at < one.to_ns) sum += (one.user + one.system) / kCoreCount + one.iowait;
        }
        if (at < end_ns_) most = std::max(most, sum);
    }
    return most;
}

ExtraTime SyntheticEvents::extra(const Activity &activity, uint64_t ns) const {
    const uint64_t us = overlap_us(activity.from_ns, activity.to_ns, begin_ns_, ns);
    return {activity.user * granted_ / 1000 * us, activity.system * granted_ / 1000 * us,
            activity.iowait * granted_ / 1000 * us};
}

ExtraTime SyntheticEvents::core_extra(uint64_t ns) const {
    ExtraTime sum = all_;
    for (const Activity &activity : activities_) {
        const ExtraTime passed = extra(activity, ns);
        sum.user += passed.user / kCoreCount;
        sum.system += passed.system / kCoreCount;
        sum.iowait += passed.iowait;
    }
    return sum;
}

ExtraTime SyntheticEvents::process_extra(size_t process, uint64_t ns) const {
    ExtraTime sum = own_[process];
    for (const Activity &activity : activities_) {
        if (activity.process != process) continue;
        const ExtraTime passed = extra(activity, ns);
        sum.user += passed.user;
        sum.system += passed.system;
    }
    return sum;
}

/* ------------------------------ Other figures ------------------------------ */

// KiB that a process keeps in its caches.
uint64_t SyntheticEvents::cached(size_t process, uint64_t ns) const {
    uint64_t sum = 0;
    for (const Cache &cache : caches_) {
        if (!everyday_ || cache.process != process) continue;
        constexpr uint64_t kGiveBack = 3000;  // ms
        const uint64_t at = ns / 1'000'000 % (cache.fill_ms + kGiveBack + cache.rest_ms);
        if (at < cache.fill_ms) {
            sum += cache.height_kib * at / cache.fill_ms;
        } else if (at < cache.fill_ms + kGiveBack) {
            sum += cache.height_kib * (cache.fill_ms + kGiveBack - at) / kGiveBack;
        }
    }
    return sum;
}

void SyntheticEvents::change(size_t process, SwitchMessage *message) const {
    const uint64_t ns = message->time_ns;
    message->rss += cached(process, ns);
    for (const SyntheticFault &fault : faults_) {
        if (ns < fault.from_ns) continue;
        if (fault.kind == FaultKind::kMemoryGrowth && fault.process == process) {
            message->rss += std::min(fault.amount * ((ns - fault.from_ns) / 1'000'000) / 1'000'000, kMemory / 2);
        } else if (fault.kind == FaultKind::kMemoryPressure && process % 3 == fault.ramp_ns / kSecond % 3) {
            const uint64_t swapped = message->rss * 350 * progress(fault, ns) / 1'000'000;
            message->rss -= swapped;
            message->swap += swapped;
        }
    }
}

void SyntheticEvents::change_set(SwitchMessage *message) const {
    int64_t warmer = everyday_ ? static_cast<int64_t>(load_ / 150 + noise_) : 0;
    for (const SyntheticFault &fault : faults_) {
        if (message->time_ns < fault.from_ns) continue;
        if (fault.kind == FaultKind::kCpuHog) ++message->element11;
        if (fault.kind == FaultKind::kProcessStorm) message->element10 += 15 * fault.amount / 1000;
        if (fault.kind == FaultKind::kOverheating) {
            warmer += static_cast<int64_t>((fault.amount / 1000 - kCool) * progress(fault, message->time_ns) / 1000);
        }
    }
    for (CoreTimes &core : message->cores) {
        core.temperature = static_cast<uint64_t>(static_cast<int64_t>(core.temperature) + warmer);
    }
}

void SyntheticEvents::change(MeminfoMessage *message) const {
    const uint64_t ns = message->time_ns;
    uint64_t available = message->figure17, swapped = whole_tenths(message->decimal[1]);
    uint64_t load = whole_tenths(message->decimal[2]);
    if (everyday_) available = kMemory * (580 - swing(ns / kSecond, 150, 60) - noise_) / 1000;
    for (const Cache &cache : caches_) available -= cached(cache.process, ns) / 2;
    for (const SyntheticFault &fault : faults_) {
        if (ns < fault.from_ns) continue;
        const uint64_t in_a_minute = std::min<uint64_t>((ns - fault.from_ns) / kSecond, 60);
        if (fault.kind == FaultKind::kMemoryGrowth) {
            available -= std::min(fault.amount * ((ns - fault.from_ns) / 1'000'000) / 1'000'000, available * 9 / 10);
        } else if (fault.kind == FaultKind::kMemoryPressure) {
            const uint64_t left = kMemory * fault.amount / 100'000;
            if (available > left) available -= (available - left) * progress(fault, ns) / 1000;
            swapped = std::min<uint64_t>(swapped + 300 * progress(fault, ns) / 1000, 980);
        } else if (fault.kind == FaultKind::kCpuHog) {
            load += 10 * in_a_minute / 60;
        } else if (fault.kind == FaultKind::kIoWait) {
            load += fault.amount * 4 / 10'000 * in_a_minute / 60;
        }
    }
    if (available == message->figure17 && swapped == whole_tenths(message->decimal[1]) &&
        load == whole_tenths(message->decimal[2])) {
        return;
    }
    message->decimal = {tenths(1000 - available * 1000 / kMemory), tenths(swapped), tenths(load)};
    message->figure13 = available / 2;
    message->figure16 = available * 2 / 5;
    message->figure17 = available;
}

/* ------------------------------ Processes that come and go ------------------------------ */

// What happens on its own in a second of an everyday stream.
void SyntheticEvents::pass_second(uint64_t second) {
    const uint64_t begin = second * kSecond;
    noise_ = random_.below(3);
    if (random_.below(12) == 0) {  // a process is busy for a while
        const uint64_t share = random_.between(100'000, 600'000);
        activities_.push_back({random_.index(pids_.size()), begin,
                               begin + random_.between(1000, 8000) * (kSecond / 1000), share * 7 / 10, share * 3 / 10,
                               0});
    }
    if (random_.below(25) == 0) {  // so is the storage
        activities_.push_back({kNoProcess, begin, begin + random_.between(500, 3000) * (kSecond / 1000), 0, 0,
                               random_.between(30'000, 150'000)});
    }
    const bool script = random_.below(40) == 0;
    uint64_t count = script ? random_.between(3, 8) : random_.below(5) == 0 ? 1 : 0;
    const uint32_t parent = pids_[random_.index(pids_.size())];
    for (; count > 0; --count) {
        const uint64_t from = begin + random_.below(kSecond);
        const uint64_t life = random_.between(100, script ? 1500 : 20'000), ppm = random_.between(20'000, 80'000);
        add_guest(from, life, ppm, parent, false);
        activities_.push_back({kNoProcess, from, from + life * (kSecond / 1000), ppm / 2, ppm / 2, 0});
    }
}

void SyntheticEvents::add_storm(const SyntheticFault &storm) {
    const uint64_t between_ns = kSecond * 1000 / storm.amount;
    const uint64_t from = std::max(storm.from_ns, begin_ns_);
    const uint64_t cpu_us = std::min(kChildCpu, kStormCpu * 1000 / storm.amount);
    for (uint64_t number = (from - storm.from_ns + between_ns - 1) / between_ns;; ++number) {
        const uint64_t at = storm.from_ns + number * between_ns;
        if (at >= end_ns_ || guests_.size() >= kGuestsMax) return;
        const uint64_t life_ms = 50 + number * 37 % 250;
        add_guest(at, life_ms, cpu_us * 1000 / life_ms, storm.pid, true);
    }
}

void SyntheticEvents::add_guest(uint64_t from_ns, uint64_t life_ms, uint64_t ppm, uint32_t parent, bool of_storm) {
    if (guests_.size() >= kGuestsMax) return;
    Guest guest;
    guest.pid = first_guest_ + guests_made_++ % kGuestPids;
    guest.parent = parent;
    guest.name = of_storm ? kStormNames[guests_made_ % std::size(kStormNames)]
                          : kGuestNames[random_.index(std::size(kGuestNames))];
    guest.rss = of_storm ? 900 + guests_made_ % 7 * 130 : random_.between(1'000, 20'000);
    guest.from_ns = from_ns;
    guest.to_ns = from_ns + life_ms * (kSecond / 1000);
    guest.ppm = ppm;
    guest.phase = 500 + guests_made_ * 173 % 500;
    guests_.push_back(guest);
}

void SyntheticEvents::line_up_guests() {
    due_.clear();
    next_due_ = 0;
    for (size_t i = 0; i < guests_.size(); ++i) {
        const uint64_t from = std::max(guests_[i].from_ns, begin_ns_), to = std::min(guests_[i].to_ns, end_ns_);
        const uint64_t at = from + (to - from) / 1000 * guests_[i].phase;
        if (recorded(at)) due_.emplace_back(at, i);
    }
    std::sort(due_.begin(), due_.end());
}

const Guest *SyntheticEvents::next_guest(uint64_t until_ns, uint64_t *ns) {
    if (next_due_ == due_.size() || due_[next_due_].first > until_ns) return nullptr;
    *ns = due_[next_due_].first;
    return &guests_[due_[next_due_++].second];
}

}  // namespace vestra_set
