// A little reader of trace blocks for tests: it holds to the reader's rules of docs/trace-format.md and knows nothing
// of the code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vestra_test {

struct ReadMessage {
    int frame_type = 0;
    int core = 0;
    std::vector<uint64_t> numbers;  // message type, then the varints in order, without the name's length
    std::string name;

    uint64_t time() const { return numbers[1]; }
    uint64_t switch_element(size_t i) const { return numbers[i < 3 ? i + 1 : i]; }  // not 3, the name
    uint64_t core_figure(size_t of_core, size_t i) const { return numbers[12 + 5 * of_core + i]; }
};

struct ReadBlock {
    std::vector<ReadMessage> messages;
    std::vector<size_t> frames;  // offsets of the records with a frame of two bytes or more
    size_t refused = 0;          // of those, the ones not read to their end
    size_t end = 0;              // where the reader stopped
};

inline ReadBlock read_block(const std::vector<uint8_t> &block) {
    ReadBlock result;
    size_t &at = result.end;
    while (block.size() > at + 4) {
        const uint32_t length = block[at] + 256U * block[at + 1] + 65536U * block[at + 2] + 16777216U * block[at + 3];
        if (length > 131072 || at + 4 + length >= block.size()) break;
        const size_t end = at + 4 + length;
        size_t i = at + 4;
        const auto varint = [&]() -> std::optional<uint64_t> {
            uint64_t value = 0;
            for (int n = 0; n < 10 && i < end; ++n) {
                const uint64_t byte = block[i++];
                value |= (byte % 128) << (7 * n);
                if (byte < 128) return value;
            }
            return std::nullopt;
        };
        if (length >= 2) {
            result.frames.push_back(at);
            ReadMessage message;
            message.frame_type = block[i++];
            message.core = block[i++];
            bool good = message.core < 4;
            const size_t count = message.frame_type == 7 ? 32 : message.frame_type == 8 ? 18 : 0;
            while (good && count > 0 && i < end) {
                message.numbers.clear();
                while (good && message.numbers.size() < count) {
                    const auto value = varint();
                    good = value && (!message.numbers.empty() || *value == 1 || *value == 2);
                    if (good) message.numbers.push_back(*value);
                    if (!good || message.numbers.size() != 4) continue;
                    const auto size = varint();
                    good = size && *size > 0 && *size <= end - i;
                    if (!good) continue;
                    message.name.assign(reinterpret_cast<const char *>(&block[i]), static_cast<size_t>(*size));
                    i += static_cast<size_t>(*size);
                }
                if (good) result.messages.push_back(message);
            }
            if (!good) ++result.refused;
        }
        at = end;
    }
    return result;
}

}  // namespace vestra_test
