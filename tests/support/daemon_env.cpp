#include "support/daemon_env.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

#include "platform/dlog.h"
#include "platform/fault.h"
#include "platform/state_dir.h"
#include "support/seen.h"
#include "vestra-daemon/decoder.h"

namespace vestra_test {

namespace fs = std::filesystem;

World &world() {
    static World instance;
    return instance;
}

Seen &seen() {
    static Seen instance;
    return instance;
}

template <typename T>
static T copied(const T &member) {
    const std::lock_guard<std::mutex> guard(seen().mutex);
    return member;
}

std::vector<LogLine> log_lines() {
    return copied(seen().log);
}
std::vector<int64_t> waits_us() {
    return copied(seen().waits);
}
std::vector<std::string> node_writes() {
    return copied(seen().node_writes);
}
std::vector<std::string> calls() {
    return copied(seen().calls);
}
int fsync_count() {
    return copied(seen().fsyncs);
}

void forget_log() {
    const std::lock_guard<std::mutex> guard(seen().mutex);
    seen().log.clear();
}

void restart_thread_count() {
    const std::lock_guard<std::mutex> guard(seen().mutex);
    seen().threads = 0;
}

std::vector<std::string> log_texts(int priority) {
    std::vector<std::string> texts;
    for (const LogLine &line : log_lines()) {
        if (line.priority >= priority) texts.push_back(line.text);
    }
    return texts;
}

int count_log(int priority, std::string_view text) {
    const auto lines = log_lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine &line) {
        return line.priority == priority && line.text == text;
    }));
}

int count_log(std::string_view part) {
    const auto lines = log_lines();
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&](const LogLine &line) { return line.text.find(part) != std::string::npos; }));
}

/* ------------------------------ Fixture ------------------------------ */

static void reset_globals() {
    free_bufs(&ghead_s);
    free_bufs_shm(&ghead_shm);
    last_node = nullptr;
    shm_list_size = 0;
    exit_flag = key_handling_flag = fault_handling_flag = dod_mode_flag = file_complete_flag = 0;
    if (g_loop != nullptr) g_main_loop_unref(g_loop);  // the daemon leaves it to the process's end
    g_loop = nullptr;
    max_file_size = 10U << 20;
    sleep_time_usec_buf = 1000000;
    sleep_time_sec_file = 4;
    max_number_of_files = 1;
    gtotal_bytes = g_current_new_data = 0;
    g_cnt_of_files = g_prev_usb_path_valid = 0;
    memset(g_prev_file_path, 0, sizeof(g_prev_file_path));
    memset(g_prev_usb_path, 0, sizeof(g_prev_usb_path));
    memset(temperature_file_name, 0, sizeof(temperature_file_name));
    snprintf(process_name, sizeof(process_name), "/usr/bin/vestrad");
    client_thread = thread_for_userdata = thread_for_process_names = thread_read_hndl = 0;
    g_chip_type = 1;
    g_vestra_config = VestraConfig_t{};
    m_image_type = image_type_flags{};
}

// What lay in /tmp before the first test: the build tree may be bound there. It is left alone and not shown.
static const std::set<std::string> &not_ours_in_tmp() {
    static const auto names = [] {
        std::set<std::string> found;
        for (const auto &entry : fs::directory_iterator("/tmp")) found.insert(entry.path().filename());
        return found;
    }();
    return names;
}

// Removes files at the set's own paths: never outside a set.
static void clean_set() {
    if (getenv("VESTRA_SET_INSIDE") == nullptr) abort();
    for (const char *marker : {"/etc/debug", "/etc/perf", "/etc/release", "/etc/prd_info.ini"}) fs::remove(marker);
    const std::set<std::string> &kept = not_ours_in_tmp();
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (kept.count(entry.path().filename()) == 0) fs::remove_all(entry);
    }
    for (const char *room : {"usb", "vconf", "keys", "modules"}) {
        for (const auto &entry : fs::directory_iterator(state_path(room))) fs::remove_all(entry);
    }
    fs::remove(state_path("notifications.jsonl"));
}

DaemonTest::DaemonTest() {
    world() = World{};
    {
        const std::lock_guard<std::mutex> guard(seen().mutex);
        seen().forget();
    }
    platform_faults_reset();
    dlog_set_threshold(DLOG_DEBUG);
    clean_set();
    reset_globals();
}

DaemonTest::~DaemonTest() {
    platform_faults_reset();
    // What a start-up has registered.
    vconf_ignore_key_changed("memory/SHM/trigger_db_write", callbackSHMdbpop);
    vconf_ignore_key_changed("memory/scenario_manager_tv/memory_drop", __scenario_manager_tv_memory);
    vconf_ignore_key_changed("system/DOD/test_monitor", dod_vconf_notify_cb);
    vconf_ignore_key_changed("system/vestra/robust", robustness_vconf_notify_cb);
    world() = World{};
    reset_globals();
}

void DaemonTest::append_block(size_t size, char fill) {
    circ_buf_s *node = nullptr;
    ASSERT_EQ(vestra_get_node(&node, static_cast<int>(size)), static_cast<int>(size));
    memset(node->data, fill, size);
    node->size = static_cast<uint32_t>(size);
    circ_buf_s **tail = &ghead_s;
    while (*tail != nullptr) tail = &(*tail)->next;
    *tail = node;
    gtotal_bytes += node->size;
    g_current_new_data += node->size;
}

void DaemonTest::make_debug_image() {
    write_file("/etc/debug", "");
    write_file("/etc/prd_info.ini", kVersionText);
    g_vestra_config.user_notification_on = 1;
}

/* ------------------------------ Devices ------------------------------ */

PipeNode::PipeNode() {
    EXPECT_EQ(mkfifo(kControlNode, 0600), 0);
    fd_ = open(kControlNode, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(fd_, 0);
}

PipeNode::~PipeNode() {
    close(fd_);
    unlink(kControlNode);
}

std::string PipeNode::drain() const {
    char buffer[65536];
    const ssize_t count = read(fd_, buffer, sizeof(buffer));
    return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : std::string();
}

BlockDevice::BlockDevice() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    reader_ = ends[0];
    writer_ = ends[1];
    const int bytes = 1 << 20;
    setsockopt(writer_, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes));
}

BlockDevice::~BlockDevice() {
    close(reader_);
    close(writer_);
}

void BlockDevice::put(const std::string &block) const {
    ASSERT_EQ(send(writer_, block.data(), block.size(), MSG_DONTWAIT), static_cast<ssize_t>(block.size()));
}

bool BlockDevice::has_block() const {
    char byte;
    return recv(reader_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

/* ------------------------------ Files ------------------------------ */

void write_file(const fs::path &path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> names_in(const fs::path &directory) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory)) {
        std::string name = entry.path().filename();
        if (directory != "/tmp" || not_ours_in_tmp().count(name) == 0) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> notices() {
    std::vector<std::string> lines;
    std::istringstream text(read_file(state_path("notifications.jsonl")));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

PrintedText::PrintedText() {
    fflush(stdout);
    saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    file_ = memfd_create("printed", MFD_CLOEXEC);
    dup2(file_, STDOUT_FILENO);
}

std::string PrintedText::take() {
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    close(file_);
    saved_ = file_ = -1;
    return text;
}

PrintedText::~PrintedText() {
    if (saved_ >= 0) take();
}

/* ------------------------------ Keys ------------------------------ */

struct Relay {
    vconf_callback_fn callback;
    bool called;
};

static void relay(keynode_t *node, void *data) {
    auto *target = static_cast<Relay *>(data);
    if (target->called) return;
    target->called = true;
    target->callback(node, nullptr);
}

// Runs the loop until the change that `set` makes has reached the callback.
static void deliver(const char *key, vconf_callback_fn callback, const std::function<int()> &set) {
    Relay target{callback, false};
    ASSERT_EQ(vconf_notify_key_changed(key, relay, &target), 0);
    EXPECT_EQ(set(), 0);
    const int64_t limit = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (!target.called && g_get_monotonic_time() < limit) g_main_context_iteration(nullptr, FALSE);
    EXPECT_TRUE(target.called) << key;
    vconf_ignore_key_changed(key, relay);
}

void call_with_key(const char *key, int value, vconf_callback_fn callback) {
    deliver(key, callback, [&] { return vconf_set_int(key, value); });
}

void call_with_key(const char *key, const char *value, vconf_callback_fn callback) {
    deliver(key, callback, [&] { return vconf_set_str(key, value); });
}

}  // namespace vestra_test
