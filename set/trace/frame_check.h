// A reader of trace frames that shares nothing with the daemon's: it judges whether bytes are a well-formed frame
// record, and finds the next one behind damage. No length is believed before it was checked.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trace/trace_format.h"

namespace vestra_set {

using namespace trace;

struct FrameCheck {
    enum Verdict {
        kGood,       // every message well-formed to the frame's end; no message at all is well-formed
        kBadFrame,   // fewer than two bytes, or a core that is none
        kBadMessage  // the messages before it count
    } verdict = kBadFrame;
    uint8_t type = 0;       // 0 when the frame is empty
    uint64_t messages = 0;  // well-formed ones
    bool timed = false;     // there was a message; then the smallest and greatest time stamp, ns
    int64_t first_ns = 0;
    int64_t last_ns = 0;
};

// Judges the `size` bytes behind a length field. A type other than 7 and 8 is good as it is: its messages are not
// known. Looks at no more than `limit` messages; a frame that is well-formed that far is good.
FrameCheck check_frame(const uint8_t *frame, size_t size, uint64_t limit = UINT64_MAX);

// Whether bytes in the middle of anything look so much like a frame record (a known type, a first message) that a
// reader may go on from here: `available` bytes from here on are there to look at.
bool is_anchor(const uint8_t *bytes, size_t available);

}  // namespace vestra_set
