// decoder.h -- the trace decoder and what it keeps: vitals ring, CPU history, memory list, history database.
//
// Unless a comment says otherwise, everything runs on the reader thread ("QXReadData") without a lock, and times are in
// nanoseconds. CPU counters are clock ticks, 250 a second on each of 4 cores. The sections follow the divisions of
// decoder.cpp. The wire format is in trace/trace_format.h, how percentages are computed in trace/percentages.h.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/vestra_api.h"
#include "trace/percentages.h"
#include "trace/trace_format.h"

struct sqlite3;

/* ------------------------------ Limits ------------------------------ */

using trace::kCoreCount;
using trace::kFrameMax;

constexpr int kSlotCount = 180;           // seconds that the vitals ring holds
constexpr int kVitalCount = 17;           // doubles of a slot that a packet type names
constexpr int kCpuSampleCount = 500;      // samples of total CPU usage that an average covers
constexpr int kHistRecords = 0x8000;      // records of the CPU history that are used
constexpr int32_t kListLimit = 204800;    // accounted bytes of the per-process memory list
constexpr int32_t kListNodeCharge = 20;   // accounted bytes of a node, without its two texts
constexpr uint32_t kFlagSwitch = 0x80;    // the slot holds a switch sample
constexpr uint32_t kFlagMeminfo = 0x100;  // the slot holds a CPU and memory sample

/* ------------------------------ Records ------------------------------ */

// Result of one varint read, and of a frame or message decoder.
struct retIntStruct {
    int32_t status;  // 0: read. The caller presets -1, which a failed read leaves as it is
    int32_t length;  // bytes consumed: 1 to 10 for a varint, the body for a message, 0 for a frame
    uint64_t value;  // the number; preset all ones
};

// Result of one byte-string read.
struct retCharStruct {
    int32_t status;  // 0: read; preset -1
    int32_t length;  // bytes consumed: with the terminator of a terminated string, without the count of a counted one
    char *data;      // heap block that the caller owns and frees; null when there is none
};

// One decoded sample, and one slot of the vitals ring.
struct _SYSDATA_ {
    int64_t timestamp;                // 0    of the latest sample in the slot
    int64_t switch_timestamp;         // 8    of the switch sample
    int64_t aux_time;                 // 16   always 0
    int32_t element1;                 // 24   as carried by the switch message
    int32_t pid;                      // 28   above 0: the process that the CPU history is updated for
    int64_t cpu_time_a;               // 32   ticks, first counter of the process
    int64_t cpu_time_b;               // 40   ticks, second
    int64_t utime[kCoreCount];        // 48   ticks since start, per core
    int64_t stime[kCoreCount];        // 80
    int64_t idletime[kCoreCount];     // 112
    int64_t temperature[kCoreCount];  // 144  degrees C
    int64_t iowaittime[kCoreCount];   // 176  ticks since start
    // The seventeen vitals. A packet type is the place in this row; read it with vital().
    double element10;                     // 208  type 0
    double element11;                     //      1
    double cpu_total_percent;             //      2
    double cpu_system_percent;            //      3
    double cpu_user_percent;              //      4
    double core_temperature[kCoreCount];  //      5 to 8
    double avg_temperature;               //      9
    double iowait_percent;                //      10
    double meminfo[6];                    // 296  11 to 16: three decimal figures, three plain ones
    uint32_t flags;                       // 344  kFlagSwitch, kFlagMeminfo
};
static_assert(offsetof(_SYSDATA_, element1) == 24 && offsetof(_SYSDATA_, utime) == 48, "the layout is fixed");
static_assert(offsetof(_SYSDATA_, element10) == 208, "the layout is fixed");
static_assert(offsetof(_SYSDATA_, core_temperature) == 208 + 5 * sizeof(double), "the vitals are one row");
static_assert(offsetof(_SYSDATA_, meminfo) == 208 + 11 * sizeof(double), "the vitals are one row");
static_assert(offsetof(_SYSDATA_, flags) == 208 + kVitalCount * sizeof(double), "the vitals are one row");

// One statistic over a window.
struct _VestraData_ {
    double maximum, minimum, average, variance;
};
static_assert(sizeof(_VestraData_) == 4 * sizeof(double), "the layout is fixed");

// A process id in a record of the CPU history: an int32_t that notes when one is made or changed.
//
// The history's functions remember, for each home index, the greatest distance of a process from it. A search ends
// there, not after all 32,768 records. Whoever fills a record directly may put its process farther away, so after that
// the next search that finds nothing measures the table and goes on. The distances never become smaller: a table that
// was copied away and back is searched far enough, even if memcpy did it.
class HistoryPid {
  public:
    HistoryPid(int32_t pid = 0) : pid_(pid) { any_changed = true; }
    HistoryPid(const HistoryPid &other) : HistoryPid(other.pid_) {}
    HistoryPid &operator=(const HistoryPid &other) {
        any_changed = any_changed || pid_ != other.pid_;
        pid_ = other.pid_;
        return *this;
    }
    operator int32_t() const { return pid_; }

    // For the history's own functions, which know where the record is.
    void place(int32_t pid) { pid_ = pid; }

    inline static bool any_changed = false;

  private:
    int32_t pid_;
};

// The last sample that a process's CPU usage was computed from, and that usage.
struct __VestraProcCPUUsageHist__ {
    int64_t timestamp;
    HistoryPid pid;        // reads and assigns like an int32_t; -1: the record was never used
    int32_t element1;      // of the sample when the slot writer stored it, else -1
    int64_t cpu_time_a;    // ticks
    int64_t cpu_time_b;    // ticks
    double total_percent;  // of all cores, from both counters, over the last interval
    double percent_a;
    double percent_b;
    std::string name;  // empty: the record may be used for another process
};

// One per-process sample of a switch message.
struct process_mem {
    int64_t timestamp;
    int32_t pid;
    std::string name;  // at most 14 bytes
    int32_t rss;       // memory figures as the frame carries them
    int32_t swap;
};

// Node of the per-process memory list. Owned by the list; made with new.
struct circ_buf_shm {
    std::string timestamp;  // decimal
    int32_t pid;
    std::string name;
    int32_t rss;
    int32_t swap;
    double cpu;          // percent
    circ_buf_shm *next;  // older; null at the tail
    circ_buf_shm *prev;  // newer; null at the head
};

/* ------------------------------ State ------------------------------ */
// Unit, writer and guard of each are at the definitions in decoder.cpp.

extern retIntStruct retIs, utimeIs, stimeIs, idletimeIs, temperatureIs, iowaittimeIs;
extern retCharStruct retCs;

extern __VestraProcCPUUsageHist__ gProcCpuUsageHist[kHistRecords + 1];

extern pthread_mutex_t shm_lock;  // guards the list; taken after `lock` where both are held
extern circ_buf_shm *ghead_shm, *last_node;
extern int32_t shm_list_size;

extern _SYSDATA_ collectedData[kSlotCount];
extern int64_t timestampToIndex[kSlotCount], indexToTimestamp[kSlotCount];
extern int32_t last_index, valid_index, pos;
extern int64_t maxTimeValue;
extern int32_t maxTimeIndex;
extern double g_CPUTotalPer[kCpuSampleCount];
extern int32_t g_CPUSampleCnt, g_CPUValidSample;
extern double g_CPUTotalPercent;

extern unsigned char frameData[kFrameMax + 1];

extern sqlite3 *db;
extern char *dbPath;
extern const char *sql;
extern char *zErrMsg;

/* ------------------------------ Field readers ------------------------------ */
// None reads at or beyond `frame_len`. A failed read leaves *ret as it is and logs a warning.

using trace::covert_intfrac_double;
using trace::get_frame_len;

// Presets a result: a retIntStruct when `kind` is 0, else a retCharStruct.
void initiailizeRet(int kind, void *ret);

// Does nothing; the caller frees a result's block.
void deallocateRetStruct(int kind, void *ret);

// Length of a zero-terminated string.
int getBufLen(char *text);

// The varint at `offset`: at most 10 bytes, bits beyond 64 are lost.
void get_unpackedInt(int frame_len, int offset, char *frame, retIntStruct *ret);

// The zero-terminated string at `offset`, in a zero-filled block of 20 bytes: its first 19 bytes are kept.
void get_unpackedBytes(int frame_len, int offset, char *frame, retCharStruct *ret);

// The `count` bytes at `offset`, in a block of that size without a terminator. A count below 1 fails without a message.
void get_unpackedBytesWithLength(int frame_len, int offset, char *frame, int count, retCharStruct *ret);

/* ------------------------------ CPU history ------------------------------ */
// An open-addressing table. A process's home index is pid & 0x7fff; the indices after it follow. There is no pid -1.

// Makes all records unused. Always 0.
int vesrta_hash_init_hist();

// The index of a record for `pid`: an unused one, which gets the pid, or one without a name. -1 when there is none.
int vesrta_gethash_hist(int pid);

// The index of `pid`'s record, or -1 when there is none or it has no name. The second copies it into *out unless null.
int vesrta_checkhash_hist(int pid);
int vesrta_get_process_data_hist(int pid, int unused, __VestraProcCPUUsageHist__ *out);

// Stores *rec under its pid. The index, or -1 (null, pid -1, or, with an error line, a full table).
int vestra_vital_update_cpuusage_hist(__VestraProcCPUUsageHist__ *rec);

/* ------------------------------ Per-process memory list ------------------------------ */

// Decimal text of `value`. Any thread.
std::string ToString(long long value);

// A new node from the record, not linked; the caller owns it. Throws std::bad_alloc without memory.
circ_buf_shm *GetShmNode(process_mem *record, double cpu);

// Links a node at the list's head and drops the oldest nodes while the list is beyond kListLimit. The list then owns
// the node. Takes shm_lock.
void insert_node(circ_buf_shm *node);

/* ------------------------------ Vitals store ------------------------------ */
// The reader thread writes it, the client thread ("QXClientProcess") reads it without a lock: that thread may see a
// slot in the middle of an update, but never uses an index out of range.

// The vital that a packet type of 0 to 16 names. Any thread.
double vital(const _SYSDATA_ &slot, unsigned type);

// Empties ring, samples and CPU history. Once, before the threads start.
void init_collected_data();

// Writes a sample into `slot` (0 to 179). The slot of the newest complete second: `slot` if it holds switch data, else
// last_index, which is the result for a wrong slot or frame type, too.
int fillData(int slot, _SYSDATA_ *sample, int frame_type, int message_type);

// Sets valid_index to the oldest slot of the unbroken run of switch samples that ends at last_index. Reader and client.
void find_valid_index();

// Computes the percentages and temperatures of the slots from valid_index to last_index.
void calculateCPUAvgValues();

// Stores a sample of frame type 7 or 8. Refuses one with a negative time stamp with an error line.
void groupData(_SYSDATA_ *sample, int frame_type, int message_type);

// Logs all slots at priority 4. Any thread.
void printCollectedData();

/* ------------------------------ Window statistics ------------------------------ */
// Client thread. The window holds the slots, from the one of `end` back to valid_index, whose time stamp is at most
// `window` seconds before `end`.

// -1.0 when the window is empty. The minimum skips values of 0 and below unless they come first.
double calculateMax(int type, int window, long long end);
double calculateMin(int type, int window, long long end);

// Of the values above 0; NaN when there are none. The variance is the population's.
float calculateAvg(int type, int window, long long end);
float calculateVariance(int type, int window, long long end);

// Fills *out; window 0 gives the value in `slot` (0 to 179). Logs a type that is not 0 to 16 and leaves *out as it is.
void getTypeResult(_VestraData_ *out, int type, int window, long long end, int slot);

// The same with the request's own type and window, into its four figures.
void getResult(vestra_api_data *req, long long end, int slot);

// Answers requests. A `count` of 1 or less: request 0. More: request t for each type t in the array, which is therefore
// indexed by packet type; refuses a type of `count` or more.
void process_request(vestra_api_data *reqs, int count);

// Answers each request as process_request answers a single one, with the same log lines, but looks for the start of the
// run only once and walks the ring only once for each window.
void answer_requests(vestra_api_data (&reqs)[VESTRA_API_VITALS]);

/* ------------------------------ Message decoders ------------------------------ */

// Decode the message whose body begins at `offset` and store it. *ret gets status 0 and the length of the body. A
// message that cannot be read leaves *ret as it is and stores nothing. The switch decoder takes shm_lock.
void decode_switchFrame(int frame_type, int frame_len, int offset, char *frame, int message_type, int core_id,
                        retIntStruct *ret);
void decode_cpumeminfoFrame(int frame_type, int frame_len, int offset, char *frame, int message_type, int core_id,
                            retIntStruct *ret);

/* ------------------------------ Walkers ------------------------------ */

// Walk the messages of a frame of type 7 or 8. `file_index` is the frame's offset in its block, for messages only. *ret
// gets status 0 and length 0 after a walk to the frame's end, else status -1; a frame refused for its header leaves it
// untouched. decode_frame ignores other types, decode_frame_8 reports them.
void decode_frame(int frame_len, char *frame, int file_index, retIntStruct *ret);
void decode_frame_8(int frame_len, char *frame, int file_index, retIntStruct *ret);

// Walks one block of `total` bytes and stores what it finds. Returns the type (signed first byte) of the last frame of
// two bytes or more, -1 when there was none. Does not change `buf`.
int decode_file(unsigned char *buf, unsigned int total);

/* ------------------------------ History database ------------------------------ */
// Main thread. Logs every failure and retries nothing.

// Sets the trigger key "memory/SHM/trigger_db_write" to 0. Any thread.
void set_shm_default_vconf();

// Kept as they stand: 0 also when the database cannot be opened, closed or changed. Only the log tells.
int openDB();
int closeDB();
int createTables();

// Resets the trigger key, sets dbPath and makes the table again, empty. Always 0.
int ProcessDbInit();

/* ------------------------------ Database fill ------------------------------ */

// Main thread. Replaces the table's rows by the list's samples, newest first, and then resets the trigger key; after a
// failure the key keeps its value. The caller holds `lock`; takes shm_lock for the whole of the writing. Always 0.
int Process_Info_fill();
