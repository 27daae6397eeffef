#include "decoder_support.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <ostream>

#include "platform/dlog.h"
#include "platform/vconf.h"
#include "vestra-daemon/vestra_log.h"
#include "vestra-daemon/vestrad.h"

namespace decoder_test {
namespace {

std::mutex log_mutex;
std::vector<LogLine> log_lines;  // guarded by log_mutex

std::string vtext(const char *format, va_list arguments) {
    char buffer[16384];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(buffer, sizeof(buffer), format, arguments);
#pragma GCC diagnostic pop
    return buffer;
}

constexpr char kTriggerKey[] = "memory/SHM/trigger_db_write";

}  // namespace

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

bool operator==(const LogLine &a, const LogLine &b) {
    return a.priority == b.priority && a.function == b.function && a.text == b.text;
}

void PrintTo(const LogLine &line, std::ostream *out) {
    *out << line.priority << " " << line.function << " \"" << line.text << "\"";
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
        if (taken == line) return true;
    }
    return false;
}

std::string text(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string result = vtext(format, arguments);
    va_end(arguments);
    return result;
}

static void reset() {
    free_bufs_shm(&ghead_shm);
    last_node = nullptr;
    shm_list_size = 0;
    init_collected_data();
    maxTimeValue = -1;
    g_CPUTotalPercent = 0;
    for (double &percent : g_CPUTotalPer) percent = 0;
    exit_flag = 0;
}

DecoderTest::DecoderTest() {
    reset();
    dlog_set_threshold(kDebug);
    take_log();
}

DecoderTest::~DecoderTest() {
    reset();
}

Bytes block(const std::vector<Bytes> &frames) {
    Bytes bytes;
    for (const Bytes &frame : frames) {
        for (size_t i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(frame.size() >> (8 * i)));
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    bytes.insert(bytes.end(), 4, 0);
    return bytes;
}

int decode(Bytes block) {
    return decode_file(block.data(), static_cast<unsigned>(block.size()));
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

bool operator==(const ListEntry &a, const ListEntry &b) {
    return a.timestamp == b.timestamp && a.pid == b.pid && a.name == b.name && a.rss == b.rss && a.swap == b.swap &&
           a.cpu == b.cpu;
}

void PrintTo(const ListEntry &entry, std::ostream *out) {
    *out << entry.timestamp << " " << entry.pid << " " << entry.name << " " << entry.rss << " " << entry.swap << " "
         << entry.cpu;
}

std::vector<ListEntry> list() {
    std::vector<ListEntry> entries;
    const circ_buf_shm *newer = nullptr;
    int size = 0;
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; newer = node, node = node->next) {
        EXPECT_EQ(node->prev, newer);
        entries.push_back({node->timestamp, node->pid, node->name, node->rss, node->swap, node->cpu});
        size += 20 + static_cast<int>(node->timestamp.size() + node->name.size());
    }
    EXPECT_EQ(last_node, newer);
    EXPECT_EQ(shm_list_size, size);
    return entries;
}

int trigger_key() {
    int value = -1;
    vconf_get_int(kTriggerKey, &value);
    return value;
}

void set_trigger_key(int value) {
    EXPECT_EQ(vconf_set_int(kTriggerKey, value), 0);
}

}  // namespace decoder_test
