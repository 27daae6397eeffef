// Writes two files with the same content: a dump, and a trace in the Common Trace Format (CTF 1.8) with an event for
// every message. So the readers of the two formats can be compared. Also walks a dump as a baseline for reading it.
//
//   dump_pair make DIR MIB     writes DIR/dump and DIR/ctf/, prints the number of messages
//   dump_pair walk DUMP        reads every varint and stores nothing
//
// The events hold the elements as aligned 64-bit integers, which are the format's fastest to read.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/bare_walk.h"
#include "bench/trace_stream.h"

using namespace vestra_bench;

namespace {

constexpr uint32_t kMagic = 0xc1fc1fc1;

std::string metadata() {
    std::string text = R"(/* CTF 1.8 */
typealias integer { size = 32; align = 8; signed = false; } := uint32_t;
typealias integer { size = 64; align = 8; signed = false; } := uint64_t;
trace { major = 1; minor = 8; byte_order = le; packet.header := struct { uint32_t magic; uint32_t stream_id; }; };
clock { name = monotonic; freq = 1000000000; };
typealias integer { size = 64; align = 8; signed = false; map = clock.monotonic.value; } := time_t;
stream {
    id = 0;
    packet.context := struct { time_t timestamp_begin; time_t timestamp_end; uint64_t content_size; uint64_t packet_size; };
    event.header := struct { uint32_t id; time_t timestamp; };
};
event { name = switch; id = 0; stream_id = 0; fields := struct {
    uint64_t type; uint64_t element1; uint64_t pid; string name; uint64_t element4; uint64_t element5;
    uint64_t cpu_a; uint64_t cpu_b; uint64_t rss; uint64_t swap; uint64_t element10; uint64_t element11;
)";
    for (size_t core = 0; core < trace::kCoreCount; ++core) {
        for (const char *figure : {"user", "system", "idle", "temperature", "iowait"}) {
            text += std::string("    uint64_t ") + figure + std::to_string(core) + ";\n";
        }
    }
    return text + "}; };\n";
}

void append(std::string *to, const void *bytes, size_t size) {
    to->append(static_cast<const char *>(bytes), size);
}
template <class... Integers>
void append_64(std::string *to, Integers... values) {
    const uint64_t all[] = {values...};
    append(to, all, sizeof all);
}

void append_event(std::string *to, const trace::SwitchMessage &message) {
    const uint32_t id = 0;
    append(to, &id, sizeof id);
    append_64(to, message.time_ns, message.type, message.element1, message.pid);
    to->append(message.name).push_back('\0');
    append_64(to, message.element4, message.element5, message.cpu_a, message.cpu_b, message.rss, message.swap,
              message.element10, message.element11);
    for (const trace::CoreTimes &core : message.cores) {
        append_64(to, core.user, core.system, core.idle, core.temperature, core.iowait);
    }
}

void write_packet(std::ostream &out, const std::string &events, uint64_t begin, uint64_t end) {
    std::string header;
    const uint32_t start[] = {kMagic, 0};
    append(&header, start, sizeof start);
    const uint64_t bits = (sizeof start + 4 * sizeof(uint64_t) + events.size()) * 8;
    append_64(&header, begin, end, bits, bits);
    out << header << events;
}

int make(const std::filesystem::path &directory, size_t bytes) {
    std::filesystem::create_directories(directory / "ctf");
    std::ofstream dump(directory / "dump", std::ios::binary), stream(directory / "ctf/stream", std::ios::binary);
    std::ofstream(directory / "ctf/metadata") << metadata();
    Stream source(1500);
    int64_t messages = 0;
    for (size_t written = 0; written < bytes; written += static_cast<size_t>(source.bytes())) {
        std::string events;
        uint64_t begin = 0, end = 0;
        const auto &blocks = source.next([&](const trace::SwitchMessage &message, bool) {
            if (events.empty()) begin = message.time_ns;
            end = message.time_ns;
            append_event(&events, message);
        });
        for (const Block &block : blocks) {
            dump.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(block.size()));
        }
        write_packet(stream, events, begin, end);
        messages += source.messages();
    }
    std::printf("%" PRId64 "\n", messages);
    return dump.flush() && stream.flush() ? 0 : 1;
}

int walk(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat info = {};
    if (fd < 0 || fstat(fd, &info) != 0 || info.st_size == 0) return 1;
    const auto size = static_cast<size_t>(info.st_size);
    void *bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (bytes == MAP_FAILED) return 1;
    const auto *begin = static_cast<const uint8_t *>(bytes);
    std::printf("%" PRIu64 "\n", bare_walk(begin, begin + size));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 4 && strcmp(argv[1], "make") == 0) return make(argv[2], std::strtoul(argv[3], nullptr, 10) << 20);
    if (argc == 3 && strcmp(argv[1], "walk") == 0) return walk(argv[2]);
    std::fprintf(stderr, "usage: dump_pair make DIR MIB | walk DUMP\n");
    return 64;
}
