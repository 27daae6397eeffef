// The work that scripts/instruction-count counts: decode_counted decodes a small fixed stream. Its calls cover what
// happens while decoding: known and new processes, a list that fills and a full one, a full ring.

#include <iterator>
#include <vector>

#include "bench/trace_stream.h"
#include "platform/dlog.h"
#include "vestra-daemon/decoder.h"

using namespace vestra_bench;

// Not inlined: the script starts counting at this name.
extern "C" [[gnu::noinline]] void decode_counted(const std::vector<Block> &blocks) {
    for (const Block &block : blocks) {
        decode_file(const_cast<unsigned char *>(block.data()), static_cast<unsigned>(block.size()));
    }
}

int main() {
    dlog_set_threshold(DLOG_ERROR);
    init_collected_data();
    Stream steady(1500), short_lived(10000, Processes::short_lived), swapless(1500, Processes::swapless);
    for (Stream *stream : {&steady, &short_lived, &swapless}) decode_counted(stream->next());
}
