// vestrad.h -- the daemon's core: start-up, capture and dump, triggers, driver user data and probes.
//
// The sections follow the divisions of vestrad.cpp. Unless a comment says otherwise, an operation may be called on any
// thread and takes no lock.
#pragma once

#include <glib.h>
#include <pthread.h>

#include <cstdint>
#include <string>

#include "platform/key_combination.h"
#include "platform/vconf.h"
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

// The kind of image that m_UpdateImageType found: at most one flag is 1.
struct image_type_flags {
    uint8_t debug;
    uint8_t release;
    uint8_t perf;
};

constexpr int kPathSize = 256;              // bytes of every path buffer that crosses a function boundary
constexpr int kTemperatureFailed = -65535;  // GetTemperature's value for "no reading"

/* ------------------------------ State ------------------------------ */
// Unit, writer and guard of each are at the definitions in vestrad.cpp.

extern int32_t exit_flag;
extern GMainLoop *g_loop;
extern uint32_t max_file_size;
extern int32_t sleep_time_usec_buf, sleep_time_sec_file, sleep_time_live_file;
extern int32_t max_number_of_files;
extern char process_name[kPathSize];
extern char VESTRA_CONFIG_FILE[96];
extern int32_t g_chip_type;
extern VestraConfig_t g_vestra_config;
extern image_type_flags m_image_type;
extern pthread_t client_thread, thread_for_userdata, thread_for_process_names, thread_read_hndl;
extern int32_t key_handling_flag, fault_handling_flag, dod_mode_flag;

extern pthread_mutex_t lock;  // guards the chain; taken before shm_lock where both are held
extern circ_buf_s *ghead_s;
extern uint32_t gtotal_bytes;
extern uint32_t g_current_new_data;
extern int32_t file_complete_flag;

extern int32_t g_cnt_of_files;
extern char g_prev_file_path[kPathSize];
extern char g_prev_usb_path[kPathSize];
extern int32_t g_prev_usb_path_valid;

extern char temperature_file_name[kPathSize];
extern int inotify_fd, inotify_wd;

/* ------------------------------ Image type and small files ------------------------------ */

// 1 when the marker file ("/etc/debug", "/etc/perf", "/etc/release") exists, else 0.
int CheckIfDebugImage();
int CheckIfPerfImage();
int CheckIfReleaseImage();
int CheckIfNotReleaseImage();

// Sets the flag of the first readable marker (debug, perf, release) in m_image_type. 0, or the last result of access()
// when no marker is readable.
int m_UpdateImageType();

// 1 when `path` may be opened: it is not a symbolic link. A missing file passes; the open that follows fails. 0 with a
// message for a null path, a link, or an lstat error other than ENOENT.
int checkForRealPath(const char *path);

// Reads the file's first decimal integer into *value, clamped to 32 bits. 1, or 0 with a message and *value untouched.
int FileReadOneInt(const char *path, int *value);

// Reads the file's first line, without its line end, into `text`. 1, or 0 with a message; `text` is then empty if the
// file could be opened and untouched if not. Follows links.
int FileReadOneString(const char *path, std::string &text);

/* ------------------------------ Kernel module and control node ------------------------------ */

// Sleeps `usec` microseconds; a signal ends the sleep early. Negative values return at once.
void vestrad_usleep(int usec);

// Loads or unloads the kernel module and waits up to about 4 s for the control node to appear or vanish. 0, or -1 when
// the service refuses. Kept as it stands: a node that never changes counts as success, see wait_for_node().
int loadVestraDriver(void);
int unloadVestraDriver(void);

// Opens `path` with up to 21 attempts, with a pause of 200 ms after each failed one (4.2 s in all). A close-on-exec
// descriptor that the caller owns, or the last negative result.
int vestra_open(const char *path, int flags);

// Runs `command` with /bin/sh and waits. The raw wait status ("exit 3" gives 768), or -1.
int runShell(const char *command);

// Asks the system-information service for the chipset, sets g_chip_type and prints the chip's name. Keeps g_chip_type
// when there is no answer. Returns the code.
int get_chip_type_from_config(void);
int vestra_chip_type(void);

/* ------------------------------ Output location ------------------------------ */

// 0 when `path` is a directory, else -1 with a message. `size` is not used.
int check_path_int(const char *path, int size);

// Waits until `path` is a directory: `retries` (below 1: 40) + 1 tests, 1 s after each failed one. 0 or -1.
int check_path(char *path, int size, int retries);

// Writes the mount path of the first mass-storage device into `buf`. 0, or -1 with a message.
int search_usb_device_path(char *buf, int size);

// Writes the USB output directory into `buf` (`size` bytes); `buf` may be the cache itself. 0 or -1. A directory found
// for the first time is only cached and `buf` stays as it is: the caller's next call gets it. get_usb_path_int looks
// once, get_usb_path `retries` (below 1: 40) + 1 times with 1 s after each failed one, so that it can block for
// minutes. get_usb_path returns -1 at once on a release image.
int get_usb_path_int(char *buf, int size, int retries);
int get_usb_path(char *buf, int size, int retries);

// Runs `program` without a shell and waits for it. `argc` strings follow (2 or 3; each is cut to 255 characters). The
// child's id, or a negative value when fork fails. The command's own exit status is not examined: *status is 0, or the
// errno of removing the file that "/bin/curl" has uploaded.
int vestra_system_exec_argv(int *status, const char *program, int argc, ...);

// Moves a file with /bin/mv. Always 0: nobody notices when a move fails.
int vestra_rename(const char *from, const char *to);

/* ------------------------------ On-screen notice ------------------------------ */

// Shows `text` as a notice, on debug images with notices on. 0, also when nothing is shown; -1 when the service fails.
int vestra_Display_GlobalNotification(std::string text);

/* ------------------------------ Capture chain ------------------------------ */

// Allocates a node with a block for `len` bytes; its `size` is not set. `len`, or -1 with *node null without memory.
int vestra_get_node(circ_buf_s **node, int len);

// Frees *node and its block; *node keeps its value. Always 0.
int vestra_free_node(circ_buf_s **node);

// Frees the chain and clears file_complete_flag and gtotal_bytes. The caller holds `lock` while other threads run.
void free_bufs(circ_buf_s **head);

// Frees the per-process memory list from *head along next and sets *head to null. The caller keeps other users away.
void free_bufs_shm(circ_buf_shm **head);

// Reads one block from `fd`, decodes it, appends it to *head and drops the oldest blocks beyond max_file_size. 0, also
// when there was nothing to read; -1 when the device or memory fails, and the chain is intact. Reader thread, `lock`.
int read_data(circ_buf_s **head, int fd, unsigned int *total);

/* ------------------------------ Dump writer ------------------------------ */

// Writes the version trailer to `fd`. 0, or negative with a message; nothing is written after a failed write.
int append_image_version(int fd);

// Writes the chain at *head as a dump into directory `dir`. The file's name holds the part of `name` after its last
// '/', and `pid`. 0 or positive; 0 also, without writing, when a continuous reason finds less than max_file_size of new
// data; -1 on failure, which leaves the chain and the temporary file. Takes `lock` while it writes the chain's bytes.
int write_data(circ_buf_s **head, const char *dir, const char *name, int pid, _vestra_write_reason reason);

/* ------------------------------ Live upload ------------------------------ */

// Uploads `size` bytes as one file to the configured server and removes the file. 0, also when live upload is off, or
// -1. Nothing in the daemon calls it. The caller keeps `data` alive; one thread at a time.
int send_live_data(unsigned char *data, unsigned int size);

/* ------------------------------ Reader thread ------------------------------ */

// Body of the thread "QXReadData". The argument is not used. Returns null.
void *thread_read_func(void *arg);

/* ------------------------------ Triggers ------------------------------ */
// All on the main loop's thread.

// Waits for a full chain (up to 250 s) and writes a user-key dump to USB.
void Handler_Cb(_KeyComb combination, void *user_data);

// DOD key: keeps its value in dod_mode_flag; 1 also makes the DOD folder on USB.
void dod_vconf_notify_cb(keynode_t *key, void *user_data);

// Robustness key "DIR|NAME|PID": writes a dump into DIR at once.
void robustness_vconf_notify_cb(keynode_t *key, void *user_data);

// History trigger key: 1 refills the process history database. Takes `lock` for the whole fill.
void callbackSHMdbpop(keynode_t *key, void *userData);

// Memory-drop key: bit 0x100 ends the process with SIGKILL unless the fault agent's policy file exists.
void __scenario_manager_tv_memory(keynode_t *node, void *data);

/* ------------------------------ Temperature probes ------------------------------ */

// Sets *dir to a new block with "/platform/soc/thermal/", which the caller frees, and frees the old block. 0, or -1
// when there is no such directory.
int vestra_get_thermal_dir(char **dir);

// Sets temperature_file_name. 0 or -1.
int vestra_get_temperature_file_path();

// Every decimal digit of `text`, in order, as one number modulo 2^32. "-5" gives 5, "45.5" gives 455.
int fastAtoI(char *text);

// The first line of a small file, line end included, at most 256 characters, in a new block in *data; frees the old
// block, the caller frees the new one. 0; -1 with *data null, or untouched when the path is refused.
int vestra_get_file_data(const char *path, char **data);

// Whole seconds since boot; 0 when they cannot be read.
unsigned long vestra_get_system_uptime();

// Degrees C into *temperature (-1 on failure); logs an alarm above 125. 0 or -1.
int vestra_get_temperature(int *temperature);

// The temperature of one type into *temperature. Non-zero; 0 with kTemperatureFailed when it cannot be read.
int GetTemperature(TEMP_TYPE type, int *temperature, int reserved);

// The refresh rate of one DDR channel into *rate: the first whole number after "refresh rate" on its line of the file.
// 1, or 0 when there is no file, no such line, or no number that fits.
int m_CheckDDRRefreshRate(std::string &path, int *rate);

// The refresh rates of up to four DDR channels, four bits a channel, into *rates (may be null), and a text for people.
// 1, or 0 and "Unknown" when no channel answers.
int GetDdrTemperature(std::string &description, unsigned int *rates);

/* ------------------------------ Driver user data ------------------------------ */

// Send one user-data command with one write: a text ("c-COMMAND-LENGTH-DATA") or an integer ("c-COMMAND-4-VALUE").
// Failures are only logged. A `length` above 256 is refused.
void write_userdata(int command, char *data, int length);
void write_userdata_func(int command, int value);

// Body of the thread "QXUserDataHndl": sends the temperature once a second until exit_flag. Returns null.
void *thread_userdata_func(void *arg);

/* ------------------------------ Process filter list ------------------------------ */

// Loads the process list if there is one, removes it, and sends the filter to the module. The overload handles one new
// file of the list directory: it loads the list and removes any other file.
void updateFilterProcessNames();
void updateFilterProcessNames(const char *name);

// Body of the thread "QXProcess": watches the list directory. Never returns.
void *thread_user_process_func(void *arg);

/* ------------------------------ Start-up, main, shut-down ------------------------------ */

// Handler of SIGRTMIN+6: sets exit_flag and quits the main loop.
void exit_handler(int signo);

// main() of the library build (vestra_daemon); the program's main is the same function.
int vestrad_main(int argc, char **argv);
