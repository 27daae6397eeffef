// stretch.h -- what is at a place in a dump's payload: a frame record, or damage.
//
// A dump does not mark its blocks. A block may end in the middle of a frame, and any byte may be wrong. So a length that
// reaches over the beginning of another frame is not trusted, and after damage the reader continues at the next
// beginning of a frame.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/dump/messages.h"

namespace vestra_dump {

enum class Reason : uint8_t {
    kNone,
    kLength,       // a length greater than any frame's
    kWrongLength,  // the messages go on after the end of the frame, or end before it
    kPayloadEnds,  // the record is longer than the rest of the payload
    kNextInside,   // another frame begins inside: the length is wrong, or a block ended in the middle of the frame
    kZeros,        // a longer run of zeros than empty records make
    kType,         // a frame type that no module writes
    kOneByte,      // these four: a fault of a frame whose length may be right
    kCore,
    kMessageType,
    kElement,
    kUnreadable,  // bytes that the storage does not give
    kAstray,      // intact, but the time stamps belong to another recording, or are damaged
    kCounters,    // intact, but the ticks are more than there can be
};

// For people: "the next frame begins inside".
const char *describe(Reason reason);

struct Stretch {
    enum Kind : uint8_t {
        kEmpty,   // a length of 0: the end of a block
        kFrame,   // well-formed, or one of several of an unknown type
        kDamaged  // the well-formed messages before the fault are in the FrameMessages
    } kind;
    Reason reason;  // kDamaged; kNone: continues the damage before
    size_t size;    // bytes, length field included; above 0
};

// Bytes of the payload that must be in view, unless it ends in view: a record, and one that begins inside it.
constexpr size_t kLookahead = 2 * trace::kRecordMax;

// Bytes of the payload. `last`: the payload ends with them; otherwise they are at least kLookahead.
struct View {
    const uint8_t *at;
    size_t size;  // above 0
    bool last;
};

// Reads stretch after stretch.
//
// Hostile data can hold a thousand beginnings of frames inside each other, each of which would be read to the end of the
// outermost. So the number of bytes that are read more than once is limited: once it is the number of bytes passed, plus
// a free allowance, a damaged frame is skipped as a whole.
class StretchReader {
  public:
    // Reads the stretch at the beginning of `view`. *messages gets its messages. The next view begins after it.
    Stretch read(const View &view, FrameMessages *messages);

    uint64_t bytes_passed() const { return passed_; }
    uint64_t bytes_reread() const { return reread_; }

    static constexpr uint64_t kFreeRereads = 8 * trace::kRecordMax;

  private:
    Stretch damage_from(const View &view, size_t from, Reason reason);
    Stretch read_any(const View &view, FrameMessages *messages);
    Stretch read_record(const View &view, FrameMessages *messages);
    Stretch read_damaged(const View &view, Reason reason, FrameMessages *messages);
    trace::FrameFault read_messages(const uint8_t *frame, size_t size, int type, FrameMessages *messages);
    void read_as_likely(const uint8_t *frame, size_t size, FrameMessages *messages);
    bool is_of_unknown_run(const View &view) const;

    bool searching_ = false;    // the damage may continue; only the beginning of a frame ends it
    bool unknown_run_ = false;  // the last stretch was a frame of an unknown type
    uint64_t passed_ = 0;
    uint64_t reread_ = 0;
    uint64_t walked_ = 0;  // bytes of messages read for the present stretch
};

}  // namespace vestra_dump
