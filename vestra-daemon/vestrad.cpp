// vestrad.cpp -- start-up, capture and dump, triggers, driver user data and probes.
//
// Divisions, in order:
//    1 Paths and limits                 every path, key and limit of this file
//    2 State                            every global: unit, writer, guard
//    3 Image type and small files       marker files, refusal of links, readers of one value
//    4 Kernel module and control node   load, unload, open, shell, chip
//    5 Output location                  the USB directory, and the runner for mv, cp, rm, mkdir and curl
//    6 On-screen notice                 how a key dump ended, on debug images
//    7 Capture chain                    what was read from the node, oldest block first, within a byte budget
//    8 Dump writer                      chain and version trailer into a file, and the file to its place
//    9 Live upload                      one block to a server; nothing calls it
//   10 Reader thread                    rounds of read, pause and, when due, continuous dump
//   11 Triggers                         callbacks of the key combination and the vconf keys
//   12 Temperature probes               thermal files, uptime, DDR refresh rates
//   13 Driver user data                 short text commands to the module
//   14 Process filter list              names from a dropped file, sent to the module
//   15 Start-up, main, shut-down        one function a step
//
// Threads: "QXReadData" (10) reads, decodes, appends to the chain, trims it and writes continuous dumps. The main
// thread starts and stops everything; its loop runs the callbacks (11), which write all other dumps. "QXUserDataHndl"
// (13) sends the temperature. "QXProcess" (14) watches the list directory and never ends. "QXClientProcess" is in
// vestra_ipc.cpp. Lock order: `lock`, then shm_lock (decoder.cpp). Flags and the USB path cache are plain words without
// a lock; division 2 names their writers.

#include "vestra-daemon/vestrad.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <sstream>
#include <stdexcept>

#include "client/vestra_api.h"
#include "platform/notification.h"
#include "platform/privileged_service.h"
#include "platform/system_info.h"
#include "platform/usb_device.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestra_ipc.h"
#include "vestra-daemon/vestra_log.h"

/* ------------------------------ 1. Paths and limits ------------------------------ */

static constexpr char kDaemonName[] = "vestrad";  // in the messages of a lookup
static constexpr char kControlNode[] = "/proc/vesertra_info";
static constexpr char kModuleFile[] = "/lib/modules/linux/kernel/orna-vestra-kmod.ko";
static constexpr char kModuleName[] = "orna_vestra_kmod";
static constexpr char kChipsetKey[] = "com.velmora/featureconf/product.chipset";
static constexpr char kConfigFile[] = "/opt/data/vestraDir/orna_vestra_config.xml";
static constexpr char kConfigFileLpc[] = "/opt/data/vestraDir/orna_vestra_config_lpc.xml";
static constexpr char kVersionFile[] = "/etc/prd_info.ini";
static constexpr char kFaultPolicyFile[] = "/opt/usr/share/marlet/marlet_ira_policy.xml";
static constexpr char kTempDir[] = "/tmp";
static constexpr char kDodFolder[] = "issue_report_agent_DOD/Vestra";
static constexpr char kListDir[] = "/tmp/vestra_processes/";
static constexpr char kListName[] = "processes.txt";
static constexpr char kListFile[] = "/tmp/vestra_processes/processes.txt";
static constexpr char kThermalDir[] = "/sys/devices/platform/soc/thermal/";
static constexpr char kThermalDirBelowDevices[] = "/platform/soc/thermal/";
static constexpr char kDdrParameters[] = "/sys/devices/platform/soc/ddrphy/acparam/ddr";
static constexpr char kDdrManufacturer[] = "/sys/devices/platform/soc/ddrphy/manufacturer/ddra";
static constexpr char kUptimeFile[] = "/proc/uptime";

static constexpr char kKeyHistoryTrigger[] = "memory/SHM/trigger_db_write";
static constexpr char kKeyMemoryDrop[] = "memory/scenario_manager_tv/memory_drop";
static constexpr char kKeyDod[] = "system/DOD/test_monitor";
static constexpr char kKeyRobust[] = "system/vestra/robust";
static constexpr int kMemoryDropBit = 0x100;

static constexpr uint32_t kMiB = 1U << 20;
static constexpr uint32_t kDumpLimit = 10 * kMiB;    // bytes, largest max_file_size
static constexpr uint32_t kDumpLeast = 1 * kMiB;     // bytes, smallest
static constexpr int kSizeLimitMiB = 10;             // on the command line
static constexpr int kSizeLimitSmallChipMiB = 7;     // on the command line of a small chip
static constexpr uint32_t kAttemptMargin = 0x40000;  // bytes below a full budget at which a continuous dump is tried
static constexpr int kDumpKeyCombination = 87;
static constexpr int kStopSignalOffset = 6;  // SIGRTMIN + 6; SIGRTMIN is only known at run time

static constexpr int kNodeLooks = 401;  // looks for the control node after loading or unloading
static constexpr int kNodeLookPauseUs = 10000;
static constexpr int kOpenAttempts = 21;
static constexpr int kOpenPauseUs = 200000;
static constexpr int kReadAttempts = 20;
static constexpr int kWriteAttempts = 20;  // write calls for one chain node
static constexpr int kDefaultRetries = 40;
static constexpr int kFaultWaitSeconds = 30;
static constexpr int kFillWaitSeconds = 250;
static constexpr int kVersionLines = 20;
static constexpr int kVersionLineBytes = 128;
static constexpr int kModelBytes = 32;
static constexpr int kArgumentSlots = 6;   // strings that the command runner keeps
static constexpr int kCommandBytes = 256;  // user-data command or shell command, terminator included
static constexpr int kFilterNamesSent = 5;
static constexpr int kListBytes = 65536;       // read of a list file: anyone may drop one without an end
static constexpr int kTemperatureAlarm = 125;  // degrees C
static constexpr int kDdrChannels = 4;
static constexpr int kLongPath = 1024;  // a directory, a name and the fixed parts of a dump's path

// Also prints the text: the set's boot log collects standard output.
#define LOG_AND_PRINT(prio, fmt, ...)         \
    do {                                      \
        VESTRA_LOG(prio, fmt, ##__VA_ARGS__); \
        printf(fmt, ##__VA_ARGS__);           \
    } while (0)

/* ------------------------------ 2. State ------------------------------ */
// Unless a comment says otherwise: written by the main thread at start-up, constant afterwards, read by any thread.

int32_t exit_flag;               // 1: stop. Set by signal handler and shut-down, polled by all threads but "QXProcess"
GMainLoop *g_loop;               // null until the loop is made; the signal handler quits it
uint32_t max_file_size;          // bytes, budget of the chain and size of a dump
int32_t sleep_time_usec_buf;     // us, pause of the reader thread after each read
int32_t sleep_time_sec_file;     // s, least time between two continuous dumps
int32_t sleep_time_live_file;    // s, interval of live uploads; nothing reads it
int32_t max_number_of_files;     // continuous dumps kept; only printed, the writer reads no_of_files
char process_name[kPathSize];    // argv[0], always terminated
char VESTRA_CONFIG_FILE[96];     // path of the configuration file
int32_t g_chip_type = 1;         // chip code 1 to 7; RIVAM until the set says otherwise
VestraConfig_t g_vestra_config;  // see vestra_xml.h; "QXProcess" writes the filter fields later
image_type_flags m_image_type;   // filled by m_UpdateImageType, which the daemon does not call

// Thread handles, 0: not running. Main thread only.
pthread_t client_thread, thread_for_userdata, thread_for_process_names, thread_read_hndl;

int32_t key_handling_flag;    // a key dump is in progress: cleared at start-up, nothing reads it
int32_t fault_handling_flag;  // a fault is being handled: nothing sets it, the main loop reads it
int32_t dod_mode_flag;        // last value of the DOD key: the main loop writes it, the reader thread polls it

// The capture chain. The reader thread writes all four while it holds the lock. The last two are read without it, and
// the main loop clears the flag after a key dump. A dump's first log line reads the first two without it, too.
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;  // guards ghead_s, its links and gtotal_bytes
circ_buf_s *ghead_s;                               // oldest block; null when the chain is empty
uint32_t gtotal_bytes;                             // bytes, sum of size over the chain
uint32_t g_current_new_data;                       // bytes appended since the last continuous dump
int32_t file_complete_flag;                        // 1 once the budget has forced a block out

// The newest continuous dump. Reader thread only.
int32_t g_cnt_of_files;            // its slot; 0 before the first one
char g_prev_file_path[kPathSize];  // its path; "" before the first one

// Cache of the USB directory. The reader thread and the main loop read and write both without a lock.
char g_prev_usb_path[kPathSize];  // the directory found last
int32_t g_prev_usb_path_valid;    // 1: it may be used

char temperature_file_name[kPathSize];  // "" when there is no thermal directory
int inotify_fd = -1, inotify_wd = -1;   // watch on the list directory, -1: not set up. "QXProcess" only
static int list_dir_error;              // why the directory is not used, as logged; 0: it is. Main, then "QXProcess"

static timeval start_time;            // of the daemon, for the elapsed time at shut-down. Main thread only
static timeval last_robustness_copy;  // when a robustness dump was last copied to USB. Main loop only
static int32_t last_upload_second;    // second of the last live upload; 0 before the first one. Its caller only
static int32_t upload_sequence;       // number of that upload within its second. Its caller only

/* ------------------------------ 3. Image type and small files ------------------------------ */

static constexpr char kDebugMarker[] = "/etc/debug";
static constexpr char kPerfMarker[] = "/etc/perf";
static constexpr char kReleaseMarker[] = "/etc/release";

static int marker_exists(const char *path) {
    struct stat info;
    return access(path, F_OK) == 0 && stat(path, &info) == 0 ? 1 : 0;
}

int CheckIfDebugImage() {
    return marker_exists(kDebugMarker);
}
int CheckIfPerfImage() {
    return marker_exists(kPerfMarker);
}
int CheckIfReleaseImage() {
    return marker_exists(kReleaseMarker);
}
int CheckIfNotReleaseImage() {
    return marker_exists(kReleaseMarker) ? 0 : 1;
}

int m_UpdateImageType() {
    static const struct {
        const char *path;
        uint8_t image_type_flags::*flag;
    } kMarkers[] = {
        {kDebugMarker, &image_type_flags::debug},
        {kPerfMarker, &image_type_flags::perf},
        {kReleaseMarker, &image_type_flags::release},
    };
    int result = 0;
    for (const auto &marker : kMarkers) {
        result = access(marker.path, R_OK);
        if (result == 0) {
            m_image_type.*marker.flag = 1;
            return 0;
        }
    }
    return result;
}

int checkForRealPath(const char *path) {
    if (path == nullptr) {
        LOGE("[vestra]:path is empty\n");
        return 0;
    }
    struct stat info;
    if (lstat(path, &info) == 0) {
        if (!S_ISLNK(info.st_mode)) return 1;
        LOGE("[vestra]:Symbolic link is detected : %s\n", path);
        return 0;
    }
    if (errno == ENOENT) {
        LOGE("[vestra]:File does not exist. No need to check symbolic links. ###\n");
        return 1;
    }
    LOGE("[vestra]:lstat error. ###\n");
    return 0;
}

static int clamp_to_int(long long value) {
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

// Closes the file on every path out.
struct FileCloser {
    FILE *file;
    ~FileCloser() {
        if (file != nullptr) fclose(file);
    }
};

// fscanf(file, "%d", value), except that it clamps a number beyond 32 bits, for which "%d" is undefined.
static int read_decimal(FILE *file, int *value) {
    int c = fgetc(file);
    while (isspace(c)) c = fgetc(file);
    if (c == EOF) return EOF;
    const bool negative = c == '-';
    if (c == '-' || c == '+') c = fgetc(file);
    if (!isdigit(c)) return 0;
    int64_t number = 0;
    for (; isdigit(c); c = fgetc(file)) number = std::min(number * 10 + (c - '0'), int64_t{1} << 31);
    *value = clamp_to_int(negative ? -number : number);
    return 1;
}

int FileReadOneInt(const char *path, int *value) {
    if (value == nullptr) {
        LOGE("[vestra]:data addr is NULL\n");
        return 0;
    }
    if (!checkForRealPath(path)) {
        LOGE("[vestra]:File path not real: %s\n", path == nullptr ? "(null)" : path);
        return 0;
    }
    const FileCloser file{fopen(path, "rte")};
    if (file.file == nullptr) {
        LOGE("[vestra]:open file failed.(%s)\n", path);
        return 0;
    }
    const int matched = read_decimal(file.file, value);
    if (matched < 1) {
        LOGE("[vestra]:fscanf failed (ret:%d)\n", matched);
        return 0;
    }
    return 1;
}

int FileReadOneString(const char *path, std::string &text) {
    const FileCloser file{fopen(path, "re")};  // a C++ stream cannot be close-on-exec
    if (file.file == nullptr) {
        LOGE("[vestra]:open file failed.(%s)\n", path);
        return 0;
    }
    // What std::getline gives: a zero byte belongs to the line, an empty line is a text, an empty file is a failure.
    text.clear();
    int result = 0;
    char *line = nullptr;
    size_t line_size = 0;
    try {
        const ssize_t length = getline(&line, &line_size, file.file);
        if (length > 0) {
            text.assign(line, static_cast<size_t>(line[length - 1] == '\n' ? length - 1 : length));
            result = 1;
        }
    } catch (const std::exception &) {  // no memory for the text
    }
    free(line);
    if (result == 0) LOGE("[vestra]:cannot read contents(%s)\n", path);
    return result;
}

/* ------------------------------ 4. Kernel module and control node ------------------------------ */

void vestrad_usleep(int usec) {
    if (usec < 0) return;
    timespec pause;
    pause.tv_sec = usec / 1000000;
    pause.tv_nsec = static_cast<long>(usec % 1000000) * 1000;
    nanosleep(&pause, nullptr);
}

// Waits until the control node exists (`present`) or is gone. 0, or -1 when it changed at the very last look.
//
// Kept as it stands: a node that never changes is a success after 401 looks (400 pauses, about 4 s); only one that
// changes at the 401st look is a failure. Start-up must go on without the module, and callers depend on the 0.
static int wait_for_node(bool present) {
    int count = 0;
    while ((access(kControlNode, F_OK) == 0) != present) {
        if (++count == kNodeLooks) return 0;
        vestrad_usleep(kNodeLookPauseUs);
    }
    return count == kNodeLooks - 1 ? -1 : 0;
}

int loadVestraDriver(void) {
    char path[kPathSize] = {};
    snprintf(path, sizeof(path), "%s", kModuleFile);
    LOGI("PS_Insmod command : [%s]\n", path);
    int retValue = 0;
    const int result = PS_Insmod_Fast(path, strnlen(path, sizeof(path)), 0, &retValue);
    if (result != 0 || retValue != 0) {
        LOGE("PS_Insmod error, result:[%d] retValue:[%s]\n", retValue, PS_ErrorToString(result));
        return -1;
    }
    if (wait_for_node(true) == 0) return 0;
    LOGE("ERROR: loadVestraDriver: insmod failed for /lib/modules/linux/kernel/orna-vestra-kmod.ko\n");
    return -1;
}

int unloadVestraDriver(void) {
    char name[kPathSize] = {};
    snprintf(name, sizeof(name), "%s", kModuleName);
    LOGI("PS_Rmmod command : [%s]\n", name);
    int retValue = 0;
    const int result = PS_Rmmod(name, strnlen(name, sizeof(name)), 0, &retValue);
    if (result != 0 || retValue != 0) {
        LOGE("PS_Rmmod error, result:[%d] retValue:[%s]\n", retValue, PS_ErrorToString(result));
        return -1;
    }
    if (wait_for_node(false) == 0) return 0;
    // Kept as it stands: the text names the load function. Log filters match it.
    LOGE("ERROR: loadVestraDriver: rmmod failed for /lib/modules/linux/kernel/orna-vestra-kmod.ko\n");
    return -1;
}

int vestra_open(const char *path, int flags) {
    int fd = -1;
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        fd = open(path, flags | O_CLOEXEC);
        if (fd >= 0) {
            LOGD("[vestra]: vestra_open [%s] success (%d:%m)\n", path, errno);
            return fd;
        }
        LOGE("ERROR: vestra_open [%s] failed (%d:%m)\n", path, errno);
        vestrad_usleep(kOpenPauseUs);
    }
    return fd;
}

// Kept as it stands: descriptor 0 stays open. The daemon only gets it when it was started without standard input.
static void close_unless_zero(int fd) {
    if (fd != 0) close(fd);
}

int runShell(const char *command) {
    // vfork: do not copy the daemon's memory for a child that only executes the shell.
    const pid_t pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid < 0) return -1;
    if (pid == 0) {
        execl("/bin/sh", "/bin/sh", "-c", command, static_cast<char *>(nullptr));
        _exit(1);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return status;
}

int get_chip_type_from_config(void) {
    static const struct {
        int32_t code;
        const char *prefix;  // of the chipset's name
        const char *name;    // in the message
    } kChips[] = {
        {1, "RIVAM", "RIVA-M"}, {2, "RIVAL", "RIVA-L"}, {3, "TORNL", "TORN-L"},       {4, "TORNM", "TORN-M"},
        {5, "DALPS", "DALPS"},  {6, "Y47QE", "Y47QE"},  {7, "", "Some other device"},
    };
    char *value = nullptr;
    if (system_info_get_custom_string(kChipsetKey, &value) != 0) {
        printf("[vestra] WARN: get_chip_type_from_config failed, using default [%d: CHIP_RIVAM] \n", g_chip_type);
        return g_chip_type;
    }
    if (value == nullptr) return g_chip_type;
    for (const auto &chip : kChips) {
        if (strncmp(value, chip.prefix, strlen(chip.prefix)) != 0) continue;
        g_chip_type = chip.code;
        printf("[vestra] CHIP IS %s [%d]!!!", chip.name, g_chip_type);
        break;
    }
    free(value);
    return g_chip_type;
}

int vestra_chip_type(void) {
    return g_chip_type;
}

// Chips with little memory: another configuration file and a lower limit on the command line.
static bool small_chip() {
    return g_chip_type == 3 || g_chip_type == 5 || g_chip_type == 6;
}

/* ------------------------------ 5. Output location ------------------------------ */

int check_path_int(const char *path, int /*size*/) {
    struct stat info;
    if (stat(path, &info) != 0) {
        LOGE("CUPI [%s][%s:%d] path does not exist(path:%s)", kDaemonName, __func__, __LINE__, path);
        return -1;
    }
    if (!S_ISDIR(info.st_mode)) {
        LOGE("CUPI [%s][%s:%d] path is not a directory(path:%s)", kDaemonName, __func__, __LINE__, path);
        return -1;
    }
    return 0;
}

int check_path(char *path, int size, int retries) {
    const int64_t tries = (retries < 1 ? kDefaultRetries : static_cast<int64_t>(retries)) + 1;
    for (int64_t count = 0; count < tries; ++count) {
        if (check_path_int(path, size) == 0) return 0;
        sleep(1);
    }
    // Kept as it stands, here and in get_usb_path: the count is one more than the tries that were made.
    LOGD("[CUP:%s][retry count:%d] failed to get path", kDaemonName, clamp_to_int(tries + 1));
    return -1;
}

// Writes the mount path of the list's first device into `buf`. 0 or -1.
static int first_mount_path(usb_device_list_h list, char *buf, int size) {
    LOGS_AS("search_usb_device_path");
    usb_device_h device = nullptr;
    if (usb_device_list_get_first(list, &device) != 0) return -1;
    int result = -1;
    const char *path = usb_device_get_mountpath(device);
    if (path == nullptr || path[0] == '\0') {
        LOGE("[%s][%s:%d] failed to get USB path", kDaemonName, log_operation, __LINE__);
    } else {
        snprintf(buf, static_cast<size_t>(size), "%s", path);
        result = 0;
    }
    if (device != nullptr) free_usb_device_h(device);
    return result;
}

int search_usb_device_path(char *buf, int size) {
    if (buf == nullptr || size < 1) return -1;
    if (usb_device_init() != 0) {
        LOGE("[%s] failed to initialize usb device", kDaemonName);
        return -1;
    }
    int result = -1;
    usb_device_list_h list = nullptr;
    if (usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list) != 0) {
        LOGE("[%s] failed to get mass storage list from usb-server", kDaemonName);
    } else {
        result = first_mount_path(list, buf, size);
        if (list != nullptr) usb_device_free_device_list(list);
    }
    usb_device_fini();
    return result;
}

int get_usb_path_int(char *buf, int size, int retries) {
    int was_valid = 0;
    if (g_prev_usb_path_valid == 1) {
        if (check_path(g_prev_usb_path, kPathSize, retries) == 0) {
            // At start-up `buf` is the cache itself.
            if (buf != g_prev_usb_path && size > 1) snprintf(buf, static_cast<size_t>(size) - 1, "%s", g_prev_usb_path);
            return 0;
        }
        g_prev_usb_path_valid = 0;
        was_valid = 1;
    }
    char found[kPathSize] = {};
    if (search_usb_device_path(found, kPathSize) != 0) {
        LOGD("[GUPI][%s][%s:%d] valid=%d failed to get USB path[%s]", kDaemonName, __func__, __LINE__, was_valid,
             found);
        return -1;
    }
    if (check_path(found, kPathSize, retries) != 0) return -1;
    // Kept as it stands: a directory found for the first time goes into the cache only. The caller's buffer stays
    // empty and its dump is refused; the next lookup takes the cache. So a stick is used from the second request on.
    snprintf(g_prev_usb_path, sizeof(g_prev_usb_path), "%s", found);
    g_prev_usb_path_valid = 1;
    return 0;
}

int get_usb_path(char *buf, int size, int retries) {
    if (retries < 1) retries = kDefaultRetries;
    if (!CheckIfNotReleaseImage()) return -1;  // no dump leaves a set that was sold
    const int64_t tries = static_cast<int64_t>(retries) + 1;
    int result = -1;
    for (int64_t count = 0; count < tries; ++count) {
        result = get_usb_path_int(buf, size, retries);
        if (result == 0) return 0;
        sleep(1);
    }
    LOGE("[GUP] [%s][retry count:%d] failed to get USB path [%s]", kDaemonName, clamp_to_int(tries + 1), buf);
    return result;
}

// The child's half of the command runner.
[[noreturn]] static void exec_in_child(const char *program, int argc, char (*slots)[kPathSize], int *status) {
    LOGS_AS("vestra_system_exec_argv");
    if (argc == 3) {
        execlp(program, program, slots[0], slots[1], slots[2], static_cast<char *>(nullptr));
        LOGE("[vestra] : errno:(%d:%m)", errno);
    } else {
        execlp(program, program, slots[0], slots[1], static_cast<char *>(nullptr));
        LOGE("[vestra] :errno:(%d:%m)", errno);
    }
    *status = errno;
    LOGD("[vestra] :EXITING ............................................................(%d:%m)", errno);
    _exit(1);
}

int vestra_system_exec_argv(int *status, const char *program, int argc, ...) {
    *status = 0;
    char slots[kArgumentSlots][kPathSize] = {};
    va_list arguments;
    va_start(arguments, argc);
    for (int i = 0; i < argc && i < kArgumentSlots; ++i) {
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is begun above
        snprintf(slots[i], sizeof(slots[i]), "%s", va_arg(arguments, const char *));
    }
    va_end(arguments);

    const pid_t child = fork();
    if (child < 0) {
        LOGE("[vestra] :fork failed.");
        return child;
    }
    if (child == 0) exec_in_child(program, argc, slots, status);
    int child_status = 0;
    if (waitpid(child, &child_status, 0) < 0) {
        LOGE("vestra : child %d waiting failed", child);
        sleep(1);
    }
    // Kept as it stands: the command's exit status is not examined. Callers do not notice a failed move or copy.
    if (strcmp(program, "/bin/curl") == 0) {
        char uploaded[kPathSize] = {};
        if (sscanf(slots[1], "file=@%255s", uploaded) < 1 || remove(uploaded) != 0) {
            LOGD("[vestra] :INFO: remove failed (%d:%m) %s", errno, uploaded);
            *status = errno;
        }
    }
    return child;
}

int vestra_rename(const char *from, const char *to) {
    int status = 0;
    vestra_system_exec_argv(&status, "/bin/mv", 3, "-f", from, to);
    // Kept as it stands: the status is 0 or a positive errno, so copy and remove never run, and for the caller a move
    // never fails, not even when fork does.
    if (status >= 0) return status;
    vestra_system_exec_argv(&status, "/bin/cp", 3, "-f", from, to);
    vestra_system_exec_argv(&status, "/bin/rm", 2, "-f", from);
    return status;
}

/* ------------------------------ 6. On-screen notice ------------------------------ */

static constexpr char kNoticeDone[] = "File Dump Successfully Done!!!\nFilePath:";
static constexpr char kNoticeFailed[] = "File Dump Failed!!!\nFilePath:";
static constexpr char kNoticeNoUsb[] = "File Dump Failed!!!\nUSB Error:";
static constexpr char kHeadUserKey[] = "VESTRA : USERKEY\n";

int vestra_Display_GlobalNotification(std::string text) {  // NOLINT(performance-unnecessary-value-param): its interface
    static constexpr int kPlainNotice = 0;
    static constexpr int kHideSeconds = 30;
    static constexpr int kContentText = 1;
    static constexpr int kNoArguments = -1;
    static constexpr int kShowOnScreen = 0x10;

    if (!CheckIfNotReleaseImage() || !CheckIfDebugImage() || g_vestra_config.user_notification_on == 0) return 0;
    notification_h notice = notification_create(kPlainNotice);
    if (notice == nullptr) {
        LOGE("ERR: notification_create failed");
        return -1;
    }
    int retVal = notification_set_hide_timeout(notice, kHideSeconds);
    if (retVal != 0) {
        LOGE("ERR:notification_set_hide_timeout failed(retVal:%d)", retVal);
    } else if ((retVal = notification_set_auto_remove(notice, false)) != 0) {
        LOGE("ERR: notification_set_auto_remove failed(retVal:%d)", retVal);
    } else if ((retVal = notification_set_text(notice, kContentText, text.c_str(), "CONTENT", kNoArguments)) != 0) {
        LOGE("ERR: notification_set_text failed(retVal:%d)", retVal);
    } else if ((retVal = notification_set_display_applist(notice, kShowOnScreen)) != 0) {
        LOGE("ERR: notification_set_display_applist(retVal:%d)", retVal);
    } else if ((retVal = notification_post(notice)) != 0) {
        LOGE("ERR: notification_post(retVal:%d)", retVal);
    }
    notification_free(notice);
    return retVal == 0 ? 0 : -1;
}

// Shows head line, outcome and detail as one notice. Catches what the string throws without memory.
static void show_notice(const char *head, const char *outcome, const char *detail) {
    LOGS_AS("vestra_Display_GlobalNotification");
    try {
        vestra_Display_GlobalNotification(std::string(head) + outcome + detail);
    } catch (const std::exception &) {
        LOGE("ERR: notification_create failed");
    }
}

/* ------------------------------ 7. Capture chain ------------------------------ */

int vestra_get_node(circ_buf_s **node, int len) {
    *node = static_cast<circ_buf_s *>(malloc(sizeof(circ_buf_s)));
    if (*node == nullptr) {
        LOGE("ERROR: malloc failed (%d:%m)", errno);
        return -1;
    }
    // Kept as it stands: rounded down to 32, then 40 more. That leaves 9 to 40 spare bytes after the data.
    const size_t bytes = static_cast<size_t>(len & ~31) + 40;
    (*node)->data = static_cast<unsigned char *>(malloc(bytes));
    (*node)->next = nullptr;
    if ((*node)->data == nullptr) {
        LOGE("ERROR: malloc failed (%d:%m)", errno);
        free(*node);
        *node = nullptr;
        return -1;
    }
    return len;
}

int vestra_free_node(circ_buf_s **node) {
    if (*node != nullptr) {
        free((*node)->data);
        free(*node);
    }
    return 0;
}

void free_bufs(circ_buf_s **head) {
    circ_buf_s *node = *head;
    while (node != nullptr) {
        circ_buf_s *next = node->next;
        vestra_free_node(&node);
        node = next;
    }
    *head = nullptr;
    file_complete_flag = 0;
    gtotal_bytes = 0;
}

void free_bufs_shm(circ_buf_shm **head) {
    circ_buf_shm *node = *head;
    while (node != nullptr) {
        circ_buf_shm *next = node->next;
        delete node;
        node = next;
    }
    *head = nullptr;
}

// Reads one block from the device into `buffer`. The result of read(); 0 after 20 empty reads or when the daemon stops.
static ssize_t read_block(int fd, unsigned char *buffer) {
    LOGS_AS("read_data");
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        if (exit_flag) return 0;
        const ssize_t count = read(fd, buffer, trace::kBlockMax);
        if (count != 0) return count;
        LOGW("WARN: Invalid Read (%d:%m) ", errno);
    }
    return 0;
}

// Drops the oldest blocks until the chain fits its budget. The caller holds `lock`.
static void trim_chain(circ_buf_s **head, unsigned int *total) {
    while (*head != nullptr && *total > max_file_size) {
        circ_buf_s *oldest = *head;
        // Without a next block, too: a single block above the budget leaves an empty chain.
        *head = oldest->next;
        *total -= oldest->size;
        vestra_free_node(&oldest);
        file_complete_flag = 1;
        if (exit_flag) break;
    }
}

int read_data(circ_buf_s **head, int fd, unsigned int *total) {
    unsigned char buffer[trace::kBlockMax];
    const ssize_t count = read_block(fd, buffer);
    if (count == 0) return 0;

    circ_buf_s *node = nullptr;
    // Kept as it stands: a read error (a negative count) ends here, too, and is reported as missing memory.
    if (vestra_get_node(&node, static_cast<int>(count)) <= 0 || node == nullptr) {
        LOGE("ERROR: malloc failed (%d:%m)", errno);
        vestra_free_node(&node);
        return -1;
    }
    const auto size = static_cast<uint32_t>(count);
    // Kept as it stands: what is cleared is overwritten at once.
    memset(node->data, 0, size);
    memcpy(node->data, buffer, size);
    node->size = size;
    node->next = nullptr;

    const int type = decode_file(node->data, size);
    // Lite mode drops a block whose last frame has a type above 0 that is neither switch (7) nor CPU and memory (8).
    // Kept as it stands: the type is signed, so a block stays for 0, for 128 and above, and without any frame (-1).
    if (g_vestra_config.vestra_litemode_on != 0 && type > 0 && type != 7 && type != 8) {
        vestra_free_node(&node);
        return 0;
    }

    pthread_mutex_lock(&lock);
    // Kept as it stands: there is no tail pointer. About 80 blocks are walked for each block of 128 KiB.
    circ_buf_s **link = head;
    while (*link != nullptr) link = &(*link)->next;
    *link = node;
    *total += size;
    g_current_new_data += size;
    if (!exit_flag) trim_chain(head, total);
    pthread_mutex_unlock(&lock);
    return 0;
}

/* ------------------------------ 8. Dump writer ------------------------------ */

// What a dump's reason decides: stem of the temporary file and first line of the notice (null: no notice).
struct DumpKind {
    const char *stem;
    const char *notice_head;
};

static bool is_continuous(_vestra_write_reason reason) {
    return reason == WRITE_REASON_CONTINUOUS || reason == 3 || reason == WRITE_REASON_DOD ||
           reason == WRITE_REASON_CONTINUOUS_DOD;
}

static DumpKind dump_kind(_vestra_write_reason reason) {
    switch (reason) {
        case WRITE_REASON_FAULT:
            return {"temp-vestra", "VESTRA : FAULT\n"};
        case WRITE_REASON_USERKEY:
            return {"temp-vestra-user", kHeadUserKey};
        case WRITE_REASON_ROBUSTNESS:
            return {"temp-vestra-ira", "VESTRA : ROBUSTNESS\n"};
        case WRITE_REASON_FAULT_DOD:
            return {"temp-vestra", "VESTRA : FAULT & DOD\n"};
        default:
            return {"temp-vestra-cont", nullptr};
    }
}

static const char *after_last_slash(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// Opens a temporary file in /tmp, where everyone may write: does not follow a planted link. A file that exists already
// must be the daemon's own, with no other name, and empty.
static int open_temporary(const char *path) {
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
    struct stat info;
    if (fd < 0 || (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() && info.st_nlink == 1 &&
                   info.st_size == 0)) {
        return fd;
    }
    close(fd);
    errno = EEXIST;
    return -1;
}

// Writes all of `data` with one call. False with errno set; a short write is a failure, too.
static bool write_whole(int fd, const void *data, size_t size) {
    errno = 0;
    if (size == 0 || write(fd, data, size) == static_cast<ssize_t>(size)) return true;
    if (errno == 0) errno = EIO;  // a short write does not set it
    return false;
}

// The two values of the version file, not terminated.
struct VersionTexts {
    char build[kVersionLineBytes];
    size_t build_size;
    char model[kModelBytes];
    size_t model_size;
};

// Reads the version file's lines. 0, or -1 when it counts as a file without a version.
static int read_version_lines(FILE *file, VersionTexts *texts) {
    LOGS_AS("append_image_version");
    static constexpr size_t kKey = 6;  // characters of "Model=" and of "Build="
    char line[kVersionLineBytes + 1] = {};
    int lines = 0;
    bool found = false, stopped = false;
    while (lines < kVersionLines) {
        if (exit_flag) {
            stopped = true;
            break;
        }
        char next[kVersionLineBytes + 1];
        if (fgets(next, sizeof(next), file) == nullptr) break;
        memcpy(line, next, strlen(next) + 1);
        ++lines;
        if (strncmp(line, "Model=", kKey) == 0) {
            texts->model_size = strnlen(line + kKey, kModelBytes);
            memcpy(texts->model, line + kKey, texts->model_size);
        } else if (strncmp(line, "Build=", kKey) == 0) {
            found = true;
            break;
        }
    }
    // Kept as it stands: a version on the 20th line counts as none, but a file without one in its first 20 lines goes
    // on with the last line read. Dump readers handle both kinds of trailer.
    if ((found && lines == kVersionLines) || (stopped && lines == kVersionLines - 1)) {
        LOGE("ERROR: Image version not found in the file %s", kVersionFile);
        return -1;
    }
    // Kept as it stands: the last character but one becomes "/", and the last is dropped. That is right for a value
    // that ends in CR LF; one that ends in LF alone loses its last character.
    const size_t length = strlen(line);
    const size_t value = length > kKey ? length - kKey : 0;
    if (value >= 2) {
        line[kKey + value - 2] = '/';
        texts->build_size = value - 1;
        memcpy(texts->build, line + kKey, texts->build_size);
    }
    return 0;
}

int append_image_version(int fd) {
    if (!checkForRealPath(kVersionFile)) {
        LOGE("[vestra]:File path not real: %s", kVersionFile);
        return -1;
    }
    VersionTexts texts = {};
    {
        const FileCloser ini{fopen(kVersionFile, "re")};
        if (ini.file == nullptr) {
            LOGE("ERROR: File %s doesn't exist (%d:%m)", kVersionFile, errno);
            return -1;
        }
        if (read_version_lines(ini.file, &texts) != 0) return -1;
    }
    if (!write_whole(fd, texts.build, texts.build_size) || !write_whole(fd, texts.model, texts.model_size)) {
        LOGE("ERROR: write failed for image version (%d:%m)", errno);
        return -1;
    }
    const auto version_length = static_cast<unsigned char>((texts.build_size + texts.model_size) & 0xff);
    if (!write_whole(fd, &version_length, 1)) {
        LOGE("ERROR: write failed for version length (%d:%m)", errno);
        return -1;
    }
    if (g_vestra_config.vestra_litemode_on == 0) return 0;
    char lite[128];
    snprintf(lite, sizeof(lite), "%s=%d", "QXLiteMode", g_vestra_config.vestra_litemode_on);
    if (!write_whole(fd, lite, strlen(lite))) {
        LOGE("ERROR: write failed for QXLiteMode (%d:%m)", errno);
        return -1;
    }
    const auto lite_length = static_cast<unsigned char>(strlen(lite) & 0xff);
    if (!write_whole(fd, &lite_length, 1)) {
        LOGE("ERROR: write failed for QXLiteMode length (%d:%m)", errno);
        return -1;
    }
    return 0;
}

// Writes one chain node and syncs it to the disk. 0, or -1 with a message.
static int write_node(int fd, const circ_buf_s &node) {
    LOGS_AS("write_data");
    uint32_t written = 0;
    for (int call = 0; call < kWriteAttempts && written < node.size; ++call) {
        if (call > 0 && exit_flag) break;
        const ssize_t count = write(fd, node.data + written, node.size - written);
        if (count < 0) {
            LOGE("vestra write failed (%d:%m) %d %d", errno, static_cast<int>(node.size), static_cast<int>(written));
            return -1;
        }
        written += static_cast<uint32_t>(count);
    }
    if (written < node.size) {
        LOGE("vestra requested %d bytes but written only %d bytes", static_cast<int>(node.size),
             static_cast<int>(written));
        return -1;
    }
    fsync(fd);
    return 0;
}

// Writes the chain's bytes, oldest block first, under `lock`: the reader waits until the disk is done.
static int write_chain(int fd, circ_buf_s **head, _vestra_write_reason reason) {
    LOGS_AS("write_data");
    LOGD("INFO: before acquiring mutex");
    pthread_mutex_lock(&lock);
    LOGD("INFO: after acquiring mutex");
    LOGD("INFO: write start temp = %p", static_cast<void *>(*head));
    int status = 0;
    for (const circ_buf_s *node = *head; node != nullptr && status == 0 && !exit_flag; node = node->next) {
        status = write_node(fd, *node);
    }
    if (status == 0) {
        if (is_continuous(reason)) g_current_new_data = 0;
        LOGD("INFO: after write done!!!");
    }
    pthread_mutex_unlock(&lock);
    return status;
}

// Renames the newest continuous dump without its "_l" mark: another is about to become the newest.
static void unmark_previous(const char *dir) {
    LOGS_AS("write_data");
    // Kept as it stands: this skips everything up to the first "_" of the whole path, so that with a "_" in the
    // directory or the name the rename goes to a wrong name. (Ten digits cannot overflow the conversion.)
    long long pid = 0, slot = 0;
    char name[kPathSize] = {};
    sscanf(g_prev_file_path, "%*[^_]_%10lld_%255[^_]_%10lld_l", &pid, name, &slot);  // NOLINT(cert-err34-c)
    char unmarked[kLongPath];
    snprintf(unmarked, sizeof(unmarked), "%s/0000000000_%d_%s_%d", dir, clamp_to_int(pid), name, clamp_to_int(slot));
    if (vestra_rename(g_prev_file_path, unmarked) != 0) {
        LOGE("INFO: vestra_rename failed (%d:%m) %s %s", errno, g_prev_file_path, unmarked);
    }
}

// The slot after the newest one: 1, 2, ... no_of_files, 1, ...
static int32_t next_slot() {
    const int64_t slots = static_cast<int64_t>(g_vestra_config.no_of_files) + 1;
    const int64_t slot = slots == 0 ? 0 : (static_cast<int64_t>(g_cnt_of_files) + 1) % slots;
    return slot <= 0 ? 1 : static_cast<int32_t>(slot);
}

// Copies a robustness dump to USB, at most once in min_time_diff_dump seconds.
static void copy_robustness_dump(const char *final_path) {
    LOGS_AS("write_data");
    timeval now;
    gettimeofday(&now, nullptr);
    const int64_t elapsed_us = (static_cast<int64_t>(now.tv_sec) - last_robustness_copy.tv_sec) * 1000000 +
                               (static_cast<int64_t>(now.tv_usec) - last_robustness_copy.tv_usec);
    const int64_t elapsed = elapsed_us / 1000000;
    if (elapsed <= g_vestra_config.min_time_diff_dump) {
        LOGD("INFO: time pre secs %ld microsec %ld elapsed %d secs", static_cast<long>(last_robustness_copy.tv_sec),
             static_cast<long>(last_robustness_copy.tv_usec), clamp_to_int(elapsed));
        return;
    }
    last_robustness_copy = now;
    char usb[kPathSize] = {};
    if (get_usb_path(usb, kPathSize, 0) != 0) {
        LOGE("ERROR: get_usb_path %s failed (%d:%m)", usb, errno);
        return;
    }
    int status = 0;
    vestra_system_exec_argv(&status, "/bin/cp", 3, "-f", final_path, usb);
}

// Moves (reason 5) or copies (6, 7) a finished dump into the DOD folder. Returns the command's status.
static int place_in_dod_folder(const char *final_path, const char *dir, const char *name, int pid,
                               _vestra_write_reason reason) {
    LOGS_AS("write_data");
    const time_t seconds = time(nullptr);
    tm now = {};
    localtime_r(&seconds, &now);
    const int year = now.tm_year + 1900, month = now.tm_mon + 1;
    LOGD("now: %d-%d-%d %d:%d:%d", year, month, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    char path[kLongPath];
    snprintf(path, sizeof(path), "%s/%s/0000000000_%d_%s_%d-%d-%d %d.%d.%d", dir, kDodFolder, pid, name, year, month,
             now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    int status = 0;
    vestra_system_exec_argv(&status, reason == WRITE_REASON_DOD ? "/bin/mv" : "/bin/cp", 3, "-f", final_path, path);
    return status;
}

// Remembers the newest continuous dump and removes the file that held its slot one round ago.
static void rotate_slots(const char *final_path, const char *dir, const char *name, int pid) {
    LOGS_AS("write_data");
    snprintf(g_prev_file_path, sizeof(g_prev_file_path), "%s", final_path);
    char old[kLongPath];
    snprintf(old, sizeof(old), "%s/0000000000_%d_%s_%d", dir, pid, name, g_cnt_of_files);
    if (remove(old) != 0) LOGW("INFO: remove failed (%d:%m) %s", errno, old);
}

// Fills the open temporary file and moves it to its place. Negative on failure.
static int produce_dump(int fd, circ_buf_s **head, const char *temporary, const char *final_path, const char *dir,
                        const char *name, int pid, _vestra_write_reason reason) {
    LOGS_AS("write_data");
    if (write_chain(fd, head, reason) != 0) return -1;
    const int trailer = append_image_version(fd);
    if (trailer < 0) {
        LOGE("vestra append_image_version failed (%d:%m)", errno);
        return trailer;
    }
    LOGD("INFO: after append_image_version success");
    if (vestra_rename(temporary, final_path) != 0) {
        LOGE("ERROR: [%s -> %s] vestra_rename failed (%d:%m)", temporary, final_path, errno);
        return -1;
    }
    int status = 0;
    if (reason == WRITE_REASON_ROBUSTNESS && CheckIfNotReleaseImage()) copy_robustness_dump(final_path);
    if (reason == WRITE_REASON_DOD || reason == WRITE_REASON_CONTINUOUS_DOD || reason == WRITE_REASON_FAULT_DOD) {
        status = place_in_dod_folder(final_path, dir, name, pid, reason);
    }
    if (is_continuous(reason)) rotate_slots(final_path, dir, name, pid);
    return status;
}

int write_data(circ_buf_s **head, const char *dir, const char *name, int pid, _vestra_write_reason reason) {
    if (dir == nullptr || strnlen(dir, kPathSize - 1) == 0) return -1;
    name = after_last_slash(name);
    timeval now;
    gettimeofday(&now, nullptr);
    const auto seconds = static_cast<long>(now.tv_sec), microseconds = static_cast<long>(now.tv_usec);
    LOGD("INFO: %s write file init gtotal_bytes = %d write_reason %d ghead_s = %p", name,
         static_cast<int>(gtotal_bytes), static_cast<int>(reason), static_cast<void *>(*head));

    const DumpKind kind = dump_kind(reason);
    const char *lite_mark = g_vestra_config.vestra_litemode_on != 0 ? "-tl" : "";
    char temporary[kPathSize], final_path[kLongPath];
    snprintf(temporary, sizeof(temporary), "%s/%s_%ld_%ld", kTempDir, kind.stem, seconds, microseconds);
    if (is_continuous(reason)) {
        LOGD("INFO: vestra g_current_new_data %d %d", static_cast<int>(g_current_new_data), g_cnt_of_files);
        // The reader starts trying 256 KiB earlier, but a dump needs a whole budget of new data.
        if (g_current_new_data < max_file_size) {
            LOGE("ERROR: [vestra] RETURNING  INFO: pch = NULL ");
            return 0;
        }
        if (g_prev_file_path[0] != '\0') unmark_previous(dir);
        g_cnt_of_files = next_slot();
        snprintf(final_path, sizeof(final_path), "%s/0000000000_%d_%s_%d_l%s", dir, pid, name, g_cnt_of_files,
                 lite_mark);
    } else {
        snprintf(final_path, sizeof(final_path), "%s/0000000000_%d_%s_%ld%s", dir, pid, name, seconds, lite_mark);
    }

    int status = -1;
    const int fd = open_temporary(temporary);
    if (fd < 0) {
        LOGE("ERROR: failed to open %s (%d:%m)", temporary, errno);
    } else {
        status = produce_dump(fd, head, temporary, final_path, dir, name, pid, reason);
        close_unless_zero(fd);
    }
    if (status >= 0) {
        LOGD("INFO: writefile exit [success] %s", final_path);
    } else {
        LOGW("INFO: writefile exit [failed] %s", final_path);
    }
    if (reason == WRITE_REASON_USERKEY) {
        show_notice(kind.notice_head, status >= 0 ? kNoticeDone : kNoticeFailed, final_path);
    }
    return status;
}

/* ------------------------------ 9. Live upload ------------------------------ */

// Writes the block into the open file. 0, or -1 with a message.
static int write_live_block(int fd, const unsigned char *data, unsigned int size) {
    LOGS_AS("send_live_data");
    if (exit_flag) return 0;
    unsigned int written = 0;
    for (int call = 0; call < kWriteAttempts && written < size; ++call) {
        const ssize_t count = write(fd, data + written, size - written);
        if (count < 0) {
            LOGE("ERROR: write failed (%d:%m)", errno);
            return -1;
        }
        written += static_cast<unsigned int>(count);
    }
    if (written < size) {
        LOGE("ERROR: requested %d bytes but written only %d bytes", static_cast<int>(size), static_cast<int>(written));
        return -1;
    }
    fsync(fd);
    return 0;
}

static int produce_live_file(int fd, const unsigned char *data, unsigned int size, const char *temporary,
                             const char *final_path) {
    LOGS_AS("send_live_data");
    if (write_live_block(fd, data, size) != 0) return -1;
    LOGD("INFO: after write done!!!");
    if (append_image_version(fd) < 0) {
        LOGE("ERROR: append_image_version failed (%d:%m)", errno);
        return -1;
    }
    LOGD("INFO: after append_image_version");
    if (vestra_rename(temporary, final_path) != 0) {
        LOGE("ERROR: [%s -> %s] vestra_rename failed (%d:%m)", temporary, final_path, errno);
        return -1;
    }
    return 0;
}

// Hands the file to curl. The command runner then removes it, whatever the server answered.
static void upload(const char *final_path) {
    LOGS_AS("send_live_data");
    const char *target = g_vestra_config.vestra_extfile_path_id;  // may be unterminated
    LOGD("vestra: data ready for sending to server %.*s", kExtfilePathSize, target);
    char form[kLongPath], address[kLongPath];
    snprintf(form, sizeof(form), "file=@%s", final_path);
    snprintf(address, sizeof(address), "%.*sfileRead.py", kExtfilePathSize, target);
    int status = 0;
    vestra_system_exec_argv(&status, "/bin/curl", 3, "-F", form, address);
    LOGD("vestra: data sent to server %s..", address);
}

int send_live_data(unsigned char *data, unsigned int size) {
    const char *name = after_last_slash(process_name);
    timeval now;
    gettimeofday(&now, nullptr);
    LOGD("[%s] total_file_size %d", __func__, static_cast<int>(size));
    if (size == 0 || g_vestra_config.live_data_collect != 1) return 0;

    const auto second = static_cast<int32_t>(now.tv_sec);
    if (last_upload_second == 0 || last_upload_second != second) {
        last_upload_second = second;
        upload_sequence = 0;
    } else {
        ++upload_sequence;
    }
    char temporary[kPathSize], final_path[kLongPath];
    snprintf(temporary, sizeof(temporary), "%s/%s_%ld_%ld", kTempDir, "temp-vestra-live", static_cast<long>(now.tv_sec),
             static_cast<long>(now.tv_usec));
    snprintf(final_path, sizeof(final_path), "%s/%d_%ld_%d_0000000000_%d_%s", kTempDir,
             g_vestra_config.vestra_unique_id, static_cast<long>(now.tv_sec), upload_sequence, getpid(), name);

    int status = -1;
    const int fd = open_temporary(temporary);
    if (fd < 0) {
        LOGE("ERROR: failed to open (%d:%m)", errno);
    } else {
        status = produce_live_file(fd, data, size, temporary, final_path);
        if (status == 0) upload(final_path);
        close(fd);
    }
    if (status == 0) {
        LOGD("INFO: writefile exit [success] %s", final_path);
    } else {
        LOGE("INFO: writefile exit [failed] %s", final_path);
    }
    return status;
}

/* ------------------------------ 10. Reader thread ------------------------------ */

// Writes a continuous dump when one is due. Returns the time of the last dump, in seconds of the reader's clock.
static int32_t write_if_due(int32_t curtime, int32_t prevtime, uint32_t min_req_data) {
    LOGS_AS("thread_read_func");
    const bool continuous = g_vestra_config.cont_data_collect == 1, dod = dod_mode_flag == 1;
    if (!continuous && !dod) return prevtime;
    const auto since = static_cast<int32_t>(static_cast<uint32_t>(curtime) - static_cast<uint32_t>(prevtime));
    if (since < sleep_time_sec_file || g_current_new_data < min_req_data) return prevtime;
    LOGD("INFO: prevtime[%d]:curtime[%d] secs, newdata[%d]:min_req_data[%d]", prevtime, curtime,
         static_cast<int>(g_current_new_data), static_cast<int>(min_req_data));
    char path[kPathSize] = {};
    if (get_usb_path(path, kPathSize, 0) != 0) return prevtime;
    _vestra_write_reason reason = WRITE_REASON_CONTINUOUS;
    if (dod) reason = continuous ? WRITE_REASON_CONTINUOUS_DOD : WRITE_REASON_DOD;
    // Kept as it stands: 0 without a dump, because a little data is still missing, counts as a dump.
    // The next try is one interval later.
    if (write_data(&ghead_s, path, process_name, getpid(), reason) < 0) {
        LOGE("ERROR: trf write_data failed (%d:%m)", errno);
        return prevtime;
    }
    return curtime;
}

// Rounds of read, pause and, when due, dump, until exit_flag or a failed read. False when a read failed.
static bool read_rounds(int fd) {
    LOGS_AS("thread_read_func");
    // Kept as it stands: wraps for a budget below 256 KiB. Then no dump is ever due.
    const uint32_t min_req_data = max_file_size - kAttemptMargin;
    int32_t curtime = 0, prevtime = 0;
    while (!exit_flag) {
        timeval begin, end;
        gettimeofday(&begin, nullptr);
        if (read_data(&ghead_s, fd, &gtotal_bytes) < 0) {
            LOGE("ERROR: read_data failed (%d:%m)", errno);
            return false;
        }
        vestrad_usleep(sleep_time_usec_buf);
        gettimeofday(&end, nullptr);
        const int64_t round_us = (static_cast<int64_t>(end.tv_sec) - begin.tv_sec) * 1000000 +
                                 (static_cast<int64_t>(end.tv_usec) - begin.tv_usec);
        // Kept as it stands: every round drops the fraction, so that the clock runs slow, never fast. With a pause of
        // half a second it does not move at all and there are no continuous dumps; two arguments give a pause of 1 s.
        curtime = static_cast<int32_t>(static_cast<uint32_t>(curtime) + static_cast<uint32_t>(round_us / 1000000));
        LOGD("INFO: check condition for write %d %d %d %d [%d]", curtime, prevtime,
             static_cast<int32_t>(static_cast<uint32_t>(curtime) - static_cast<uint32_t>(prevtime)),
             sleep_time_sec_file, static_cast<int>(g_current_new_data));
        prevtime = write_if_due(curtime, prevtime, min_req_data);
    }
    return true;
}

void *thread_read_func(void * /*arg*/) {
    const int fd = open(kControlNode, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        LOGE("ERROR: failed to open (%d:%m)", errno);
    } else {
        LOGI("INFO: before main loop########################## ");
        printf("INFO: before main loop########################## \n");
        if (read_rounds(fd)) LOGI("INFO: after main loop");
        close_unless_zero(fd);
    }
    LOGD("[vestra] ########################## INFO: before main loop EXIT######################");
    return nullptr;
}

/* ------------------------------ 11. Triggers ------------------------------ */

// Looks once a second until `flag` is set (`set` true) or clear, the daemon stops, or `seconds` have passed. False when
// the time ran out.
static bool wait_for_flag(const int32_t &flag, bool set, int seconds) {
    LOGS_AS("Handler_Cb");
    int count = 0;
    while (!exit_flag && (flag != 0) != set && count < seconds) {
        sleep(1);
        ++count;
    }
    if ((flag != 0) == set || count < seconds) return true;
    // Kept as it stands: the text says 250 for the wait of 30 seconds too.
    LOGE("[vestra] Timeout %d sec in func %s", kFillWaitSeconds, "Handler_Cb");
    return false;
}

void Handler_Cb(_KeyComb combination, void * /*user_data*/) {
    LOGI("INFO:[KeyCombination] %d hit sucessfully !!", combination);
    LOGI("INFO: Waiting for fault handling to complete..");
    if (!wait_for_flag(fault_handling_flag, false, kFaultWaitSeconds)) return;
    char path[kPathSize] = {};
    if (get_usb_path(path, kPathSize, 0) != 0) {
        show_notice(kHeadUserKey, kNoticeNoUsb, path);
    } else {
        LOGI("INFO: Waiting for buffer to fill..");
        if (!wait_for_flag(file_complete_flag, true, kFillWaitSeconds)) return;
        LOGD("INFO: Writing data to file..");
        if (write_data(&ghead_s, path, process_name, getpid(), WRITE_REASON_USERKEY) < 0) {
            LOGE("ERROR: hcb write_data failed (%d:%m)", errno);
        } else {
            file_complete_flag = 0;
        }
    }
    LOGI("INFO:key handler %d exited", combination);
}

// A text that the log can print.
static const char *or_empty(const char *text) {
    return text == nullptr ? "" : text;
}

void dod_vconf_notify_cb(keynode_t *key, void * /*user_data*/) {
    const char *name = or_empty(vconf_keynode_get_name(key));
    LOGD("[vestra] dod_vconf_notify_cb init key = %s", name);
    const int type = vconf_keynode_get_type(key);
    if (type != VCONF_TYPE_INT) {
        LOGD("Unknown Type(%d)", type);
    } else {
        const int value = vconf_keynode_get_int(key);
        LOGD("key = %s, value = %d(int)", name, value);
        dod_mode_flag = value;
        char usb[kPathSize] = {};
        if (value == 1 && get_usb_path(usb, kPathSize, 0) == 0) {
            // Kept as it stands: the first lookup of a stick leaves `usb` empty, so the folder is made in "/".
            char folder[kPathSize];
            snprintf(folder, sizeof(folder), "%s/%s/", usb, kDodFolder);
            if (check_path(folder, kPathSize, 0) != 0) {
                int status = 0;
                vestra_system_exec_argv(&status, "/bin/mkdir", 2, "-p", folder);
            }
        }
    }
    LOGD("[vestra] dod_vconf_notify_cb exit key = %s", name);
}

// The three fields of a robustness request "DIR|NAME|PID". What does not parse stays empty or 0.
struct RobustnessRequest {
    char path[kPathSize];
    char name[kPathSize];
    int pid;
};

static RobustnessRequest parse_robustness(const char *value) {
    RobustnessRequest request = {};
    int consumed = 0;
    sscanf(value, "%255[^|]| %255[^|]|%n", request.path, request.name, &consumed);
    // strtoll, because the number may have any length and "%d" is undefined beyond 32 bits.
    if (consumed > 0) request.pid = clamp_to_int(strtoll(value + consumed, nullptr, 10));
    return request;
}

void robustness_vconf_notify_cb(keynode_t *key, void * /*user_data*/) {
    const char *name = or_empty(vconf_keynode_get_name(key));
    LOGD("[vestra] robustness_vconf_notify_cb init key = %s", name);
    const int type = vconf_keynode_get_type(key);
    const char *value = type == VCONF_TYPE_STRING ? vconf_keynode_get_str(key) : nullptr;
    if (type != VCONF_TYPE_STRING) {
        LOGD("[vestra] Unknown Type(%d)", type);
    } else if (value == nullptr) {
        LOGE("[vestra] vconf key get error: key = %s, value = NULL", name);
    } else {
        LOGD("[vestra] key = %s, value = %s(str)", name, value);
        RobustnessRequest request = parse_robustness(value);
        LOGD("[vestra] data from ira : path %s, name %s, pid %d", request.path, request.name, request.pid);
        if (check_path(request.path, kPathSize, 0) != 0) {
            // Kept as it stands: the path did not come from get_usb_path. The fault agent filters by this text.
            LOGE("[vestra] ERROR: get_usb_path %s ", request.path);
        } else if (write_data(&ghead_s, request.path, request.name, request.pid, WRITE_REASON_ROBUSTNESS) < 0) {
            LOGE("[vestra] ERROR: robustness write_data failed (%d:%m)", errno);
        }
    }
    LOGD("[vestra] robustness_vconf_notify_cb exit key = %s", name);
}

void callbackSHMdbpop(keynode_t *key, void * /*userData*/) {
    LOGD("callbackSHMdbpop Called..");
    if (key == nullptr) {
        LOGD("Key obtained as NULL");
        return;
    }
    int value = 0;
    const int result = vconf_get_int(kKeyHistoryTrigger, &value);
    if (result != 0) {
        LOGD("vconf_get_int(%s) Fail(%d)", kKeyHistoryTrigger, result);
        return;
    }
    pthread_mutex_lock(&lock);
    if (value == 1) Process_Info_fill();
    pthread_mutex_unlock(&lock);
}

void __scenario_manager_tv_memory(keynode_t *node, void * /*data*/) {
    const char *name = vconf_keynode_get_name(node);
    if (name == nullptr || strcmp(name, kKeyMemoryDrop) != 0) return;
    struct stat info;
    if ((vconf_keynode_get_int(node) & kMemoryDropBit) != 0 && stat(kFaultPolicyFile, &info) != 0) {
        // Memory is short and there is no fault agent to free some: give back the daemon's at once, without shut-down.
        raise(SIGKILL);
    }
}

/* ------------------------------ 12. Temperature probes ------------------------------ */

int vestra_get_thermal_dir(char **dir) {
    struct stat info;
    if (stat(kThermalDir, &info) != 0) return -1;
    free(*dir);
    *dir = static_cast<char *>(malloc(sizeof(kThermalDirBelowDevices)));
    if (*dir == nullptr) return -1;
    memcpy(*dir, kThermalDirBelowDevices, sizeof(kThermalDirBelowDevices));
    return 0;
}

int vestra_get_temperature_file_path() {
    char *dir = nullptr;
    const int result = vestra_get_thermal_dir(&dir);
    if (result != 0 || dir == nullptr) {
        LOGD("ERR: getThermDirName returned FAILURE\n");
        return result;
    }
    // Kept as it stands: the doubled slashes are harmless, and the logs show the path with them.
    snprintf(temperature_file_name, kPathSize - 1, "/sys/devices/%s/temperature", dir);
    LOGD("INFO:Temperature FileName = %s\n", temperature_file_name);
    free(dir);
    return 0;
}

int fastAtoI(char *text) {
    uint32_t value = 0;  // wraps
    for (; *text != '\0'; ++text) {
        if (*text >= '0' && *text <= '9') value = value * 10U + static_cast<uint32_t>(*text - '0');
    }
    return static_cast<int>(value);
}

int vestra_get_file_data(const char *path, char **data) {
    static constexpr size_t kKept = 256;  // characters
    if (!checkForRealPath(path)) {
        LOGE("[vestra]:File path not real: %s\n", or_empty(path));
        return -1;
    }
    char *line = nullptr;
    size_t line_size = 0;
    bool got = false;
    {
        const FileCloser file{fopen(path, "re")};
        while (!got && file.file != nullptr && getline(&line, &line_size, file.file) >= 0) {
            const size_t kept = std::min(line_size, kKept);
            free(*data);
            *data = static_cast<char *>(calloc(kept + 1, 1));
            if (*data == nullptr) continue;  // no memory now, but perhaps for the next line
            memcpy(*data, line, strnlen(line, kept));
            got = true;
        }
    }
    free(line);
    if (got) return 0;
    free(*data);
    *data = nullptr;
    return -1;
}

unsigned long vestra_get_system_uptime() {
    if (!checkForRealPath(kUptimeFile)) {
        LOGE("[vestra]:File path not real: /proc/uptime\n");
        return 0;
    }
    const FileCloser file{fopen(kUptimeFile, "re")};
    if (file.file == nullptr) return 0;
    unsigned long seconds = 0;
    char *line = nullptr;
    size_t line_size = 0;
    if (getline(&line, &line_size, file.file) >= 0) {
        char *end = nullptr;
        const unsigned long value = strtoul(line, &end, 10);
        if (end != line) seconds = value;
    }
    free(line);
    return seconds;
}

// Logs that a temperature is above the limit.
static void raise_temperature_alarm(int temperature) {
    LOGS_AS("vestra_get_temperature");
    static constexpr char kMessage[] = "{stemperature=%d;du=%lu}";
    const unsigned long uptime = vestra_get_system_uptime();
    const int length = snprintf(nullptr, 0, kMessage, temperature, uptime);
    const size_t size = static_cast<size_t>(length) + 1;
    char *message = static_cast<char *>(malloc(size));
    if (message != nullptr) {
        snprintf(message, size, kMessage, temperature, uptime);
        LOGD("[vestra] : Temp msg %s\n", message);
        free(message);
    }
    // Kept as it stands: the limit is 125 but the text says 90. The set's log filters match the text.
    LOGD("ERR: Temperature exceeded 90. Current Temperature = %d. UpTime = %lu\n", temperature, uptime);
}

int vestra_get_temperature(int *temperature) {
    *temperature = -1;
    char *text = nullptr;
    const int result = vestra_get_file_data(temperature_file_name, &text);
    if (result != 0) {
        LOGD("ERR: Failed to get temperature from %s\n", temperature_file_name);
        return result;
    }
    *temperature = fastAtoI(text);  // 0 for an empty text
    if (*temperature > kTemperatureAlarm) raise_temperature_alarm(*temperature);
    free(text);
    return 0;
}

int GetTemperature(TEMP_TYPE type, int *temperature, int /*reserved*/) {
    static const struct {
        TEMP_TYPE type;
        const char *path;
    } kFiles[] = {
        {TEMP_TYPE_SOC, "/sys/devices/platform/soc/thermal/temperature"},
        {TEMP_TYPE_BOOT, "/sys/devices/platform/soc/thermal/boot_temp"},
        {TEMP_TYPE_EXEC, "/sys/devices/platform/soc/thermal/exec_temp"},
        {TEMP_TYPE_TMU, "/sys/kernel/debug/kzp_tmu_8k/temperature"},
    };
    for (const auto &file : kFiles) {
        if (file.type != type) continue;
        const int result = FileReadOneInt(file.path, temperature);
        if (result != 0) return result;
    }
    LOGE("Failed to get temp(type:%d)\n", static_cast<int>(type));
    *temperature = kTemperatureFailed;
    return 0;
}

// Writes the first whole number (decimal or 0x) after "refresh rate" in `line` into *rate. False without that label;
// throws when there is no number or one that does not fit.
static bool refresh_rate_in(const std::string &line, int *rate) {
    static constexpr char kLabel[] = "refresh rate";
    const size_t label = line.find(kLabel);
    if (label == std::string::npos) return false;
    const size_t digit = line.find_first_of("0123456789", label + sizeof(kLabel) - 1);
    if (digit == std::string::npos) throw std::invalid_argument("no number");
    const bool hexadecimal = line.compare(digit, 2, "0x") == 0 || line.compare(digit, 2, "0X") == 0;
    *rate = std::stoi(line.substr(digit), nullptr, hexadecimal ? 16 : 10);
    return true;
}

int m_CheckDDRRefreshRate(std::string &path, int *rate) {
    const FileCloser file{fopen(path.c_str(), "re")};
    if (file.file == nullptr) {
        LOGW("[vestra]:node does not exists (%s)\n", path.c_str());
        return 0;
    }
    bool found = false;
    char *line = nullptr;
    size_t line_size = 0;
    try {
        while (!found && getline(&line, &line_size, file.file) >= 0) found = refresh_rate_in(line, rate);
    } catch (const std::exception &) {
        *rate = 0;
    }
    free(line);
    return found ? 1 : 0;
}

int GetDdrTemperature(std::string &description, unsigned int *rates) {
    static constexpr unsigned kBitsPerChannel = 4;
    try {
        uint32_t accumulated = 0;
        int found = 0;
        std::string manufacturer;
        for (int channel = 0; channel < kDdrChannels; ++channel) {
            std::string path = std::string(kDdrParameters) + static_cast<char>('a' + channel);
            int rate = 0;
            if (m_CheckDDRRefreshRate(path, &rate) == 0) break;
            accumulated |= static_cast<uint32_t>(rate) << (kBitsPerChannel * static_cast<unsigned>(channel));
            found = 1;
            if (channel == 0) FileReadOneString(kDdrManufacturer, manufacturer);
        }
        if (found == 0) {
            description = "Unknown";
            return 0;
        }
        std::ostringstream text;
        text << std::hex << "0x" << accumulated << ' ' << manufacturer;
        description = text.str();
        if (rates != nullptr) *rates = accumulated;
        return found;
    } catch (const std::exception &) {
        return 0;
    }
}

/* ------------------------------ 13. Driver user data ------------------------------ */

// User-data commands of the control node.
enum UserDataCommand : int {
    kTemperatureCommand = 0,
    kDiskReadOn = 1,
    kDiskReadOff = 2,
    kDiskWriteOn = 3,
    kDiskWriteOff = 4,
    kPidFilter = 5,
    kNameFilter = 6,
};

// Sends a formatted command with one write: the module takes each write as one whole command. False with errno set.
// Kept as it stands: a short write is no failure.
static bool send_command(int fd, const char *command) {
    return write(fd, command, strlen(command)) >= 0;
}

void write_userdata(int command, char *data, int length) {
    LOGI("INFO: write_userdata init\n");
    if (length > kCommandBytes) {
        LOGE("ERROR: write_userdata failed bufLen [%d]\n", length);
        return;
    }
    const int fd = vestra_open(kControlNode, O_WRONLY);
    if (fd < 0) {
        LOGE("ERROR: open failed (%d:%m)\n", errno);
    } else {
        char text[kCommandBytes] = {};
        snprintf(text, sizeof(text), "c-%d-%d-%s", command, length, data);
        if (!send_command(fd, text)) LOGE("ERROR: write_userdata failed (%d:%m)\n", errno);
        LOGE("INFO: command = %s\n", text);
        close_unless_zero(fd);
    }
    LOGD("INFO: write_userdata exit\n");
}

// The payload length of an integer command is the integer's size, however many digits it has.
static void format_integer_command(char (&text)[kCommandBytes], int command, int value) {
    memset(text, 0, sizeof(text));
    snprintf(text, sizeof(text), "c-%d-%zu-%d", command, sizeof(int32_t), value);
}

void write_userdata_func(int command, int value) {
    LOGD("INFO: write_userdata_func init\n");
    const int fd = vestra_open(kControlNode, O_WRONLY);
    if (fd < 0) {
        LOGE("ERROR: open failed (%d:%m)\n", errno);
    } else {
        char text[kCommandBytes];
        format_integer_command(text, command, value);
        if (!send_command(fd, text)) LOGE(" write_userdata_func failed (%d:%m)\n", errno);
        LOGE("command = %s\n", text);
        close_unless_zero(fd);
    }
    LOGD("INFO: write_userdata_func exit\n");
}

void *thread_userdata_func(void * /*arg*/) {
    LOGI("INFO: thread_userdata_func init\n");
    const int fd = vestra_open(kControlNode, O_WRONLY);
    if (fd < 0) {
        LOGE("ERROR: open failed (%d:%m)\n", errno);
    } else {
        while (!exit_flag) {
            int temperature = 0;
            if (vestra_get_temperature(&temperature) >= 0) {
                char text[kCommandBytes];
                format_integer_command(text, kTemperatureCommand, temperature);
                if (!send_command(fd, text)) LOGE("ERROR: tud write failed (%d:%m)\n", errno);
            }
            sleep(1);
        }
        close_unless_zero(fd);
    }
    LOGD("INFO: thread_userdata_func exit\n");
    return nullptr;
}

/* ------------------------------ 14. Process filter list ------------------------------ */

// Makes sure that nobody else can replace the list directory by another one, whose files the daemon would then remove:
// it is not a link, and it belongs to the daemon or to root, so that the sticky bit of /tmp protects it. Takes over a
// directory that another user made first. False with a message, once for each reason.
static bool own_list_dir() {
    static constexpr char kDir[] = "/tmp/vestra_processes";  // no slash at the end: does not follow a link
    errno = 0;
    const int fd = open(kDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat held, named;
    bool own = fd >= 0 && fstat(fd, &held) == 0;
    if (own && held.st_uid != geteuid() && held.st_uid != 0) {
        own = fchown(fd, geteuid(), static_cast<gid_t>(-1)) == 0 && fchmod(fd, 0777) == 0;
    }
    own = own && lstat(kDir, &named) == 0 && held.st_dev == named.st_dev && held.st_ino == named.st_ino;
    const int error = own ? 0 : errno != 0 ? errno : EEXIST;
    if (fd >= 0) close(fd);
    if (error != 0 && error != list_dir_error) {
        errno = error;
        LOGE("process lists in %s are ignored (%d:%m)", kDir, errno);
    }
    list_dir_error = error;
    return own;
}

// Opens the list file, or returns null. Everyone may write to the directory: a link, a pipe or a device is not a list,
// and nothing waits for one.
static FILE *open_list() {
    const int fd = open(kListFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat info;
    FILE *file = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? fdopen(fd, "re") : nullptr;
    if (file == nullptr) close(fd);
    return file;
}

// Reads the next line without its end, cut to `size` - 1 characters. *left is the number of bytes that may still be
// read. False when they, or the file, are at an end.
static bool next_line(FILE *file, int *left, char *line, size_t size) {
    const auto next = [&] { return (*left)-- > 0 ? fgetc(file) : EOF; };
    size_t length = 0;
    int c = next();
    if (c == EOF) return false;
    for (; c != EOF && c != '\n'; c = next()) {
        if (length + 1 < size) line[length++] = static_cast<char>(c);
    }
    line[length] = '\0';
    return true;
}

// Reads the names into the configuration record.
// Kept as it stands: the count is the number of lines, though only six are stored.
static void load_names(FILE *file) {
    LOGS_AS("updateFilterProcessNames");
    char line[kLongPath];
    int left = kListBytes;
    uint32_t lines = 0;
    while (next_line(file, &left, line, sizeof(line))) {
        if (lines < kFilterNameSlots) {
            char(&slot)[kFilterNameSize] = g_vestra_config.vestra_proc_filter_pname[lines];
            memset(slot, 0, sizeof(slot));
            memcpy(slot, line, strnlen(line, sizeof(slot)));  // a name of 128 characters has no terminator
        }
        g_vestra_config.vestra_proc_filter_pname_valid = 1;
        LOGI("g_vestra_config.vestra_proc_filter_pname[%d] = %s", static_cast<int>(lines), line);
        ++lines;
    }
    // Kept as it stands: an empty list changes nothing, so the names of the previous list are sent again.
    if (lines > 0) g_vestra_config.vestra_proc_filter_enable_num = static_cast<int32_t>(lines);
}

static void remove_list() {
    LOGS_AS("updateFilterProcessNames");
    char command[kCommandBytes];
    snprintf(command, sizeof(command), "/bin/rm -rf %s", kListFile);
    runShell(command);
    LOGI("command [%s]", command);
}

// A terminated copy of name slot `i`.
struct FilterName {
    char text[kFilterNameSize + 1];
    explicit FilterName(int i) {
        const char(&slot)[kFilterNameSize] = g_vestra_config.vestra_proc_filter_pname[i];
        const size_t length = strnlen(slot, sizeof(slot));
        memcpy(text, slot, length);
        text[length] = '\0';
    }
};

static void send_names(char *buffer, size_t size) {
    LOGS_AS("updateFilterProcessNames");
    snprintf(buffer, size, "%s|%s|%s|%s|%s", FilterName(0).text, FilterName(1).text, FilterName(2).text,
             FilterName(3).text, FilterName(4).text);
    LOGI("cmd : %d, pBuf = %s, len = %d", kNameFilter, buffer, static_cast<int>(strlen(buffer)));
    for (int i = 0; i < g_vestra_config.vestra_proc_filter_enable_num && i < kFilterNamesSent; ++i) {
        FilterName name(i);
        write_userdata(kNameFilter, name.text, static_cast<int>(strlen(name.text)));
    }
}

static void send_pids(char *buffer, size_t size) {
    LOGS_AS("updateFilterProcessNames");
    const int32_t *pid = g_vestra_config.vestra_proc_filter_pid;
    snprintf(buffer, size, "%d|%d|%d|%d|%d", pid[0], pid[1], pid[2], pid[3], pid[4]);
    const int length = static_cast<int>(strlen(buffer));
    LOGI("cmd : %d, pBuf = %s, len = %d", kPidFilter, buffer, length);
    write_userdata(kPidFilter, buffer, length);
}

void updateFilterProcessNames() {
    static constexpr size_t kTextSize = 1024;
    struct stat info;
    if (stat(kListFile, &info) != 0) {
        LOGE(" %s doesnot exists", kListFile);
        return;
    }
    if (!own_list_dir()) return;
    {
        const FileCloser list{open_list()};
        if (list.file == nullptr) {
            LOGE("File could not be opened [%s].", kListFile);
            remove_list();
            return;
        }
        load_names(list.file);
    }
    remove_list();
    LOGI("vestra_proc_filter_enable_num = %d, vestra_proc_filter_pname_valid = %d",
         g_vestra_config.vestra_proc_filter_enable_num, g_vestra_config.vestra_proc_filter_pname_valid);
    if (g_vestra_config.vestra_proc_filter_enable_num < 1) return;

    char *buffer = static_cast<char *>(malloc(kTextSize));
    if (buffer == nullptr) {
        LOGE("ERR: vestra_proc_filter_enable_num malloc failed!\n");
        return;
    }
    if (g_vestra_config.vestra_proc_filter_pname_valid != 0) {
        send_names(buffer, kTextSize);
    } else if (g_vestra_config.vestra_proc_filter_pid_num != 0) {
        send_pids(buffer, kTextSize);
    } else {
        LOGE("ERR: vestra_proc_filter_enable_num i/p invalid!\n");
    }
    free(buffer);
}

// True when no character of a name means anything to the shell, so that a command can hold it as it is.
static bool plain_name(const char *name) {
    static constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-+,@%";
    return name[0] != '-' && name[strspn(name, kPlain)] == '\0';
}

// A file name as the shell reads it without running any of it: unchanged when it is plain, else in single quotes.
// Everyone may write to the directory, so a name may be an attack on the shell.
struct ShellWord {
    char text[4 * NAME_MAX + 3];  // each quote in the name becomes four characters
    explicit ShellWord(const char *name) {
        size_t used = 0;
        if (plain_name(name)) {
            used = strnlen(name, NAME_MAX);
            memcpy(text, name, used);
        } else {
            text[used++] = '\'';
            for (size_t i = 0; i < NAME_MAX && name[i] != '\0'; ++i) {
                static constexpr char kQuote[] = "'\\''";  // close the quotes, an escaped quote, open them again
                const bool quote = name[i] == '\'';
                memcpy(text + used, quote ? kQuote : name + i, quote ? 4 : 1);
                used += quote ? 4 : 1;
            }
            text[used++] = '\'';
        }
        text[used] = '\0';
    }
};

void updateFilterProcessNames(const char *name) {
    if (name == nullptr || strcmp(name, kListName) == 0) {
        updateFilterProcessNames();
        return;
    }
    char command[sizeof(ShellWord) + 64];
    // Kept as it stands: the doubled slash is harmless, and the log shows the command with it.
    snprintf(command, sizeof(command), "/bin/rm -rf %s/%s", kListDir, ShellWord(name).text);
    runShell(command);
    LOGE("File name recieved [%s], it should be [processes.txt], removing file [%s]", name, command);
}

// Sets up the watch on the list directory. False with a message.
static bool watch_list_dir() {
    LOGS_AS("thread_user_process_func");
    if (!own_list_dir()) return false;
    inotify_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_fd < 0) {
        LOGE("inotify_init failed");
        return false;
    }
    inotify_wd = inotify_add_watch(inotify_fd, kListDir, IN_CREATE);
    if (inotify_wd < 0) {
        LOGE("inotify_add_watch failed");
        close(inotify_fd);
        inotify_fd = -1;
        return false;
    }
    return true;
}

// Handles the events in the first `size` bytes of `buffer`.
static void handle_list_events(const char *buffer, size_t size) {
    LOGS_AS("thread_user_process_func");
    size_t offset = 0;
    while (size - offset >= sizeof(inotify_event)) {
        inotify_event event;
        memcpy(&event, buffer + offset, sizeof(event));
        if (event.len > size - offset - sizeof(event)) break;
        const char *name = event.len > 0 ? buffer + offset + sizeof(event) : nullptr;
        if ((event.mask & IN_CREATE) != 0 && (event.mask & IN_ISDIR) == 0) {
            LOGE("New File created as :- %s", or_empty(name));
            updateFilterProcessNames(name);
        }
        offset += sizeof(event) + event.len;
    }
}

// One pass of the watcher, 100 ms.
static void watch_list_once() {
    LOGS_AS("thread_user_process_func");
    static char events[32768];  // this thread's only
    usleep(100000);
    struct stat info;
    if (stat(kListDir, &info) != 0) {
        // chmod undoes the umask, but only on a directory that the daemon has just made.
        if (mkdir(kListDir, 0777) == 0) chmod(kListDir, 0777);
    }
    if (inotify_fd < 0 && !watch_list_dir()) return;
    const ssize_t size = read(inotify_fd, events, sizeof(events));
    if (size < 0) return;
    handle_list_events(events, static_cast<size_t>(size));
    LOGE("End of readVestraProcessEvents");
}

// Kept as it stands: there is no exit test. The join at shut-down waits for this thread for ever, and the set's service
// manager ends the process; it relies on a daemon that does not end by itself.
void *thread_user_process_func(void * /*arg*/) {
    for (;;) watch_list_once();
    return nullptr;
}

/* ------------------------------ 15. Start-up, main, shut-down ------------------------------ */

void exit_handler(int /*signo*/) {
    static constexpr char kText[] = "SIGRTMIN+6 handled\n";
    const int saved = errno;
    const ssize_t ignored = write(STDOUT_FILENO, kText, sizeof(kText) - 1);  // printf is not safe in a signal handler
    static_cast<void>(ignored);
    exit_flag = 1;
    if (g_loop != nullptr) g_main_loop_quit(g_loop);
    errno = saved;
}

static void set_initial_values() {
    sleep_time_usec_buf = 1000000;
    g_current_new_data = 0;
    g_cnt_of_files = 0;
    key_handling_flag = 0;
    g_prev_usb_path_valid = 0;
    file_complete_flag = 0;
    gtotal_bytes = 0;
    max_file_size = kDumpLimit;
    sleep_time_sec_file = 4;
    max_number_of_files = 1;
    sleep_time_live_file = 1;
}

static void start_process_database() {
    LOGS_AS("main");
    if (ProcessDbInit() == -1) {
        LOGE("[ProcessDb] Start fails");
    } else {
        LOGD("[ProcessDb] Start Success");
    }
}

static void register_service_keys() {
    LOGS_AS("main");
    if (vconf_notify_key_changed(kKeyHistoryTrigger, callbackSHMdbpop, nullptr) == 0) {
        LOGD("vconf change notification successfully called");
    } else {
        LOGD("Failed to register vconf change notification(%s)", kKeyHistoryTrigger);
    }
    if (vconf_notify_key_changed(kKeyMemoryDrop, __scenario_manager_tv_memory, nullptr) == 0) {
        LOGD("vconf change notification successfully called for %s", kKeyMemoryDrop);
    } else {
        LOGD("Failed to register vconf change notification(%s)", kKeyMemoryDrop);
    }
}

// A number as strtol reads it into the set's 32-bit long: clamped, 0 when there is none.
static int32_t number_from_argument(const char *text) {
    errno = 0;
    return static_cast<int32_t>(clamp_to_int(strtoll(text, nullptr, 10)));
}

static uint32_t size_from_argument(const char *text) {
    auto size = static_cast<uint32_t>(number_from_argument(text));  // unsigned: a negative number is above the limit
    if (size > kSizeLimitMiB) size = small_chip() ? kSizeLimitSmallChipMiB : kSizeLimitMiB;
    return size << 20;
}

static void read_command_line(int argc, char **argv) {
    if (argc == 3) {
        max_file_size = size_from_argument(argv[1]);
        sleep_time_sec_file = number_from_argument(argv[2]);
    } else if (argc == 2) {
        max_file_size = size_from_argument(argv[1]);
        sleep_time_usec_buf = 500000;
    } else {
        sleep_time_usec_buf = 500000;
        max_file_size = kDumpLimit;
    }
    if (sleep_time_sec_file == 0) sleep_time_sec_file = 1;
}

static void set_configuration_defaults() {
    g_vestra_config.min_time_diff_dump = 1;
    g_vestra_config.cont_data_collect = 0;
    g_vestra_config.live_data_collect = 0;
    g_vestra_config.vestra_litemode_on = 0;
    g_vestra_config.user_notification_on = 0;
    g_vestra_config.vestra_kmod_load_unload = 0;
}

static void read_configuration() {
    LOGS_AS("main");
    snprintf(VESTRA_CONFIG_FILE, sizeof(VESTRA_CONFIG_FILE), "%s", small_chip() ? kConfigFileLpc : kConfigFile);
    printf("[Vestra] INFO: [CHIP : %d] Config File:%s LOGTAG: %s!\n", g_chip_type, VESTRA_CONFIG_FILE, VESTRA_LOG_TAG);
    if (GetVestraConfigInfo(g_vestra_config, VESTRA_CONFIG_FILE) != 0) {
        // Fields that the parser stored before it stopped keep their new values.
        LOG_AND_PRINT(DLOG_INFO, "[Vestra] INFO: GetVestraConfigInfo failed, check config file at %s!\n",
                      VESTRA_CONFIG_FILE);
        LOGW("[Vestra] INFO: Continue with default params...\n");
        return;
    }
    max_number_of_files = g_vestra_config.no_of_files;
    max_file_size = static_cast<uint32_t>(g_vestra_config.max_file_size) * kMiB;  // overrides the command line
    memset(g_prev_file_path, 0, sizeof(g_prev_file_path));
    LOG_AND_PRINT(DLOG_INFO,
                  "[Vestra] INFO: Vestra Config=>maxfilesize:%u,maxnumfile:%d,cont_data:%d notify_on:%d diskiord:%d "
                  "diskiowr:%d, livedata: %d\n",
                  max_file_size, max_number_of_files, g_vestra_config.cont_data_collect,
                  g_vestra_config.user_notification_on, g_vestra_config.vestra_diskio_read_enable,
                  g_vestra_config.vestra_diskio_write_enable, g_vestra_config.live_data_collect);
}

static void load_module_if_configured() {
    LOGS_AS("main");
    if (g_vestra_config.vestra_kmod_load_unload == 0) return;
    const int result = loadVestraDriver();
    if (result != 0) {
        LOGE("ERROR: loadVestraDriver failed %d \n", result);
        printf("[Vestra] ERROR: loadVestraDriver failed %d \n", result);
    }
}

static void find_temperature_file() {
    LOGS_AS("main");
    const int result = vestra_get_temperature_file_path();
    if (result != 0) LOGE("[Vestra] ERROR: vestra_get_temperature_file_path failed %d \n", result);
}

// False when there is no key-combination service: the daemon then shuts down.
static bool register_key_combination() {
    LOGS_AS("main");
    if (KeyCombination_Initialize() == 0) {
        LOGE("[Vestra] ERROR: KeyCombination_Initialize failed (%d:%m)\n", errno);
        return false;
    }
    LOGE("[Vestra] INFO: KeyCombination_Add_Handler init\n");
    KeyCombination_Add_Handler(kDumpKeyCombination, Handler_Cb);
    LOGE("[Vestra] INFO: KeyCombination_Add_Handler exit\n");
    return true;
}

static void register_stop_signal_and_triggers() {
    signal(SIGRTMIN + kStopSignalOffset, exit_handler);
    vconf_notify_key_changed(kKeyDod, dod_vconf_notify_cb, nullptr);
    vconf_notify_key_changed(kKeyRobust, robustness_vconf_notify_cb, nullptr);
}

static void clamp_sizes_and_interval() {
    if (max_file_size > kDumpLimit) {
        printf("[Vestra] INFO: max file size more than allowable limit = %d\n", static_cast<int>(max_file_size));
        max_file_size = kDumpLimit;
    } else if (max_file_size < kDumpLeast) {
        printf("[Vestra] INFO: max file size less than allowable limit = %d\n", static_cast<int>(max_file_size));
        max_file_size = kDumpLeast;
    }
    if (g_vestra_config.cont_data_collect == 1) sleep_time_sec_file = 4;
}

static void select_disk_tracing() {
    const UserDataCommand read = g_vestra_config.vestra_diskio_read_enable != 0 ? kDiskReadOn : kDiskReadOff;
    const UserDataCommand write = g_vestra_config.vestra_diskio_write_enable != 0 ? kDiskWriteOn : kDiskWriteOff;
    write_userdata_func(read, read);
    write_userdata_func(write, write);
}

static void log_final_settings() {
    LOGS_AS("main");
    LOGI("INFO: final max file size = %d\n", static_cast<int>(max_file_size));
    LOGI("INFO: interval for file in sec = %d\n", sleep_time_sec_file);
    LOGI("INFO: interval for buf in usec = %d\n", sleep_time_usec_buf);
}

static void raise_priority_if_configured() {
    LOGS_AS("main");
    static constexpr int kHighest = -20;
    if (g_vestra_config.vestra_info_raise_priority == 0) return;
    int n = g_vestra_config.vestra_info_new_priority_nice;
    if (n >= kHighest && n <= 0) {
        LOG_AND_PRINT(DLOG_ERROR, "[vestra] vestra_info_new_priority_nice %d!\n", n);
    } else {
        n = kHighest;
        LOG_AND_PRINT(DLOG_DEBUG, "[vestra] default new_nice_val %d!\n", n);
    }
    errno = 0;
    const int result = nice(n);
    // Kept as it stands: errno is never negative, so a refusal counts as success. A set that grants no priority must
    // still start, and -1 is a valid niceness.
    if (result == -1 && errno < 0) {
        const int error = errno;
        LOGE("[vestra] Couldn't set nice. %d!\n", error);
        printf("[vestra] ===========> Couldn't set nice. %d!!!!!!!!!!!!!!!!!!\n", error);
        return;
    }
    LOG_AND_PRINT(DLOG_DEBUG, "[vestra] priority updated with nice value %d:%d!\n", n, result);
}

static void switch_tracing_on() {
    LOGS_AS("main");
    const int result = system("/bin/echo 1 > /proc/vesertra_info");  // NOLINT(cert-env33-c): a fixed command
    LOGI("INFO: Start the vestra driver %d \n", result);
}

static void find_output_directory() {
    LOGS_AS("main");
    if (get_usb_path(g_prev_usb_path, kPathSize, 2) == 0) {
        LOGE("INFO: USB path : %s\n", g_prev_usb_path);
        printf("[Vestra] INFO: USB path : %s\n", g_prev_usb_path);
    } else {
        LOGE("INFO: USB Error, Please check USB!\n");
        printf("[Vestra] INFO: USB Error, Please check USB!\n");
    }
}

struct Worker {
    pthread_t *handle;
    void *(*body)(void *);
    const char *name;     // at most 15 characters
    const char *subject;  // in the warning when naming fails
};

static const Worker kClientWorker = {&client_thread, client_request_process, "QXClientProcess",
                                     "client_request_process"};
static const Worker kFeedWorkers[] = {
    {&thread_for_userdata, thread_userdata_func, "QXUserDataHndl", "thread_for_userdata"},
    {&thread_for_process_names, thread_user_process_func, "QXProcess", "thread_for_process_names"},
    {&thread_read_hndl, thread_read_func, "QXReadData", "thread_read_hndl"},
};

static bool start_worker(const Worker &worker, void *argument) {
    LOGS_AS("main");
    errno = pthread_create(worker.handle, nullptr, worker.body, argument);
    if (errno != 0) {
        LOGE("ERROR: pthread_create failed (%d:%m)\n", errno);
        *worker.handle = 0;
        return false;
    }
    errno = pthread_setname_np(*worker.handle, worker.name);
    if (errno != 0) LOGW("WARN: pthread_setname_np %s failed (%d:%m)\n", worker.subject, errno);
    return true;
}

// Blocks or unblocks the stop signal on this thread and on the threads that it starts afterwards.
//
// Only the workers take the signal: quitting the loop takes one of the loop's locks, which the loop's thread or a
// helper thread of GLib may hold when the signal arrives.
static void hold_stop_signal(bool hold) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGRTMIN + kStopSignalOffset);
    pthread_sigmask(hold ? SIG_BLOCK : SIG_UNBLOCK, &stop, nullptr);
}

static bool start_all_workers(const char *program) {
    if (!start_worker(kClientWorker, nullptr)) return false;
    memset(process_name, 0, sizeof(process_name));
    memcpy(process_name, program, strnlen(program, sizeof(process_name) - 1));
    for (const Worker &worker : kFeedWorkers) {
        if (!start_worker(worker, ghead_s)) return false;
    }
    return true;
}

static bool start_workers(const char *program) {
    LOGS_AS("main");
    LOGI("Thread client_request_process creating\n");
    hold_stop_signal(false);
    const bool started = start_all_workers(program);
    hold_stop_signal(true);
    return started;
}

// Tells clients that the daemon is running. False without shared memory.
static bool mark_shared_memory() {
    LOGS_AS("main");
    void *shm = get_shm();
    if (shm == nullptr) {
        LOGI("INFO:shared memory not cerated ...exiting \n");
        printf("[Vestra] INFO:shared memory not cerated ...exiting \n");
        return false;
    }
    __atomic_store_n(static_cast<int32_t *>(shm), 1, __ATOMIC_RELEASE);
    LOGI("INFO: waiting for threads to join...\n");
    printf("[Vestra] INFO: waiting for threads to join...\n");
    return true;
}

// A stop signal before the loop ran had no loop to quit.
static gboolean quit_if_stopped(gpointer /*unused*/) {
    if (exit_flag) g_main_loop_quit(g_loop);
    return G_SOURCE_REMOVE;
}

static void run_main_loop() {
    g_loop = g_main_loop_new(nullptr, TRUE);
    g_timeout_add(0, quit_if_stopped, nullptr);
    g_main_loop_run(g_loop);
}

static void join_workers() {
    LOGS_AS("main");
    // Kept as it stands: the process-list thread never ends, so the last join does not return unless that thread died.
    for (pthread_t *handle : {&thread_read_hndl, &client_thread, &thread_for_userdata, &thread_for_process_names}) {
        if (*handle == 0) continue;
        errno = pthread_join(*handle, nullptr);
        if (errno != 0) LOGE("ERROR: pthread_join failed (%d:%m)\n", errno);
        *handle = 0;
    }
}

static void free_chains() {
    pthread_mutex_lock(&lock);
    free_bufs(&ghead_s);
    free_bufs_shm(&ghead_shm);
    pthread_mutex_unlock(&lock);
}

static void switch_tracing_off() {
    LOGS_AS("main");
    const int result = system("/bin/echo 0 > /proc/vesertra_info");  // NOLINT(cert-env33-c): a fixed command
    LOGI("INFO: Stop the vestra driver %d \n", result);
}

static void log_elapsed_time() {
    LOGS_AS("main");
    timeval end;
    gettimeofday(&end, nullptr);
    const int64_t elapsed = ((static_cast<int64_t>(end.tv_sec) - start_time.tv_sec) * 1000000 +
                             static_cast<int64_t>(end.tv_usec) - start_time.tv_usec) /
                            1000000;
    LOGI("INFO: elapsed time = %d secs\n", static_cast<int>(elapsed));
}

static void unload_module_if_configured() {
    LOGS_AS("main");
    if (g_vestra_config.vestra_kmod_load_unload == 0) return;
    const int result = unloadVestraDriver();
    if (result != 0) LOGE("ERROR: unloadVestraDriver failed %d \n", result);
}

static void shut_down() {
    LOGS_AS("main");
    LOGI("INFO: main loop exit\n");
    printf("[Vestra]  INFO: main loop exit\n");
    exit_flag = 1;
    // Kept as it stands: only this key. The others stay registered until the process ends.
    vconf_ignore_key_changed(kKeyDod, dod_vconf_notify_cb);
    join_workers();
    free_chains();
    switch_tracing_off();
    log_elapsed_time();
    unload_module_if_configured();
}

// Everything up to the main loop, in the order that the set needs. False when the daemon cannot run.
static bool start_up(int argc, char **argv) {
    hold_stop_signal(true);
    exit_flag = 0;
    get_chip_type_from_config();
    set_initial_values();
    start_process_database();
    register_service_keys();
    read_command_line(argc, argv);
    set_configuration_defaults();
    read_configuration();
    load_module_if_configured();
    gettimeofday(&start_time, nullptr);
    find_temperature_file();
    if (!register_key_combination()) return false;
    register_stop_signal_and_triggers();
    clamp_sizes_and_interval();
    select_disk_tracing();
    updateFilterProcessNames();
    log_final_settings();
    raise_priority_if_configured();
    switch_tracing_on();
    find_output_directory();
    init_collected_data();
    return start_workers(argc > 0 ? argv[0] : "") && mark_shared_memory();
}

// malloc maps blocks of this many bytes and more on their own.
static constexpr int kMappedFrom = 64 * 1024;

int main(int argc, char **argv) {
    // A large block of the chain returns to the system when it leaves the chain. By default malloc would take such
    // blocks from the reader's arena once the first one was freed. The process list's small nodes would fill the gaps,
    // and resident memory would grow by a dozen blocks within the hour.
    mallopt(M_MMAP_THRESHOLD, kMappedFrom);
    // Line by line into a file or pipe, too: a daemon that is killed would lose what is still in the buffer.
    if (!isatty(STDOUT_FILENO)) setvbuf(stdout, nullptr, _IOLBF, 0);
    if (start_up(argc, argv)) run_main_loop();
    shut_down();
    return 0;
}
