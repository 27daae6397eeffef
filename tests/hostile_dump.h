// A dump with hostile process names, damage, a gap, and a process id that was used twice.
#pragma once

#include <string>
#include <vector>

#include "trace/frame_writer.h"

namespace dump_test {

const std::vector<std::string> kHostileNames = {"</script><script>document.title=1</script>",
                                                "<img src=x onerror=alert(1)>",
                                                "-->\"'&amp;<b>",
                                                "\xe2\x80\xa8\xe2\x80\xae",
                                                "@{data}@",
                                                "\xff\xfe\n\x1b[2J"};

// Seconds 600 to 659 without 620 to 629.
inline std::string hostile_dump() {
    std::vector<uint8_t> bytes;
    trace::FrameWriter writer(&bytes);
    for (uint64_t second = 600; second < 660; ++second) {
        if (second == 640) writer.put_bytes(std::string(99, '\xff').data(), 99);
        if (second / 10 == 62) continue;
        const uint64_t time_ns = second * 1'000'000'000 + second % 10, past = second - 600;
        writer.begin_frame(trace::kSwitchFrame, 1);
        for (size_t i = 0; i < kHostileNames.size(); ++i) {
            trace::SwitchMessage message;
            message.time_ns = time_ns;
            message.pid = i == 5 ? 100 : 100 + i;  // the last has the first one's id
            if (i == 5 && second < 650) continue;
            if (i == 0 && second >= 650) continue;
            message.name = kHostileNames[i];
            message.cpu_a = past * (i + 1);
            message.rss = 1000 * (6 - i) + past;
            message.swap = i;
            message.element10 = 400 + past;
            for (auto &core : message.cores) core = {past * 50, past * 10, past * 190, 40 + past % 7, past};
            writer.add(message);
        }
        trace::MeminfoMessage info;
        info.time_ns = time_ns;
        info.name = "meminfo";
        info.decimal = {trace::tenths(421 + past), trace::tenths(3), trace::tenths(17)};
        info.figure13 = 200'000 - past * 100;
        info.figure16 = info.figure17 = 700'000;
        writer.begin_frame(trace::kMeminfoFrame, 0);
        writer.add(info);
        writer.end_block();
    }
    return std::string(bytes.begin(), bytes.end()) + "<i>build/<i>model\r\n\x13";
}

}  // namespace dump_test
