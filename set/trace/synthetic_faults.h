// synthetic_faults.h -- what happens in a made-up set besides its even load: the faults that are planted in it, and the
// ordinary ups and downs of the profile "everyday".
//
// Only integers: the seed determines every figure, on 32-bit and 64-bit machines. One thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "trace/frame_writer.h"

namespace vestra_set {

struct SyntheticProcess;

// splitmix64
class SeededRandom {
  public:
    explicit SeededRandom(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        state_ += 0x9e3779b97f4a7c15;
        uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t limit) { return next() % limit; }
    size_t index(size_t count) { return static_cast<size_t>(below(count)); }
    uint64_t between(uint64_t least, uint64_t most) { return least + below(most - least + 1); }

  private:
    uint64_t state_;
};

// Up and down between 0 and `height`, `half` units of `at` each way.
inline uint64_t swing(uint64_t at, uint64_t half, uint64_t height) {
    const uint64_t place = at % (2 * half);
    return (place < half ? place : 2 * half - place) * height / half;
}

constexpr uint64_t kWhole = 1'000'000;    // millionths
constexpr uint64_t kCoreLoad = 850'000;   // millionths of a core that its processes use at full load
constexpr uint64_t kEvenIoWait = 20'000;  // millionths of a core, always
constexpr uint64_t kMemory = 1'572'864;   // KiB
constexpr size_t kNoProcess = static_cast<size_t>(-1);

enum class FaultKind : uint8_t {
    kMemoryGrowth,    // a process grows without end: KiB a second
    kCpuHog,          // a process takes a core: percent of it
    kProcessStorm,    // a process starts short-lived ones: a second
    kMemoryPressure,  // memory runs out and is swapped: percent that stay available
    kIoWait,          // percent of the time of all cores
    kOverheating,     // degrees Celsius that are reached, which then halves the CPU time
    kVanished,        // a process is reported no more
    kGap,             // seconds in which nothing is recorded
};
const char *fault_name(FaultKind kind);  // "memory-growth" and so on

// A fault as the command line asks for it, and as it happens. The seed shifts the begin within the second and the amount
// by up to 30 %, and chooses the process.
struct SyntheticFault {
    FaultKind kind = FaultKind::kGap;
    uint64_t second = 0;          // since the begin of the stream
    uint64_t amount = 0;          // thousandths of the unit of its kind
    uint64_t from_ns = 0;         // stream time
    uint64_t ramp_ns = 0;         // until it is in full effect
    size_t process = kNoProcess;  // index of the process meant, if one is
    uint32_t pid = 0;             // of it; 0: none
    std::string name;             // of it
};

// Reads KIND[:PARAM]@SECOND. False with the reason in *error.
bool parse_fault(const std::string &text, SyntheticFault *fault, std::string *error);

// A process that comes and goes, and is reported once in every block of its life.
struct Guest {
    uint32_t pid = 0, parent = 0;
    const char *name = "";
    uint64_t rss = 0;                 // KiB
    uint64_t from_ns = 0, to_ns = 0;  // its life
    uint64_t ppm = 0;                 // millionths of a core
    uint64_t phase = 0;               // thousandths of its time in a block, until it is reported
};

// CPU time in millionths of a microsecond.
struct ExtraTime {
    uint64_t user = 0, system = 0, iowait = 0;
};

class SyntheticEvents {
  public:
    SyntheticEvents(bool everyday, uint64_t seed) : everyday_(everyday), seed_(seed), random_(seed ^ 0x5eed) {}

    // Decides when faults happen, and to which of the processes. `begin_ns`: stream time at the begin.
    void plant(std::vector<SyntheticFault> faults, const std::vector<SyntheticProcess> &processes, uint64_t begin_ns);
    const std::vector<SyntheticFault> &faults() const { return faults_; }

    // Begins a block after the one before. Returns the load, in thousandths, that is left of `load` for the even part.
    uint64_t begin_block(uint64_t begin_ns, uint64_t end_ns, uint64_t load);

    // Whether something is recorded at that time, and this process reported.
    bool recorded(uint64_t ns) const;
    bool reported(size_t process, uint64_t ns) const;

    // Since the begin of the stream up to a time in the block, on each core.
    ExtraTime core_extra(uint64_t ns) const;
    // The same of a process, on all cores.
    ExtraTime process_extra(size_t process, uint64_t ns) const;

    // Changes figures to what events make of them. The message has its time; of a switch message it is not the CPU time.
    void change(size_t process, trace::SwitchMessage *message) const;
    void change_set(trace::SwitchMessage *message) const;  // the figures that do not belong to a process
    void change(trace::MeminfoMessage *message) const;

    // The next guest that is due in the block up to that time, and the time of its message. Null if there is none.
    const Guest *next_guest(uint64_t until_ns, uint64_t *ns);

  private:
    struct Activity {
        size_t process;
        uint64_t from_ns, to_ns;
        uint64_t user, system;  // millionths of a core
        uint64_t iowait;        // of each core
    };
    struct Cache {  // memory of a process that fills up and is given back, again and again
        size_t process;
        uint64_t height_kib, fill_ms, rest_ms;
    };

    void pass_second(uint64_t second);
    void add_guest(uint64_t from_ns, uint64_t life_ms, uint64_t ppm, uint32_t parent, bool of_storm);
    void add_storm(const SyntheticFault &storm);
    void line_up_guests();
    uint64_t most_asked() const;
    ExtraTime extra(const Activity &activity, uint64_t ns) const;
    uint64_t cached(size_t process, uint64_t ns) const;
    static uint64_t progress(const SyntheticFault &fault, uint64_t ns);

    const bool everyday_;
    const uint64_t seed_;
    SeededRandom random_;
    std::vector<SyntheticFault> faults_;
    std::vector<uint32_t> pids_;        // by index of the process
    std::vector<ExtraTime> own_;        // by index of the process, up to the begin of the block
    ExtraTime all_;                     // of each core, up to there
    std::vector<Activity> activities_;  // in the block
    std::array<Cache, 2> caches_{};
    uint64_t begin_ns_ = 0, end_ns_ = 0;  // of the block
    uint64_t granted_ = 1000;             // thousandths of what the activities ask for
    uint64_t load_ = 0;
    uint64_t noise_ = 0;        // 0 to 2, new in every second
    uint64_t next_second_ = 0;  // that pass_second has not seen
    std::vector<Guest> guests_;
    std::vector<std::pair<uint64_t, size_t>> due_;  // times and indices of guests, in order
    size_t next_due_ = 0;
    uint32_t first_guest_ = 0, guests_made_ = 0;
};

}  // namespace vestra_set
