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
    kPayloadEnds,  // the record is longer than the rest of the payload
    kNextInside,   // another frame begins inside: the length is wrong, or a block ended in the middle of the frame
    kZeros,        // a longer run of zeros than empty records make
    kOneByte,      // these four: a fault of a frame whose length may be right
    kCore,
    kMessageType,
    kElement,
};

// For people: "the next frame begins inside".
const char *describe(Reason reason);

struct Stretch {
    enum Kind : uint8_t {
        kEmpty,   // a length of 0: the end of a block
        kFrame,   // well-formed, or of an unknown type and skipped by its length
        kDamaged  // the well-formed messages before the fault are in the FrameMessages
    } kind;
    Reason reason;  // kDamaged
    bool open;      // kDamaged: the damage may continue; only the beginning of a frame ends it
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

// Limits how many bytes are read more than once. A damaged frame is read, and then the one that begins inside it.
// Hostile data can hold a thousand beginnings inside each other, each of which would be read to the end of the outermost.
// Once as many bytes were read again as there are, plus a free allowance, a damaged frame is skipped as a whole.
class RereadBudget {
  public:
    bool allowed() const { return reread_ <= kFree + passed_; }
    void pass(size_t bytes) { passed_ += bytes; }
    void reread(size_t bytes) { reread_ += bytes; }

    uint64_t bytes_passed() const { return passed_; }
    uint64_t bytes_reread() const { return reread_; }

    static constexpr uint64_t kFree = 8 * trace::kRecordMax;

  private:
    uint64_t passed_ = 0;
    uint64_t reread_ = 0;
};

// Reads the stretch at the beginning of `view`. *messages gets its messages. `searching`: the stretch continues open
// damage, up to the first beginning of a frame. The caller keeps `budget` from stretch to stretch and passes it their
// sizes.
Stretch read_stretch(const View &view, bool searching, FrameMessages *messages, RereadBudget *budget);

}  // namespace vestra_dump
