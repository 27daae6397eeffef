// A made-up set: seeded, and deterministic down to the byte. All figures are integers that follow from the seed and the
// stream time, so 32-bit and 64-bit machines agree, and a test can ask what was put in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "set/trace/pace.h"
#include "set/trace/source.h"
#include "trace/frame_writer.h"

namespace vestra_set {

// What is wrong with a frame, on purpose. In the message faults a good message stands in front of the fault.
enum class Damage : uint8_t {
    kNone,
    kCore,            // a core that is none
    kMessageType,     // neither 1 nor 2
    kLongVarint,      // eleven bytes
    kCutVarint,       // the frame ends in it
    kEmptyName,       // length 0
    kNameTooLong,     // longer than the frame, in some cases than any memory
    kCutMessage,      // the frame ends in it
    kShortFrame,      // one byte
    kUnknownType,     // of frame
    kNoise,           // random bytes behind the header
    kExtremes,        // well-formed, with all figures but the time stamp at their greatest, and a name of 300 bytes
    kOverlongLength,  // above kFrameMax: a reader gives up the block
    kBeyondBlock,     // a length that leads out of the block: the same
    kCutLength,       // the block ends with one to three bytes instead of the mark
};

struct PlannedFrame {
    size_t offset = 0;  // of the length field in the block
    uint8_t type = 0;
    uint8_t core = 0;
    Damage damage = Damage::kNone;
    bool reached = true;                  // false behind a length that makes a reader give up the block
    std::vector<SwitchMessage> switches;  // those that a reader takes, if it gets there
    std::vector<MeminfoMessage> infos;
};

// What one block was made of. Names in it are views of the source's own.
struct BlockPlan {
    uint64_t begin_ns = 0;             // stream time; no message of the block is older
    uint64_t end_ns = 0;               // or as new
    std::vector<PlannedFrame> frames;  // empty for a stalled read
};

struct SyntheticProcess {
    uint32_t pid = 0;
    uint32_t parent = 0;
    std::string name;       // at most 15 bytes
    uint8_t core = 0;       // it never moves
    uint64_t user_ppm = 0;  // of its core's time while the set does all its work, millionths
    uint64_t system_ppm = 0;
    uint64_t rss = 0;        // KiB, what it never falls below
    uint64_t swap = 0;       // KiB, constant, at least 1
    uint64_t disk_rate = 0;  // KiB a second of work; written: half as much
};

class SyntheticSource : public TraceSource {
  public:
    enum class Profile {
        kSteady,   // 70 to 100 % of the work
        kBurst,    // 10 %, and every now and then blocks of the greatest size at 100 %
        kStall,    // steady, with runs of empty reads while time goes on
        kHostile,  // steady, and about every third frame is damaged
    };

    static std::unique_ptr<SyntheticSource> make(const SourceOptions &options, std::string *error);

    size_t next_block(uint8_t *out, size_t capacity) override;
    void apply(const ModuleControl &control) override;

    // For tests: keep the plan of the newest block. Costs allocations.
    void keep_plan(bool keep) { keep_plan_ = keep; }
    const BlockPlan &plan() const { return plan_; }
    const std::vector<SyntheticProcess> &processes() const { return processes_; }

  private:
    struct Clock {
        uint64_t ns = 0;       // stream time
        uint64_t work_us = 0;  // time that the set would have been busy for, had it worked at 100 %
    };

    SyntheticSource(const SourceOptions &options, Profile profile);

    uint64_t random();
    uint64_t random(uint64_t below) { return random() % below; }
    void make_processes(uint32_t count);
    bool stalled();
    size_t write_block(uint8_t *out, size_t limit, bool fill);
    bool write_info(FrameWriter *writer, const Clock &now);
    size_t write_switches(FrameWriter *writer, const Clock &begin, uint64_t gap_ns, size_t count);
    bool write_damage(FrameWriter *writer, const Clock &now);
    Clock at(const Clock &begin, uint64_t ns) const;
    SwitchMessage switch_message(size_t index, const Clock &now) const;
    MeminfoMessage info_message(const Clock &now) const;
    CoreTimes core_times(size_t core, const Clock &now) const;
    PlannedFrame *plan_frame(const FrameWriter &writer, uint8_t type, uint8_t core, Damage damage);

    const Profile profile_;
    const uint32_t block_size_;
    const uint64_t step_ns_;
    Pace pace_;
    uint64_t random_state_;
    std::vector<SyntheticProcess> processes_;      // by core
    std::array<uint64_t, kCoreCount> user_ppm_{};  // sums over the processes of a core
    std::array<uint64_t, kCoreCount> system_ppm_{};
    ModuleControl control_;
    std::vector<uint32_t> reported_;  // indices of the processes that the filter lets through
    Clock clock_;
    uint64_t load_ = 0;        // thousandths of the work that are done in the current block
    size_t next_process_ = 0;  // index into reported_
    uint64_t messages_ = 0;
    uint64_t blocks_ = 0;
    uint64_t stall_left_ = 0;  // empty reads still to come; then reads up to the next stall
    uint64_t stall_next_ = 3;
    bool given_up_ = false;  // a reader has stopped in the current block
    bool keep_plan_ = false;
    BlockPlan plan_;
};

// Null with the reason in *error.
std::unique_ptr<TraceSource> make_synthetic_source(const SourceOptions &options, std::string *error);

// Whether the filter lets a process through. A name counts up to 15 bytes: the kernel keeps no more.
bool reports(const ModuleControl &control, int64_t pid, std::string_view name);

}  // namespace vestra_set
