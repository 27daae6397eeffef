// Well-formed messages with figures from the input: times that jump, processes that share a slot in the
// history, counters that run backwards. Almost nothing is refused, so this tests what the decoder
// stores rather than how it walks.
//
// An input is a list of entries of eight bytes:
//
//   operation | time | process | name | figures | flags | 2 bytes of counters
//
// Rules, in addition to those of decoder_state.h: a request gets the figures of its vital and does not change the ring.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/decoder_state.h"
#include "fuzz/fuzz_env.h"
#include "trace/frame_writer.h"
#include "vestra-daemon/decoder.h"

namespace {

constexpr size_t kEntry = 8;
constexpr size_t kFull = 64000;  // bytes after which a block is decoded; half of what a frame may have
constexpr uint64_t kSecond = 1'000'000'000;

// Steps of the stream's clock. The ring holds 180 s, a slot that is more than 8 s older belongs to the previous lap,
// and percentages need more than one second.
constexpr std::array<uint64_t, 24> kSteps = {0,
                                             1,
                                             kSecond / 2,
                                             kSecond - 1,
                                             kSecond,
                                             kSecond + 1,
                                             2 * kSecond,
                                             7 * kSecond,
                                             8 * kSecond,
                                             8 * kSecond + 1,
                                             9 * kSecond,
                                             30 * kSecond,
                                             90 * kSecond,
                                             179 * kSecond,
                                             180 * kSecond,
                                             181 * kSecond,
                                             360 * kSecond,
                                             0 - kSecond,
                                             0 - 2 * kSecond,
                                             0 - 10 * kSecond,
                                             0 - 180 * kSecond,
                                             uint64_t{1} << 62,
                                             uint64_t{1} << 63,
                                             100 * kSecond};

constexpr std::array<uint64_t, 16> kFigures = {0,
                                               1,
                                               2,
                                               99,
                                               100,
                                               250,
                                               1000,
                                               0xffff,
                                               INT32_MAX,
                                               uint64_t{1} << 31,
                                               uint64_t{1} << 32,
                                               uint64_t{1} << 53,
                                               INT64_MAX,
                                               uint64_t{1} << 63,
                                               UINT64_MAX - 1,
                                               UINT64_MAX};

enum Operation : uint8_t { kSwitch, kMemory, kManySwitches, kAsk, kNextBlock, kOperations };

class Stream {
  public:
    void take(const uint8_t *entry) {
        if (bytes_.size() > kFull) decode();
        now_ += kSteps[entry[1] % kSteps.size()];
        switch (entry[0] % kOperations) {
            case kSwitch:
                add_switch(entry);
                break;
            case kManySwitches:  // consecutive seconds or processes
                for (int i = entry[7] % 64; i > 0; --i) {
                    now_ += (entry[5] & 8) != 0 ? kSecond : 0;
                    process_ += (entry[5] & 16) != 0 ? 1 : 0;
                    add_switch(entry);
                }
                break;
            case kMemory:
                add_memory(entry);
                break;
            case kAsk:
                decode();
                ask(entry);
                break;
            default:
                decode();
        }
    }

    void decode() {
        writer_.end_block();
        const auto block = std::make_unique<unsigned char[]>(bytes_.size());
        std::copy(bytes_.begin(), bytes_.end(), block.get());
        decode_file(block.get(), static_cast<unsigned>(bytes_.size()));
        bytes_.clear();
        writer_ = trace::FrameWriter(&bytes_);
    }

  private:
    static uint64_t figure(size_t selector) { return kFigures[selector % kFigures.size()]; }

    // A process that is not in the history costs a search of all its records, so their number is limited.
    bool may_add(uint64_t pid, bool accounted) {
        const bool costly = pid != last_pid_ || !accounted;
        last_pid_ = pid;
        return costly ? --costly_left_ > 0 : --left_ > 0;
    }

    void add_switch(const uint8_t *entry) {
        static constexpr std::string_view kNames[] = {"a",
                                                      "tuner",
                                                      "14.characters",
                                                      "longer.than.14.characters",
                                                      std::string_view("\0", 1),
                                                      std::string_view("z\0z", 3),
                                                      "\"",
                                                      "\xff"};
        trace::SwitchMessage message;
        message.type = 1 + (entry[5] >> 7);
        message.time_ns = now_;
        message.element1 = entry[4];
        // Every other value shares its history slot with another one.
        message.pid = process_ + static_cast<uint64_t>(entry[2] & 15) + (static_cast<uint64_t>(entry[2] & 0x30) << 11);
        if (entry[2] >= 0xf0) message.pid = 0 - static_cast<uint64_t>(entry[2] & 3);
        message.name = kNames[entry[3] % std::size(kNames)];
        ticks_ += entry[6] + 256U * entry[7];
        message.cpu_a = (entry[5] & 1) != 0 ? figure(entry[4]) : ticks_;
        message.cpu_b = (entry[5] & 2) != 0 ? figure(entry[4] >> 4) : ticks_ / 2;
        message.rss = message.swap = (entry[5] & 4) != 0 ? 0 : figure(entry[4] | 1U);
        message.element10 = figure(entry[6]);
        message.element11 = figure(entry[7]);
        for (size_t core = 0; core < message.cores.size(); ++core) {
            trace::CoreTimes &times = message.cores[core];
            times = {ticks_, ticks_ / 3, ticks_ / 4, figure(entry[6] + core), ticks_ / 7};
            if ((entry[5] & 32) != 0) times.user = figure(entry[4] + core);
            if ((entry[5] & 64) != 0) times.iowait = figure(entry[6] + core);
        }
        if (!may_add(message.pid, message.rss != 0)) return;
        if (bytes_.empty() || frame_ != trace::kSwitchFrame) writer_.begin_frame(trace::kSwitchFrame, 0);
        frame_ = trace::kSwitchFrame;
        writer_.add(message);
    }

    void add_memory(const uint8_t *entry) {
        trace::MeminfoMessage message;
        message.type = 1 + (entry[5] >> 7);
        message.time_ns = now_;
        message.name = "m";
        for (size_t i = 0; i < 3; ++i) message.decimal[i] = {figure(entry[2 + i]), figure(entry[5 + i])};
        message.figure13 = figure(entry[5]);
        message.figure16 = figure(entry[6]);
        message.figure17 = figure(entry[7]);
        if (bytes_.empty() || frame_ != trace::kMeminfoFrame) writer_.begin_frame(trace::kMeminfoFrame, 3);
        frame_ = trace::kMeminfoFrame;
        writer_.add(message);
    }

    static void ask(const uint8_t *entry) {
        static constexpr std::array<int32_t, 8> kWindows = {0, 1, 5, 60, 180, INT32_MAX, INT32_MIN, -1};
        static _SYSDATA_ ring[kSlotCount];
        std::memcpy(ring, collectedData, sizeof(ring));
        vestra_api_data request = {};
        request.packet_type = static_cast<int8_t>(entry[2]);
        request.window = kWindows[entry[3] % kWindows.size()];
        request.maximum = request.minimum = request.average = request.variance = -77;
        process_request(&request, 1);
        const bool known = request.packet_type >= 0 && request.packet_type < kVitalCount;
        if (!known) FUZZ_RULE(request.maximum == -77 && request.variance == -77, "an unknown vital gets no figures");
        if (known && request.window == 0) {
            const double now = vital(collectedData[last_index], static_cast<unsigned>(request.packet_type));
            const bool equal = std::memcmp(&now, &request.maximum, sizeof(now)) == 0;
            FUZZ_RULE(equal && request.variance == 0, "window 0 gives the head's figure");
        }
        if (known && request.window != 0) {
            FUZZ_RULE(!(request.variance < 0), "a variance is not negative");
            FUZZ_RULE(!(request.average <= 0), "an average counts only figures above 0");
        }
        FUZZ_RULE(std::memcmp(ring, collectedData, sizeof(ring)) == 0, "a request changes nothing");
        std::array<vestra_api_data, VESTRA_API_VITALS> all = {};
        for (int32_t i = 0; i < VESTRA_API_VITALS; ++i)
            all[static_cast<size_t>(i)] = {i - entry[4] % 3, entry[5], 0, 0, 0, 0, 0, 0};
        process_request(all.data(), VESTRA_API_VITALS);
    }

    std::vector<uint8_t> bytes_;
    trace::FrameWriter writer_{&bytes_};
    uint8_t frame_ = 0;
    uint64_t now_ = 600 * kSecond;
    uint64_t process_ = 1;
    uint64_t ticks_ = 0;
    uint64_t last_pid_ = 0;
    int left_ = 6000, costly_left_ = 100;
};

}  // namespace

void vestra_fuzz::prepare() {
    reset_decoder();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Stream stream;
    for (; size >= kEntry; data += kEntry, size -= kEntry) stream.take(data);
    stream.decode();
    vestra_fuzz::check_decoder();
    vestra_fuzz::reset_decoder();
    return 0;
}
