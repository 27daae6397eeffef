#include "support/daemon_env.h"

#include <sys/wait.h>

#include <regex>
#include <sstream>

#include "platform/dlog.h"

namespace vestra_test {

static void reset_globals() {
    free_bufs(&ghead_s);
    free_bufs_shm(&ghead_shm);
    last_node = nullptr;
    shm_list_size = 0;
    init_collected_data();
    maxTimeValue = -1;
    g_CPUTotalPercent = 0;
    exit_flag = key_handling_flag = fault_handling_flag = dod_mode_flag = file_complete_flag = 0;
    max_file_size = 10U << 20;
    sleep_time_usec_buf = 1000000;
    sleep_time_sec_file = 4;
    gtotal_bytes = g_current_new_data = 0;
    g_cnt_of_files = g_prev_usb_path_valid = 0;
    for (char *text : {g_prev_file_path, g_prev_usb_path, temperature_file_name}) memset(text, 0, kPathSize);
    snprintf(process_name, sizeof(process_name), "/usr/bin/vestrad");
    client_thread = thread_for_userdata = thread_for_process_names = thread_read_hndl = 0;
    g_chip_type = 1;
    g_vestra_config = VestraConfig_t{};
    m_image_type = image_type_flags{};
    if (inotify_fd >= 0) close(inotify_fd);
    inotify_fd = inotify_wd = -1;
}

// Removes files at the set's own paths: never outside a set.
static void clean_set() {
    if (getenv("VESTRA_SET_INSIDE") == nullptr) abort();
    for (const char *file : {"/etc/debug", "/etc/perf", "/etc/release", "/etc/prd_info.ini", kControlNode}) {
        fs::remove(file);
    }
    for (const std::string &name : names_in("/tmp")) fs::remove_all("/tmp/" + name);
    for (const char *room : {"usb", "vconf", "keys", "modules"}) {
        for (const auto &entry : fs::directory_iterator(state_path(room))) fs::remove_all(entry);
    }
    fs::remove(state_path("notifications.jsonl"));
}

void forget_start() {
    vconf_ignore_key_changed("memory/SHM/trigger_db_write", callbackSHMdbpop);
    vconf_ignore_key_changed("memory/scenario_manager_tv/memory_drop", __scenario_manager_tv_memory);
    vconf_ignore_key_changed("system/DOD/test_monitor", dod_vconf_notify_cb);
    vconf_ignore_key_changed("system/vestra/robust", robustness_vconf_notify_cb);
    if (g_loop != nullptr) g_main_loop_unref(g_loop);  // the daemon leaves it to the process's end
    g_loop = nullptr;
}

static int node = -1;

// What the libraries open once and keep.
static void open_what_stays() {
    get_shm();
    call_with_key("first", 1, [](keynode_t *, void *) {});
}

DaemonTest::DaemonTest() {
    start_afresh();
    [[maybe_unused]] static const bool once = (open_what_stays(), start_afresh(), true);
    descriptors_ = names_in("/proc/self/fd").size();
}

DaemonTest::~DaemonTest() {
    EXPECT_TRUE(is_free(&lock));
    EXPECT_TRUE(is_free(&shm_lock));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    start_afresh();
    EXPECT_EQ(names_in("/proc/self/fd").size(), descriptors_);
}

void DaemonTest::start_afresh() {
    world() = World{};
    platform_faults_reset();
    dlog_set_threshold(DLOG_DEBUG);
    forget_start();
    if (node >= 0) close(std::exchange(node, -1));
    clean_set();
    reset_globals();
    begin_transcript();
}

void DaemonTest::append_block(size_t size, char fill) {
    circ_buf_s *block = nullptr;
    ASSERT_EQ(vestra_get_node(&block, static_cast<int>(size)), static_cast<int>(size));
    memset(block->data, fill, size);
    block->size = static_cast<uint32_t>(size);
    circ_buf_s **tail = &ghead_s;
    while (*tail != nullptr) tail = &(*tail)->next;
    *tail = block;
    gtotal_bytes += block->size;
    g_current_new_data += block->size;
}

void DaemonTest::make_debug_image() {
    write_file("/etc/debug", "");
    write_file("/etc/prd_info.ini", kVersionText);
    g_vestra_config.user_notification_on = 1;
}

void DaemonTest::plug_known_stick() {
    fs::create_directories(kStick);
    usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
    snprintf(g_prev_usb_path, sizeof(g_prev_usb_path), "%s", kStick);
    g_prev_usb_path_valid = 1;
}

int make_node() {
    EXPECT_EQ(mkfifo(kControlNode, 0600), 0);
    return node = open(kControlNode, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

void put(const std::string &block) {
    ASSERT_EQ(write(node, block.data(), block.size()), static_cast<ssize_t>(block.size()));
}

std::string drain_node() {
    std::string text(65536, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(read(node, text.data(), text.size()), 0)));
    return text;
}

std::string notices() {
    return read_file(state_path("notifications.jsonl"));
}

std::string printed_by(const std::function<void()> &body) {
    internal::CaptureStdout();
    body();
    fflush(stdout);
    return internal::GetCapturedStdout();
}

std::string seen_text(std::string_view kinds) {
    std::string text;
    static const std::regex kVaries(
        R"(-(?=nan)| success \(.*|0x[0-9a-f]{6,}|((append_image_version|KeyCombination_Initialize) failed) \(.*)");
    for (const std::string &entry : seen(kinds)) text += std::regex_replace(entry, kVaries, "$1") + "\n";
    return text;
}

std::string lines_with(const std::string &part, const std::string &all) {
    const std::regex pattern(part);
    std::istringstream lines(all);
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_search(line, pattern)) found += line + "\n";
    }
    return found;
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the callers' compilers look at the formats
std::string formatted(const char *format, va_list arguments) {
    char buffer[16384];
    vsnprintf(buffer, sizeof(buffer), format, arguments);
    return buffer;
}

std::string text(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string result = formatted(format, arguments);
    va_end(arguments);
    return result;
}

bool is_free(pthread_mutex_t *mutex) {
    const bool taken = pthread_mutex_trylock(mutex) == 0;
    if (taken) pthread_mutex_unlock(mutex);
    return taken;
}

void call_with_key(const char *key, std::variant<int, std::string> value, vconf_callback_fn callback) {
    const auto relay = [](keynode_t *change, void *target) {
        const auto called = std::exchange(*static_cast<vconf_callback_fn *>(target), nullptr);
        if (called != nullptr) called(change, nullptr);
    };
    ASSERT_EQ(vconf_notify_key_changed(key, relay, &callback), 0);
    const auto *number = std::get_if<int>(&value);
    EXPECT_EQ(number ? vconf_set_int(key, *number) : vconf_set_str(key, std::get<std::string>(value).c_str()), 0);
    const int64_t limit = g_get_monotonic_time() + 20 * G_USEC_PER_SEC;
    while (callback != nullptr && g_get_monotonic_time() < limit) {
        if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(1000);
    }
    EXPECT_EQ(callback, nullptr) << "never called for " << key;
    vconf_ignore_key_changed(key, relay);
}

}  // namespace vestra_test
