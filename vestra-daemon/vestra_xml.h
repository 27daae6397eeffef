// vestra_xml.h -- the configuration record and the file that fills it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int kFilterNameSlots = 6;   // names of the process filter
constexpr int kFilterNameSize = 128;  // bytes of each
constexpr int kFilterPids = 6;        // process ids of the process filter
constexpr int kExtfilePathSize = 256;

// The configuration record. There is one instance, g_vestra_config (vestrad.h). The layout is fixed, because other
// programs of the set address the fields directly. Filled on the main thread at start-up; the process-list thread
// changes the filter fields later.
struct VestraConfig_t {
    int32_t cont_data_collect;              // 1: continuous collection, a dump file each interval
    int32_t no_of_files;                    // continuous dump files kept
    int32_t max_file_size;                  // MiB, limit of one dump file; clamped to 1..10 at start-up
    int32_t user_notification_on;           // non-zero: on-screen notice when a dump is taken
    int32_t vestra_diskio_read_enable;      // non-zero: the module traces disk reads
    int32_t vestra_diskio_write_enable;     // non-zero: the module traces disk writes
    int32_t live_data_collect;              // 1: live upload on
    int32_t vestra_unique_id;               // identifies the set in a live upload
    int32_t vestra_kmod_load_unload;        // non-zero: load the module at start, unload it at exit
    int32_t min_time_diff_dump;             // s, robustness dumps are copied to USB at most once in this time
    int32_t vestra_litemode_on;             // non-zero: keep only blocks that end in a switch or CPU/memory frame
    int32_t vestra_info_raise_priority;     // non-zero: change the niceness at start
    int32_t vestra_info_new_priority_nice;  // nice increment, -20..0; anything else means -20
    char vestra_extfile_path_id[kExtfilePathSize];        // live upload target; unterminated if all 256 bytes are text
    char vestra_extfile_path_other_id[kExtfilePathSize];  // the same for a second target, which is only logged
    int32_t vestra_proc_filter_enable_num;                // names in the filter list (its number of lines)
    int32_t vestra_proc_filter_pname_valid;               // 1 once a name was loaded
    char vestra_proc_filter_pname[kFilterNameSlots][kFilterNameSize];  // names; a slot may be unterminated
    int32_t vestra_proc_filter_pid_num;                                // non-zero: filter by id instead of by name
    int32_t vestra_proc_filter_pid[kFilterPids];                       // ids; nothing in the daemon fills them
};
static_assert(sizeof(VestraConfig_t) == 1368, "the record's size is fixed");
static_assert(offsetof(VestraConfig_t, vestra_extfile_path_id) == 52, "the record's layout is fixed");
static_assert(offsetof(VestraConfig_t, vestra_proc_filter_enable_num) == 564, "the record's layout is fixed");
static_assert(offsetof(VestraConfig_t, vestra_proc_filter_pid) == 1344, "the record's layout is fixed");

// Reads the XML file `path` into `config`. Returns 0 when it has every element; -1 when the file cannot be loaded, has
// no root "vestra_config", or lacks an element. Elements are read in a fixed order and reading stops at the first one
// that is missing: fields stored before it keep their new values. Logs every value; prints one line when the file
// loads. Main thread, no lock.
int GetVestraConfigInfo(VestraConfig_t &config, char *path);

// The decimal digits of `text` as one number modulo 2^32. Skips every other character with a warning, so there is no
// sign. Null and empty give 0. Any thread.
int ToInt(const char *text);
