// Writes generated seeds: blocks of the simulated module for each profile, in the form that the targets read.
//
//   fuzz_seeds DIRECTORY      DIRECTORY/TARGET/NAME

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "set/trace/source.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> blocks_of(const std::string &profile, uint32_t processes, uint32_t size, int count,
                                   uint64_t step_ns) {
    vestra_set::SourceOptions options;
    options.profile = profile;
    options.processes = processes;
    options.block_size = size;
    options.step_ns = step_ns;
    options.seed = 11;
    std::string error;
    const auto source = vestra_set::make_source(options, &error);
    if (source == nullptr) throw std::runtime_error(error);
    std::vector<std::string> blocks;
    std::vector<uint8_t> block(trace::kBlockMax);
    for (; count > 0; --count) {
        const size_t filled = source->next_block(block.data(), block.size());
        blocks.emplace_back(block.begin(), block.begin() + static_cast<ptrdiff_t>(filled));
    }
    return blocks;
}

std::string join(const std::vector<std::string> &blocks, const std::string &between) {
    std::string all;
    for (const std::string &block : blocks) all += (all.empty() ? "" : between) + block;
    return all;
}

void save(const fs::path &path, const std::string &bytes) {
    fs::create_directories(path.parent_path());
    if (!(std::ofstream(path, std::ios::binary) << bytes)) throw std::runtime_error("cannot write " + path.string());
}

void write_seeds(const fs::path &directory) {
    constexpr uint64_t kSecond = 1'000'000'000;
    for (const char *profile : {"steady", "burst", "stall", "hostile"}) {
        for (const uint32_t processes : {3U, 20U}) {
            const auto blocks = blocks_of(profile, processes, 600, 5, kSecond);
            const std::string name = profile + std::string("-") + std::to_string(processes);
            save(directory / "decode_file" / name, join(blocks, "NEXT"));
            save(directory / "dump" / name, std::string(1, '\x05') + join(blocks, "") + "B-1/M\r\n\x07");
            save(directory / "dump" / (name + "-lite"),
                 std::string(1, '\0') + join(blocks, "") + "B-1/M\r\n\x07QXLiteMode=1\x0c");
        }
    }
    save(directory / "decode_file" / "turns-of-the-ring", join(blocks_of("steady", 2, 200, 8, 61 * kSecond), "NEXT"));
    // Starts of frames inside process names, thousands of them nested, each with a fault.
    const std::string part("\x01\x01\x01\x01\x06\x7f\x0f\x00\x00\x07\x00", 11);
    std::string nested(1, '\0');
    for (int i = 1; i <= 1600; ++i) {
        nested += part + part + part + "\x01\x01\x01\x01\x06\x01";
        if (i % 100 == 0) nested.append(40, '\xff');
    }
    save(directory / "dump" / "nested-beginnings", nested);
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc != 2) {
        std::cerr << "usage: fuzz_seeds DIRECTORY\n";
        return 2;
    }
    write_seeds(argv[1]);
    return 0;
} catch (const std::exception &problem) {
    std::cerr << "fuzz_seeds: " << problem.what() << '\n';
    return 1;
}
