// folder.h -- writes a part of a dump in which all processes but some are folded into one, "other", for a reader who must
// not see their names.
//
// What is known of the set stays: the counters of the cores and all memory messages, and so all vitals of every second.
// Of the processes, "other" keeps the sums: at the last sample of a second, the memory of those that have a sample in it;
// and in its clock ticks and storage figures, which begin at 0, what they have used since their first samples.
//
// A sample of a folded process is left out unless it is the first of its second. After the last one of a second, and before
// each memory message, a sample of "other" repeats the counters of the last sample that was read. So the daemon's ring,
// which also computes with the first sample of its newest second, is the same, too.
//
// Everything is encoded again, so that no name can hide in what a reader skips: frames of unknown types, damaged data, and
// the bytes of a name after a zero byte are left out.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/dump/analysis.h"
#include "tools/dump/output.h"
#include "trace/frame_writer.h"

namespace vestra_dump {

// The names on the command line. A name is compared with the recorded one, as it is and as it is printed; one of more than
// 15 bytes, which is all that the kernel keeps, with its first 15.
class NameFilter {
  public:
    NameFilter() = default;
    NameFilter(bool only, std::vector<std::string> names)
        : only_(only), names_(std::move(names)), found_(names_.size()) {}

    bool folds() const { return !names_.empty(); }
    bool shows(std::string_view name);

    // For people: names that no process has, and names that are shown although a hidden one is a part of them.
    std::vector<std::string> doubts() const;

  private:
    bool lists(std::string_view name);

    bool only_ = false;
    std::vector<std::string> names_;
    std::vector<bool> found_;                      // by name
    std::unordered_map<std::string, bool> known_;  // whether a name is shown
    std::set<std::string> telling_;                // shown names with a hidden one in them
};

class Folder : public DumpSink {
  public:
    // Only messages in the range are written.
    Folder(NameFilter &filter, const TimeRange &range, Output &out);

    void on_frame(const Frame &frame, const FrameMessages &messages) override;
    void on_process(const SwitchSample &sample, const Process &process) override;
    void on_empty_record(uint64_t offset) override;
    void end(const DumpTotals &totals);

    size_t messages() const { return messages_; }  // written

    static constexpr std::string_view kName = "other";
    static constexpr int32_t kPid = 4194304;  // one more than Linux ever gives to a process

  private:
    // A sample of the frame.
    struct Taken {
        trace::SwitchMessage message;  // with a name in frame_ if it is shown
        bool shown = false, late = false;
        uint64_t process = 0;  // its number; 0: none is accounted for
        uint64_t used_ticks = 0;
        int64_t core_ticks = 0;  // of all cores
        uint64_t offset = 0;
    };
    // Of folded processes.
    struct Sums {
        uint64_t user = 0, system = 0, read_kib = 0, written_kib = 0;
    };
    struct Counters {
        uint64_t process, user, read_kib, written_kib;
    };
    struct Memory {
        uint64_t rss = 0, swap = 0;                                       // KiB; sums
        std::unordered_map<uint64_t, std::array<uint64_t, 2>> processes;  // by number; rss and swap
    };

    void finish_frame();
    void take(const Taken &taken);
    void account(const Taken &taken);
    void forget_memory(int64_t kept);
    void settle();
    void write_other(trace::SwitchMessage message);
    template <class Message>
    void write(int type, const Message &message);
    void begin_frame(int type);
    void end_block();

    NameFilter &filter_;
    const TimeRange range_;
    Output &out_;
    std::string frame_;  // that is taken when its processes are known
    std::vector<Taken> taken_;
    std::vector<trace::MeminfoMessage> info_;
    size_t next_ = 0;                                // of taken_, for on_process
    TickCounter cores_;                              // user and system ticks of all
    Sums used_, written_;                            // by folded processes, and as of the last sample of "other"
    std::unordered_map<uint64_t, Counters> before_;  // of folded processes, by process id
    std::map<int64_t, Memory> memory_;               // in each second; forgotten when it holds too many processes
    size_t in_memory_ = 0;
    trace::SwitchMessage last_;                  // the sample whose counters hold
    std::optional<int64_t> second_;              // of last_
    std::optional<trace::SwitchMessage> held_;   // the last sample, if its counters are not believed
    std::optional<trace::SwitchMessage> first_;  // of a folded process
    std::optional<int64_t> other_ns_;            // the newest sample of "other"
    bool owed_ = false;                          // a sample was left out since the last one of "other"

    std::vector<uint8_t> block_;
    trace::FrameWriter writer_;
    bool new_frame_ = true;
    int type_ = 0;  // of the frame that is being written
    size_t messages_ = 0;
};

}  // namespace vestra_dump
