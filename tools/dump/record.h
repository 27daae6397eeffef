// record.h -- what stands at a place of a dump's payload: a frame record, or damage.
//
// A dump's blocks are not marked. A block may end in the middle of a frame, and any byte may be wrong; so no length is
// believed that reaches over the beginning of another frame, and behind damage the reader goes on where one begins.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/dump/messages.h"

namespace vestra_dump {

enum class Reason : uint8_t {
    kNone,
    kLength,       // a length that no frame has
    kPayloadEnds,  // the record is longer than what is left
    kNextInside,   // another frame begins inside: the length is wrong, or a block ended in the middle of the frame
    kZeros,        // longer than any row of empty records
    kOneByte,      // the rest: what is wrong with a frame whose length may be right
    kCore,
    kMessageType,
    kElement,
};

// For people: "the next frame begins inside".
const char *describe(Reason reason);

struct Record {
    enum Kind : uint8_t {
        kEmpty,   // a length of 0: a block's end
        kFrame,   // well-formed, or of a type that is not known and skipped by its length
        kDamaged  // messages that are well-formed all the same are in the FrameMessages
    } kind;
    Reason reason;  // kDamaged
    bool open;      // kDamaged: the damage may go on behind the record; only the beginning of a frame ends it
    size_t size;    // bytes, length field included; never 0
};

// Bytes of the payload that must be in view where it goes on behind them: a record, and one that begins in it.
constexpr size_t kRecordLookahead = 2 * trace::kRecordMax;

// Stretches of the payload. `last`: it ends with them; otherwise they are at least kRecordLookahead.
struct View {
    const uint8_t *at;
    size_t size;  // above 0
    bool last;
};

// How often bytes may be read again. A frame that is damaged is read, and then the one that begins inside it. Bytes
// that are made for it hold a thousand beginnings in each other, each of which would be read to the end of the
// outermost: when more is read again than there is, a damaged frame is passed over whole.
class Rework {
  public:
    bool allowed() const { return again_ <= kFree + passed_; }
    void passed(size_t bytes) { passed_ += bytes; }
    void again(size_t bytes) { again_ += bytes; }

    uint64_t bytes_passed() const { return passed_; }
    uint64_t bytes_again() const { return again_; }

    static constexpr uint64_t kFree =
        8 * trace::kRecordMax;  // bytes read again that are allowed beyond those that there are

  private:
    uint64_t passed_ = 0;
    uint64_t again_ = 0;
};

// Judges the record at the beginning of `view`. *messages gets those that count, and is emptied when there are none.
// `searching`: what stands there goes on with open damage, and the first beginning of a frame is looked for.
// `rework`: what the caller keeps between the records that follow each other.
Record judge_record(const View &view, bool searching, FrameMessages *messages, Rework *rework);

}  // namespace vestra_dump
