// Any bytes, as a sequence of the module's blocks. "NEXT" separates blocks; as a length it is invalid.
//
// Rules, in addition to those of decoder_state.h: a block is only read, and the result is the type of its last frame.

#include <memory>
#include <string_view>

#include "fuzz/decoder_state.h"
#include "fuzz/fuzz_env.h"
#include "vestra-daemon/decoder.h"

namespace {

constexpr std::string_view kNext = "NEXT";

// Type of the last frame with at least two bytes, by the description of the format.
int last_type(std::string_view block) {
    int type = -1;
    while (block.size() > trace::kLengthField) {
        const uint64_t size = get_frame_len(reinterpret_cast<const unsigned char *>(block.data()));
        if (size > kFrameMax || block.size() - trace::kLengthField <= size) break;
        block.remove_prefix(trace::kLengthField);
        if (size >= 2) type = static_cast<signed char>(block[0]);
        block.remove_prefix(static_cast<size_t>(size));
    }
    return type;
}

void decode(std::string_view block) {
    // A copy of exactly this size, so that the sanitizer sees a read past its end.
    const auto copy = std::make_unique<unsigned char[]>(block.size());
    std::copy(block.begin(), block.end(), copy.get());
    const int type = decode_file(copy.get(), static_cast<unsigned>(block.size()));
    FUZZ_RULE(type == last_type(block), "the result is the type of the block's last frame");
    FUZZ_RULE(std::string_view(reinterpret_cast<char *>(copy.get()), block.size()) == block, "a block is only read");
}

}  // namespace

void vestra_fuzz::prepare() {
    reset_decoder();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view rest(reinterpret_cast<const char *>(data), size);
    while (!rest.empty()) {
        const size_t end = rest.find(kNext);
        decode(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + kNext.size());
    }
    vestra_fuzz::check_decoder();
    if (size % 128 == 0) printCollectedData();  // rarely: it takes longer than everything else
    vestra_fuzz::reset_decoder();
    return 0;
}
