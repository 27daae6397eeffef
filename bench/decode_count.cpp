// The work that scripts/instruction-count counts: a small fixed stream, decoded by decode_counted alone. Each call of
// it is one of the situations that decoding meets: processes known and new, the list filling and full, the ring full.

#include <iterator>
#include <vector>

#include "bench/trace_stream.h"
#include "platform/dlog.h"
#include "vestra-daemon/decoder.h"

using namespace vestra_bench;

// Not inlined: the script switches the counting on at its name.
extern "C" [[gnu::noinline]] void decode_counted(const std::vector<Block> &blocks) {
    for (const Block &block : blocks) {
        decode_file(const_cast<unsigned char *>(block.data()), static_cast<unsigned>(block.size()));
    }
}

int main() {
    dlog_set_threshold(DLOG_ERROR);
    init_collected_data();
    Stream steady(1500), short_lived(10000, Life::short_), swapless(1500, Life::swapless);
    for (Stream *stream : {&steady, &short_lived, &swapless}) decode_counted(stream->next());
}
