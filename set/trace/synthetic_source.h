// A made-up set. The seed determines every byte: all figures are integers that follow from the seed and the stream time,
// so 32-bit and 64-bit machines agree. Tests can ask for the plan of a block.
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
#include "set/trace/synthetic_faults.h"
#include "trace/frame_writer.h"

namespace vestra_set {

// What is wrong with a frame, on purpose. A message fault follows a good message.
enum class Damage : uint8_t {
    kNone,
    kCore,            // invalid core id
    kMessageType,     // neither 1 nor 2
    kLongVarint,      // eleven bytes
    kCutVarint,       // the frame ends in it
    kEmptyName,       // length 0
    kNameTooLong,     // longer than the frame, in some cases than any memory
    kCutMessage,      // the frame ends in it
    kShortFrame,      // one byte
    kUnknownType,     // of frame
    kNoise,           // random bytes after type and core
    kExtremes,        // well-formed: the greatest figures, except the time stamp, and a name of 300 bytes
    kOverlongLength,  // above kFrameMax: a reader drops the rest of the block
    kBeyondBlock,     // a length beyond the end of the block: the same
    kCutLength,       // the block ends with one to three bytes instead of an empty record
};

struct PlannedFrame {
    size_t offset = 0;  // of the length field in the block
    Damage damage = Damage::kNone;
    bool reached = true;                  // false after a length that makes a reader drop the rest of the block
    std::vector<SwitchMessage> switches;  // those that a reader accepts if it gets here
    std::vector<MeminfoMessage> infos;
};

// What one block was made from. Names are views of the source's.
struct BlockPlan {
    uint64_t begin_ns = 0;             // stream time; no message of the block is older
    uint64_t end_ns = 0;               // or this new
    std::vector<PlannedFrame> frames;  // empty for a stalled read
};

struct SyntheticProcess {
    uint32_t pid = 0;
    uint32_t parent = 0;
    std::string name;       // at most 15 bytes
    uint8_t core = 0;       // it never moves
    uint64_t user_ppm = 0;  // millionths of its core's time at full load
    uint64_t system_ppm = 0;
    uint64_t rss = 0;        // KiB, the minimum
    uint64_t swap = 0;       // KiB, constant, at least 1
    uint64_t disk_rate = 0;  // KiB per second of full load; half as much is written
};

class SyntheticSource : public TraceSource {
  public:
    enum class Profile {
        kSteady,    // 70 to 100 % load
        kBurst,     // 10 %, and sometimes blocks of the greatest size at 100 %
        kStall,     // steady, with runs of empty reads during which time passes
        kHostile,   // steady, with about every third frame damaged
        kEveryday,  // 20 to 50 %; processes come, go, are busy for a while, and fill and empty caches
    };

    static std::unique_ptr<SyntheticSource> make(const SourceOptions &options, std::string *error);

    size_t next_block(uint8_t *out, size_t capacity) override;
    void apply(const ModuleControl &control) override;

    // For tests: keeps the plan of the newest block, which allocates memory.
    void keep_plan(bool keep) { keep_plan_ = keep; }
    const BlockPlan &plan() const { return plan_; }
    const std::vector<SyntheticProcess> &processes() const { return processes_; }

    // The faults of the options, as they happen.
    const std::vector<SyntheticFault> &faults() const { return events_.faults(); }

  private:
    struct Clock {
        uint64_t ns = 0;       // stream time
        uint64_t work_us = 0;  // time at full load that gives the same amount of work
    };

    SyntheticSource(const SourceOptions &options, Profile profile);

    uint64_t random() { return random_.next(); }
    uint64_t random(uint64_t limit) { return random_.below(limit); }
    uint64_t next_load(bool burst);
    void make_processes(uint32_t count);
    bool stalled();
    size_t write_block(uint8_t *out, size_t limit, bool fill);
    bool write_info(FrameWriter *writer, const Clock &now);
    size_t write_switches(FrameWriter *writer, const Clock &begin, uint64_t gap_ns, size_t count);
    void write_guests(FrameWriter *writer, const Clock &begin, uint64_t until_ns);
    bool write_damage(FrameWriter *writer, const Clock &now);
    Clock at(const Clock &begin, uint64_t ns) const;
    SwitchMessage switch_message(size_t index, const Clock &now) const;
    SwitchMessage set_message(const Clock &now) const;
    MeminfoMessage info_message(const Clock &now) const;
    CoreTimes core_times(size_t core, const Clock &now, const ExtraTime &extra) const;
    PlannedFrame *plan_frame(const FrameWriter &writer, Damage damage);

    const Profile profile_;
    const uint32_t block_size_;
    const uint64_t step_ns_;
    Pace pace_;
    SeededRandom random_;
    SyntheticEvents events_;
    std::vector<SyntheticProcess> processes_;      // by core
    std::array<uint64_t, kCoreCount> user_ppm_{};  // sums over the processes of a core
    std::array<uint64_t, kCoreCount> system_ppm_{};
    ModuleControl control_;
    std::vector<uint32_t> reported_;  // indices of the processes that pass the filter
    Clock clock_;
    uint64_t load_ = 0;        // thousandths of full load in the current block
    uint64_t wander_ = 150;    // of an everyday stream: by how much it is above the least load
    size_t next_process_ = 0;  // index into reported_
    uint64_t messages_ = 0;
    uint64_t blocks_ = 0;
    uint64_t stall_left_ = 0;  // empty reads left; then reads before the next stall
    uint64_t stall_next_ = 3;
    bool given_up_ = false;  // a reader drops the rest of the current block
    bool keep_plan_ = false;
    BlockPlan plan_;
};

// Null with the reason in *error.
std::unique_ptr<TraceSource> make_synthetic_source(const SourceOptions &options, std::string *error);

// Whether a process passes the filter. Only the first 15 bytes of names count, because the kernel keeps no more.
bool reports(const ModuleControl &control, int64_t pid, std::string_view name);

}  // namespace vestra_set
