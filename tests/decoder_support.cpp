#include "decoder_support.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/dlog.h"
#include "vestra-daemon/vestra_log.h"
#include "vestra-daemon/vestrad.h"

namespace decoder_test {

static std::mutex log_mutex;
static std::vector<LogLine> log_lines;  // guarded by log_mutex

static std::string vtext(const char *format, va_list arguments) {
    char buffer[16384];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(buffer, sizeof(buffer), format, arguments);
#pragma GCC diagnostic pop
    return buffer;
}

// The daemon's calls of __dlog_print come here.
extern "C" int __wrap___dlog_print(log_id_t id, int priority, const char *tag, const char *format, ...) {
    static constexpr size_t kPrefix = sizeof(VESTRA_LOG_PREFIX) - 1;
    if (strncmp(format, VESTRA_LOG_PREFIX, kPrefix) != 0) return 0;  // a platform service's line
    EXPECT_EQ(id, LOG_ID_MAIN);
    EXPECT_STREQ(tag, "VESTRA");
    va_list arguments;
    va_start(arguments, format);
    const char *file = va_arg(arguments, const char *);
    EXPECT_TRUE(strcmp(file, "decoder.cpp") == 0 || strcmp(file, "vestra_ipc.cpp") == 0) << file;
    LogLine line{priority, va_arg(arguments, const char *), ""};
    const int number = va_arg(arguments, int);
    EXPECT_EQ(va_arg(arguments, const char *), line.function);
    EXPECT_EQ(va_arg(arguments, int), number);
    line.text = vtext(format + kPrefix, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> hold(log_mutex);
    log_lines.push_back(line);
    return 0;
}

std::vector<LogLine> take_log(int least) {
    std::vector<LogLine> taken;
    const std::lock_guard<std::mutex> hold(log_mutex);
    for (LogLine &line : log_lines) {
        if (line.priority >= least) taken.push_back(std::move(line));
    }
    log_lines.clear();
    return taken;
}

bool take_line(const LogLine &line) {
    for (const LogLine &taken : take_log()) {
        if (taken.priority == line.priority && taken.function == line.function && taken.text == line.text) return true;
    }
    return false;
}

std::string log_text(int least) {
    std::string all;
    for (const LogLine &line : take_log(least)) {
        const bool ended = !line.text.empty() && line.text.back() == '\n';
        all += text("%d %s ", line.priority, line.function.c_str()) + line.text.substr(0, line.text.size() - ended);
        all += ended ? "$\n" : "\n";
    }
    return all;
}

std::string text(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string result = vtext(format, arguments);
    va_end(arguments);
    return result;
}

void reset_decoder() {
    free_bufs_shm(&ghead_shm);
    last_node = nullptr;
    shm_list_size = 0;
    init_collected_data();
    maxTimeValue = -1;
    g_CPUTotalPercent = 0;
    exit_flag = 0;
    dlog_set_threshold(kDebug);
    take_log();
}

DecoderTest::~DecoderTest() {
    EXPECT_EQ(pthread_mutex_trylock(&shm_lock), 0) << "the list is left locked";
    pthread_mutex_unlock(&shm_lock);
    reset_decoder();
}

Bytes block(const std::vector<Bytes> &frames) {
    Bytes block;
    for (const Bytes &frame : frames) {
        for (size_t i = 0; i < 4; ++i) block.push_back(static_cast<uint8_t>(frame.size() >> (8 * i)));
        block.insert(block.end(), frame.begin(), frame.end());
    }
    block.insert(block.end(), 4, 0);
    return block;
}

int decode_block(const Bytes &block) {
    Bytes given = block;
    const int type = decode_file(given.data(), static_cast<unsigned>(given.size()));
    EXPECT_EQ(given, block) << "the caller's block is only read";
    return type;
}

int decode(const std::vector<Bytes> &frames) {
    return decode_block(block(frames));
}

void decode(const vestra_set::SwitchMessage &message) {
    decode({frame(vestra_set::kSwitchFrame, message)});
}

vestra_set::SwitchMessage sample(double seconds, uint64_t pid, std::string_view name) {
    vestra_set::SwitchMessage message;
    message.time_ns = static_cast<uint64_t>(std::llround(seconds * 1e9));
    message.pid = pid;
    message.name = name;
    message.rss = 1000;
    message.swap = 10;
    return message;
}

std::vector<ListEntry> list() {
    std::vector<ListEntry> entries;
    const circ_buf_shm *newer = nullptr;
    size_t size = 0;
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; newer = node, node = node->next) {
        EXPECT_EQ(node->prev, newer);
        size += 20 + node->timestamp.size() + node->name.size();
        const std::string name = node->name;
        entries.push_back(
            {node->timestamp + text(" %d %s %d %d", node->pid, name.c_str(), node->rss, node->swap), node->cpu});
    }
    EXPECT_EQ(last_node, newer);
    EXPECT_EQ(shm_list_size, static_cast<int>(size));
    return entries;
}

}  // namespace decoder_test
