// vestrad.h -- the daemon's core: start-up, capture and dump, triggers, driver user data and probes.
//
// Flags are plain words without a lock: one thread writes them, the others poll them. Unless a comment says otherwise
// an operation may be called on any thread and takes no lock.
#pragma once

#include <glib.h>
#include <pthread.h>

#include <cstdint>
#include <string>

#include "platform/key_combination.h"
#include "platform/vconf.h"
#include "trace/trace_format.h"
#include "vestra-daemon/vestra_xml.h"

struct circ_buf_shm;  // decoder.h

/* ------------------------------ Records ------------------------------ */

// One block of the capture chain: what one read of the control node returned. Owned by the chain.
struct circ_buf_s {
    unsigned char *data;  // heap block of (size & ~31) + 40 bytes, owned by the node
    uint32_t size;        // valid bytes in data
    circ_buf_s *next;     // next newer block; null at the tail
};

// Why a dump is written. 2, 3, 5 and 6 are the continuous reasons: they rotate through no_of_files slots.
enum _vestra_write_reason : int32_t {
    WRITE_REASON_FAULT = 0,  // no sender
    WRITE_REASON_USERKEY = 1,
    WRITE_REASON_CONTINUOUS = 2,
    WRITE_REASON_ROBUSTNESS = 4,
    WRITE_REASON_DOD = 5,
    WRITE_REASON_CONTINUOUS_DOD = 6,
    WRITE_REASON_FAULT_DOD = 7,  // no sender
};

// Which temperature GetTemperature reads; 3 to 6 and everything above 7 have no file.
enum TEMP_TYPE : int32_t {
    TEMP_TYPE_SOC = 0,
    TEMP_TYPE_BOOT = 1,
    TEMP_TYPE_EXEC = 2,
    TEMP_TYPE_TMU = 7,
};

// Kind of image the set runs, as m_UpdateImageType found it: at most one flag is 1.
struct image_type_flags {
    uint8_t debug;
    uint8_t release;
    uint8_t perf;
};

constexpr int kPathSize = 256;              // bytes of every path buffer that crosses a function boundary
using trace::kBlockMax;                     // bytes asked for in one read of the control node
constexpr int kTemperatureFailed = -65535;  // GetTemperature's value for "no reading"

/* ------------------------------ State ------------------------------ */

extern int32_t exit_flag;             // 1: stop. Set by the signal handler and by shut-down, polled by three threads
extern GMainLoop *g_loop;             // null until the loop is made; main thread
extern uint32_t max_file_size;        // bytes, budget of the chain and size of a dump; constant after start-up
extern int32_t sleep_time_usec_buf;   // us, pause of the reader thread; constant after start-up
extern int32_t sleep_time_sec_file;   // s, interval of continuous dumps; constant after start-up
extern int32_t sleep_time_live_file;  // s, live upload interval; set to 1 and read nowhere
extern int32_t max_number_of_files;   // as configured, shown at start-up
extern int32_t key_handling_flag;     // a key dump is in progress; cleared at start-up and read nowhere
extern int32_t fault_handling_flag;   // a fault is being handled; nothing in the daemon sets it
extern int32_t dod_mode_flag;         // last value of the DOD key; written by the main loop, polled by the reader
extern char process_name[kPathSize];  // argv[0], always terminated; set once at start-up
extern char VESTRA_CONFIG_FILE[96];   // path of the configuration file; set once at start-up
extern pthread_t client_thread, thread_for_userdata, thread_for_process_names, thread_read_hndl;  // 0: not running
extern int32_t g_chip_type;             // chip code 1..7; set once at start-up
extern VestraConfig_t g_vestra_config;  // see vestra_xml.h
extern image_type_flags m_image_type;   // filled by m_UpdateImageType only

extern pthread_mutex_t lock;         // guards the chain: ghead_s, its links, gtotal_bytes. Taken before shm_lock
extern circ_buf_s *ghead_s;          // oldest block; null when the chain is empty
extern uint32_t gtotal_bytes;        // bytes, sum of size over the chain
extern uint32_t g_current_new_data;  // bytes appended since the last continuous dump; read without lock
extern int32_t file_complete_flag;   // 1 once the budget has forced a block out; cleared by a key dump

extern int32_t g_cnt_of_files;            // slot of the newest continuous dump; reader thread only
extern char g_prev_file_path[kPathSize];  // path of the newest continuous dump, "" at start; reader thread only
extern char g_prev_usb_path[kPathSize];   // last USB directory found and checked
extern int32_t g_prev_usb_path_valid;     // 1: g_prev_usb_path may be used

extern char temperature_file_name[kPathSize];  // set once at start-up; "" when there is no thermal directory
extern int inotify_fd, inotify_wd;             // watch on the list directory, -1 when not set up; process-list thread

/* ------------------------------ Image type and small files ------------------------------ */

// 1 when the marker file ("/etc/debug", "/etc/perf", "/etc/release") exists, else 0.
int CheckIfDebugImage();
int CheckIfPerfImage();
int CheckIfReleaseImage();
int CheckIfNotReleaseImage();

// Sets the flag of the first readable marker (debug, perf, release) in m_image_type. 0, or access()'s last result when
// none is.
int m_UpdateImageType();

// 1 when `path` may be opened: not a symbolic link. A missing file passes; the open that follows fails then. 0 with a
// message for a null path, a link, or an lstat error other than ENOENT.
int checkForRealPath(const char *path);

// First decimal integer of the file into *value (clamped to 32 bits). 1 when read, 0 with a message otherwise, *value
// untouched.
int FileReadOneInt(const char *path, int *value);

// First line of the file, without its line end, into `text`. 1 when read, 0 with a message otherwise. Follows links.
int FileReadOneString(const char *path, std::string &text);

/* ------------------------------ Kernel module and control node ------------------------------ */

// Loads or unloads the kernel module and waits up to about 4 s for the control node to appear or vanish. 0, or -1 when
// the service refuses. Kept as it stands: see the waiting rule in vestrad.cpp.
int loadVestraDriver(void);
int unloadVestraDriver(void);

// Opens `path` with up to 21 attempts, 200 ms after each failed one (4.2 s in all). A close-on-exec descriptor owned by
// the caller, or the last negative result.
int vestra_open(const char *path, int flags);

// Runs `command` with /bin/sh and waits. The raw wait status ("exit 3" gives 768), or -1.
int runShell(const char *command);

// Asks the system-information service for the chipset and sets g_chip_type; keeps it when there is no answer. Prints
// which chip it is. Returns the code.
int get_chip_type_from_config(void);
int vestra_chip_type(void);

// Sleeps `usec` microseconds; not resumed when a signal interrupts it. Negative values return at once.
void vestrad_usleep(int usec);

/* ------------------------------ Output location ------------------------------ */

// Writes the USB output directory into `buf` (`size` bytes). `retries` < 1 means 40; each failed try sleeps 1 s, so a
// call can block for minutes. 0 or -1; -1 at once on a release image. A directory found for the first time is only
// cached, `buf` stays as it is: the caller's next call gets it. `buf` may be the cache itself.
int get_usb_path(char *buf, int size, int retries);
int get_usb_path_int(char *buf, int size, int retries);  // one lookup

// Mount path of the first mass-storage device into `buf`. 0, or -1 with a message.
int search_usb_device_path(char *buf, int size);

// Waits until `path` is a directory: `retries` (< 1 means 40) + 1 tests, 1 s after each failed one. 0 or -1.
int check_path(char *path, int size, int retries);
int check_path_int(const char *path, int size);  // one test

// Runs `program` with the `argc` strings that follow (2, or 3; each cut to 255 characters) and waits for it; no shell.
// Returns the child's id, or a negative value when fork fails. How the command ended is not examined: *status is 0, or
// the errno of removing the file that "/bin/curl" has uploaded.
int vestra_system_exec_argv(int *status, const char *program, int argc, ...);

// Moves a file with /bin/mv. Returns 0: a move that fails goes unnoticed.
int vestra_rename(const char *from, const char *to);

/* ------------------------------ Capture chain ------------------------------ */

// New node with a block for `len` bytes, in *node; `size` is not set. Returns `len`, or -1 (and *node null) without
// memory.
int vestra_get_node(circ_buf_s **node, int len);

// Frees *node and its block; *node keeps its value. Always 0.
int vestra_free_node(circ_buf_s **node);

// Frees the chain and clears file_complete_flag and gtotal_bytes. The caller holds `lock` where others still run.
void free_bufs(circ_buf_s **head);

// Frees the per-process memory list from *head along next and sets *head to null. The caller keeps others away.
void free_bufs_shm(circ_buf_shm **head);

// Reads one block from `fd`, decodes it, appends it to *head and drops the oldest blocks beyond max_file_size. 0 when
// done (also when there was nothing to read), -1 when the device or memory fails; the chain is intact then. Reader
// thread; takes `lock`.
int read_data(circ_buf_s **head, int fd, unsigned int *total);

// Body of the thread "QXReadData". The argument is not used. Returns null.
void *thread_read_func(void *arg);

/* ------------------------------ Dump writer ------------------------------ */

// Writes the chain at *head as a dump file into directory `dir`, named after the part of `name` behind its last '/',
// and `pid`. 0 or positive when done; -1 on failure, which leaves the chain and the temporary file; 0 without writing
// when a continuous reason finds less than max_file_size of new data. Takes `lock` while it writes the chain's bytes.
int write_data(circ_buf_s **head, const char *dir, const char *name, int pid, _vestra_write_reason reason);

// Writes the version trailer to `fd`. 0, or negative with a message; nothing is written behind a write that failed.
int append_image_version(int fd);

// Uploads `size` bytes as one file to the configured server, and removes the file. 0 (also when live upload is off), or
// -1. Nothing in the daemon calls it. The caller keeps `data` alive; not for two threads at once.
int send_live_data(unsigned char *data, unsigned int size);

/* ------------------------------ Triggers (main loop's thread) ------------------------------ */

// Waits for a full chain (up to 250 s) and writes a user-key dump to USB.
void Handler_Cb(_KeyComb combination, void *user_data);

// Shows `text` as a notice on debug images with notices on. 0, also when notices are off; -1 when the service fails.
int vestra_Display_GlobalNotification(std::string text);

// DOD key: keeps its value in dod_mode_flag; 1 also makes the DOD folder on USB.
void dod_vconf_notify_cb(keynode_t *key, void *user_data);

// Robustness key "DIR|NAME|PID": an immediate dump into DIR.
void robustness_vconf_notify_cb(keynode_t *key, void *user_data);

// History trigger key: 1 refills the process history database. Takes `lock` for the whole fill.
void callbackSHMdbpop(keynode_t *key, void *userData);

// Memory-drop key: bit 0x100 without the fault agent's policy file ends the process with SIGKILL.
void __scenario_manager_tv_memory(keynode_t *node, void *data);

/* ------------------------------ Driver user data ------------------------------ */

// Sends one user-data command with a text payload ("c-COMMAND-LENGTH-DATA") or an integer one ("c-COMMAND-4-VALUE").
// One write a command; failures are logged only. `length` above 256 is refused.
void write_userdata(int command, char *data, int length);
void write_userdata_func(int command, int value);

// Body of the thread "QXUserDataHndl": sends the temperature once a second until exit_flag. Returns null.
void *thread_userdata_func(void *arg);

// Loads the process list when one is there, removes it, and sends the filter to the module. The overload handles one
// new file of the list directory: the list is taken, any other file removed.
void updateFilterProcessNames();
void updateFilterProcessNames(const char *name);

// Body of the thread "QXProcess": watches the list directory. Never returns.
void *thread_user_process_func(void *arg);

/* ------------------------------ Probes ------------------------------ */

// "/platform/soc/thermal/" in a new block in *dir (an old one is freed; the caller frees it). 0, or -1 without that
// directory.
int vestra_get_thermal_dir(char **dir);

// Sets temperature_file_name. 0 or -1.
int vestra_get_temperature_file_path();

// Temperature in degrees C into *temperature (-1 on failure); logs an alarm above 125. 0 or -1.
int vestra_get_temperature(int *temperature);

// Whole seconds since boot; 0 when it cannot be read.
unsigned long vestra_get_system_uptime();

// First line of a small file, line end included, at most 256 characters, in a new block in *data (an old one is freed;
// the caller frees it). 0, or -1 with *data null.
int vestra_get_file_data(const char *path, char **data);

// Every decimal digit of `text`, in order, as one number; wraps modulo 2^32. "-5" gives 5, "45.5" gives 455.
int fastAtoI(char *text);

// Temperature of one type into *temperature. Non-zero when read; 0 and kTemperatureFailed otherwise.
int GetTemperature(TEMP_TYPE type, int *temperature, int reserved);

// Refresh rate of one DDR channel: the first whole number behind "refresh rate" on its line in the file, into *rate. 1,
// or 0 when there is no file, no such line, or a number that cannot be converted.
int m_CheckDDRRefreshRate(const std::string &path, int *rate);

// Refresh rates of up to four DDR channels, four bits a channel, into *rates (may be null), and a text for people. 1,
// or 0 and "Unknown" when no channel answers.
int GetDdrTemperature(std::string &description, unsigned int *rates);

/* ------------------------------ Start and stop ------------------------------ */

// Handler of SIGRTMIN+6: sets exit_flag and quits the main loop.
void exit_handler(int signo);

// main() of the library build (vestra_daemon); the program's own main is the same function.
int vestrad_main(int argc, char **argv);
