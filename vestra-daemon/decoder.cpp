// decoder.cpp -- the trace decoder and what it keeps.
//
// Divisions, in order:
//    1 Limits and seconds        what a time's second is, as slot and as text
//    2 Field readers             one varint or string, with its log line
//    3 CPU history               the last sample of each process, by process id
//    4 Per-process memory list   samples of processes, newest first, within a byte budget
//    5 Vitals store              a ring of 180 seconds, and the percentages derived from it
//    6 Window statistics         what clients ask of the ring
//    7 Message formats           the log texts of trace_format.h's element tables
//    8 Message decoders          one message into 3, 4 and 5
//    9 Walkers                   the messages of a frame, the frames of a block
//   10 History database          file, table and trigger key
//   11 Database fill             the memory list into the table
// The wire format is in trace/trace_format.h, how percentages are computed in trace/percentages.h.
//
// A block enters at decode_file (9), which copies one frame after the other into frameData and walks the messages. A
// message is read as a whole (8) before anything is stored: CPU history (3), memory list (4), then the ring (5).
//
// Threads: the reader thread runs 1 to 5 and 7 to 9; the client thread runs 6 and, from there, find_valid_index (5);
// the main thread runs 10 and 11, and init_collected_data (5) before the others start. Without memory the reader thread
// also runs set_shm_default_vconf (10). Functions without state (slot_of, vital, ToString) run on any thread. The
// client thread reads the ring without a lock and checks each index that it takes from it. Lock order: `lock`
// (vestrad.cpp), then shm_lock. Counters come from outside: their sums, differences and products wrap.

#include "vestra-daemon/decoder.h"

#include <sqlite3.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>

#include "platform/vconf.h"
#include "vestra-daemon/vestra_log.h"

using namespace trace;

extern int32_t exit_flag;  // vestrad.cpp; 1: the daemon stops

/* ------------------------------ 1. Limits and seconds ------------------------------ */

static constexpr int kTerminatedKept = 20;                // bytes of a terminated string's block, terminator included
static constexpr int64_t kStaleAfter = 8 * kNsPerSecond;  // a slot that is older than this belongs to the previous lap

// Slot of a time: its whole seconds, rounded toward zero, modulo 180. A time before 0 counts back from the ring's end.
static int slot_of(int64_t time) {
    const auto slot = static_cast<int>(time / kNsPerSecond % kSlotCount);
    return slot < 0 ? slot + kSlotCount : slot;
}

// What all times of one second have in common. Computed once for each second that samples come from, because it takes
// 64-bit divisions, for which a 32-bit set has no instruction.
struct SampleSecond {
    int64_t start;  // ns
    int slot;
    size_t digits;  // of `text`; 0 for second 0, in which the text of a time has only the nanoseconds
    char text[10];  // the second's number, at most 9223372036
};

// The second of a time that is not negative; valid until the next call. Reader thread.
static const SampleSecond &sample_second(int64_t time) {
    static SampleSecond second = {};
    const uint64_t since = static_cast<uint64_t>(time) - static_cast<uint64_t>(second.start);
    if (since < static_cast<uint64_t>(kNsPerSecond)) return second;
    const int64_t number = time / kNsPerSecond;
    second.start = number * kNsPerSecond;
    second.slot = slot_of(time);
    const char *end = number > 0 ? std::to_chars(second.text, std::end(second.text), number).ptr : second.text;
    second.digits = static_cast<size_t>(end - second.text);
    return second;
}

/* ------------------------------ 2. Field readers ------------------------------ */

// The last results of the walkers and of the message decoders. Reader thread.
retIntStruct retIs;                                                      // a message's type, then its body
retIntStruct utimeIs, stimeIs, idletimeIs, temperatureIs, iowaittimeIs;  // the five figures of the last core
retCharStruct retCs;  // the last byte string that could not be read; others are used in place

void initiailizeRet(int kind, void *ret) {
    if (kind != 0) {
        *static_cast<retCharStruct *>(ret) = {-1, -1, nullptr};
    } else {
        *static_cast<retIntStruct *>(ret) = {-1, -1, ~uint64_t{0}};
    }
}

void deallocateRetStruct(int /*kind*/, void * /*ret*/) {}

int getBufLen(char *text) {
    return static_cast<int>(strlen(text));
}

static inline const unsigned char *bytes_at(const char *frame, int offset) {
    return reinterpret_cast<const unsigned char *>(frame) + offset;
}

void get_unpackedInt(int frame_len, int offset, char *frame, retIntStruct *ret) {
    const int left = offset < 0 || offset >= frame_len ? 0 : frame_len - offset;
    const unsigned char *start = bytes_at(frame, left > 0 ? offset : 0);
    const Varint number = take_varint(start, start + left);
    if (number.next != nullptr) {
        *ret = {0, static_cast<int32_t>(number.next - start), number.value};
        return;
    }
    int examined = 0;  // up to the number's last byte, or the frame's
    while (examined < left) {
        if (start[examined++] < 0x80) break;
    }
    LOGW("vestra : Corrupted at frame_index:%d, frame_len:%d, offset:%d \n", offset, frame_len, examined);
}

// Offset, frame length, bytes copied, and those bytes.
#define STRING_CORRUPTED "vestra : Corrupted at frame_index:%d, frame_len:%d, offset:%d , comm: %s \n"

void get_unpackedBytes(int frame_len, int offset, char *frame, retCharStruct *ret) {
    auto *text = static_cast<char *>(calloc(kTerminatedKept, 1));
    if (text == nullptr) return;
    const int left = offset < 0 || offset >= frame_len ? 0 : frame_len - offset;
    for (int i = 0; i < left; ++i) {
        const char byte = frame[offset + i];
        if (byte == '\0') {
            *ret = {0, i + 1, text};
            return;
        }
        if (i < kTerminatedKept - 1) text[i] = byte;
    }
    LOGW(STRING_CORRUPTED, offset, frame_len, left, text);
    free(text);
}

void get_unpackedBytesWithLength(int frame_len, int offset, char *frame, int count, retCharStruct *ret) {
    if (count <= 0) return;
    const int left = offset < 0 || offset >= frame_len ? 0 : frame_len - offset;
    auto *bytes = static_cast<char *>(count <= left ? malloc(static_cast<size_t>(count)) : nullptr);
    if (bytes != nullptr) {
        memcpy(bytes, frame + offset, static_cast<size_t>(count));
        *ret = {0, count, bytes};
        return;
    }
    // Longer than the rest of the frame, which is therefore all that is allocated and shown. Or there is no memory.
    const auto copied = static_cast<size_t>(count <= left ? 0 : left);
    auto *text = static_cast<char *>(calloc(copied + 1, 1));
    if (text != nullptr && copied > 0) memcpy(text, frame + offset, copied);
    LOGW(STRING_CORRUPTED, offset, frame_len, static_cast<int>(copied), text != nullptr ? text : "");
    free(text);
}

/* ------------------------------ 3. CPU history ------------------------------ */

// The table; the last record is never used. Reader thread only.
__VestraProcCPUUsageHist__ gProcCpuUsageHist[kHistRecords + 1];

// For each home index, the greatest distance from it of one of its processes so far, in records. Never becomes smaller.
// Reader thread only.
static uint16_t farthest[kHistRecords];

static int home_index(int pid) {
    return static_cast<int>(static_cast<uint32_t>(pid) & (kHistRecords - 1));
}

static int next_index(int index) {
    return (index + 1) & (kHistRecords - 1);
}

// Makes `farthest` cover a process in the record at `index`.
static void note_distance(int pid, int index) {
    const int home = home_index(pid);
    const auto distance = static_cast<uint16_t>((index - home) & (kHistRecords - 1));
    farthest[home] = std::max(farthest[home], distance);
}

// Makes `farthest` cover what others have put into a record.
static void measure_record(int index) {
    const int pid = gProcCpuUsageHist[index].pid;
    if (pid != -1) note_distance(pid, index);
}

[[gnu::cold]] static void measure_table() {
    HistoryPid::any_changed = false;
    for (int i = 0; i < kHistRecords; ++i) measure_record(i);
}

int vesrta_hash_init_hist() {
    for (int i = 0; i < kHistRecords; ++i) {
        // Processes that others have put here may come back, if they saved the table.
        if (!gProcCpuUsageHist[i].name.empty()) measure_record(i);
        gProcCpuUsageHist[i] = {0, -1, -1, 0, 0, 0, 0, 0, std::string()};
    }
    HistoryPid::any_changed = false;
    return 0;
}

int vesrta_gethash_hist(int pid) {
    if (pid == -1) return -1;
    int index = home_index(pid);
    for (int probe = 0; probe < kHistRecords; ++probe, index = next_index(index)) {
        __VestraProcCPUUsageHist__ &record = gProcCpuUsageHist[index];
        if (record.pid != -1 && !record.name.empty()) continue;
        if (record.pid == -1) record.pid.place(pid);
        note_distance(pid, index);
        return index;
    }
    return -1;
}

// The first record with `pid`, from its home index on; null when there is none or it has no name.
static inline __VestraProcCPUUsageHist__ *search(int pid) {
    const int home = home_index(pid);
    int index = home, probe = 0;
    do {
        __VestraProcCPUUsageHist__ &record = gProcCpuUsageHist[index];
        if (record.pid == pid) return record.name.empty() ? nullptr : &record;
        index = next_index(index);
    } while (++probe <= farthest[home]);
    return nullptr;
}

[[gnu::cold]] static __VestraProcCPUUsageHist__ *measure_and_search(int pid) {
    measure_table();
    return search(pid);
}

// `pid`'s record, or null.
static inline __VestraProcCPUUsageHist__ *find_record(int pid) {
    if (pid == -1) return nullptr;
    __VestraProcCPUUsageHist__ *record = search(pid);
    return record == nullptr && HistoryPid::any_changed ? measure_and_search(pid) : record;
}

static int index_of(const __VestraProcCPUUsageHist__ *record) {
    return record == nullptr ? -1 : static_cast<int>(record - gProcCpuUsageHist);
}

int vesrta_checkhash_hist(int pid) {
    return index_of(find_record(pid));
}

int vesrta_get_process_data_hist(int pid, int /*unused*/, __VestraProcCPUUsageHist__ *out) {
    const __VestraProcCPUUsageHist__ *record = find_record(pid);
    if (record != nullptr && out != nullptr) *out = *record;
    return index_of(record);
}

// A record for a process that has none; null when the table is full.
static __VestraProcCPUUsageHist__ *free_record(int pid) {
    LOGS_AS("vestra_vital_update_cpuusage_hist");
    const int index = vesrta_gethash_hist(pid);
    if (index != -1) return &gProcCpuUsageHist[index];
    if (pid != -1) LOGE("vestra: tvuc no space available ret = %d\n", index);
    return nullptr;
}

int vestra_vital_update_cpuusage_hist(__VestraProcCPUUsageHist__ *rec) {
    if (rec == nullptr) return -1;
    __VestraProcCPUUsageHist__ *record = find_record(rec->pid);
    if (record == nullptr) record = free_record(rec->pid);
    if (record == nullptr) return -1;
    record->pid.place(rec->pid);
    *record = *rec;
    return index_of(record);
}

// What a sample says about the CPU time of its process.
struct ProcessSample {
    int64_t timestamp;
    int32_t pid;
    int64_t cpu_time_a, cpu_time_b;
};

// Takes a sample into the history; percentages always span more than a second. The switch decoder passes the process's
// name. The slot writer has no name (null) but passes `element1`: a process that is known by name keeps its name, and
// an unknown one is stored without a name, so that its record stays free. Returns the process's record, or null when
// the table is full.
static const __VestraProcCPUUsageHist__ *update_history(const ProcessSample &sample, const std::string *name,
                                                        int32_t element1) {
    __VestraProcCPUUsageHist__ *record = find_record(sample.pid);
    const bool known = record != nullptr, fresh = !known || record->timestamp == 0;
    double percent_total = 0, percent_a = 0, percent_b = 0;
    if (!fresh) {
        if (record->timestamp >= sample.timestamp) return record;
        if (record->cpu_time_a == sample.cpu_time_a && record->cpu_time_b == sample.cpu_time_b) return record;
        const uint64_t interval = distance(sample.timestamp, record->timestamp);
        if (interval <= kNsPerSecond) return record;
        const double interval_ms = static_cast<double>(interval) / 1000000;
        const double ticks = ticks_in(interval_ms / 1000);
        percent_b = percent_of(sample.cpu_time_b, record->cpu_time_b, ticks);
        percent_a = percent_of(sample.cpu_time_a, record->cpu_time_a, ticks);
        percent_total = percent_of(wrapping_sum(sample.cpu_time_a, sample.cpu_time_b),
                                   wrapping_sum(record->cpu_time_a, record->cpu_time_b), ticks);
    }
    if (!known) record = free_record(sample.pid);
    if (record == nullptr) return nullptr;
    if (name == nullptr) {
        record->element1 = element1;
        if (!known) record->name.clear();
    } else {
        if (fresh) record->element1 = -1;
        if (record->name != *name) record->name = *name;
    }
    record->timestamp = sample.timestamp;
    record->pid.place(sample.pid);
    record->cpu_time_a = sample.cpu_time_a;
    record->cpu_time_b = sample.cpu_time_b;
    record->total_percent = percent_total;
    record->percent_a = percent_a;
    record->percent_b = percent_b;
    return record;
}

/* ------------------------------ 4. Per-process memory list ------------------------------ */

// Guards the links and both ends of the list, which the reader thread changes and the main thread reads.
pthread_mutex_t shm_lock = PTHREAD_MUTEX_INITIALIZER;
circ_buf_shm *ghead_shm;  // newest node; null when the list is empty
circ_buf_shm *last_node;  // oldest node; may be stale when the list is empty
int32_t shm_list_size;    // bytes, sum of node_charge over the list. Reader thread only, so it needs no lock

// The last node that was dropped, for the next sample: a list at its limit allocates nothing. Reader thread.
static circ_buf_shm *spare_node;

static int32_t node_charge(const circ_buf_shm &node) {
    return kListNodeCharge + static_cast<int32_t>(node.timestamp.length() + node.name.length());
}

std::string ToString(long long value) {
    return std::to_string(value);
}

// Writes the decimal text of a time. The digits before the nanoseconds are the same for all samples of a second.
static void set_time_text(int64_t time, std::string *text) {
    static constexpr size_t kFraction = 9;  // digits of the nanoseconds
    if (time < kNsPerSecond) {
        *text = ToString(time);
        return;
    }
    const SampleSecond &second = sample_second(time);
    text->resize(second.digits + kFraction);
    char *to = text->data();
    memcpy(to, second.text, sizeof(second.text));  // a fixed size is cheaper; the fraction overwrites the rest
    to += second.digits;
    const auto fraction = static_cast<uint32_t>(time - second.start);
    // Three digits at a time, so that the divisions do not wait for each other.
    for (const uint32_t three : {fraction / 1000000, fraction / 1000 % 1000, fraction % 1000}) {
        *to++ = static_cast<char>('0' + three / 100);
        *to++ = static_cast<char>('0' + three / 10 % 10);
        *to++ = static_cast<char>('0' + three % 10);
    }
}

circ_buf_shm *GetShmNode(process_mem *record, double cpu) {
    if (spare_node == nullptr) spare_node = new circ_buf_shm;
    // What can fail comes first: until then the node stays the spare one.
    set_time_text(record->timestamp, &spare_node->timestamp);
    spare_node->name = record->name;
    circ_buf_shm *node = std::exchange(spare_node, nullptr);
    node->pid = record->pid;
    node->rss = record->rss;
    node->swap = record->swap;
    node->cpu = cpu;
    node->next = node->prev = nullptr;
    return node;
}

static void drop_oldest_node() {
    circ_buf_shm *oldest = last_node;
    shm_list_size -= node_charge(*oldest);
    last_node = oldest->prev;
    if (last_node != nullptr) {
        last_node->next = nullptr;
    } else {
        __atomic_store_n(&ghead_shm, nullptr, __ATOMIC_RELEASE);
    }
    if (spare_node == nullptr) {
        spare_node = oldest;
    } else {
        delete oldest;
    }
}

void insert_node(circ_buf_shm *node) {
    // Outside the lock: only the reader thread uses the size.
    shm_list_size += node_charge(*node);
    pthread_mutex_lock(&shm_lock);
    node->next = ghead_shm;
    if (ghead_shm == nullptr) {
        last_node = node;
    } else {
        ghead_shm->prev = node;
    }
    __atomic_store_n(&ghead_shm, node, __ATOMIC_RELEASE);
    while (last_node != nullptr && shm_list_size > kListLimit) drop_oldest_node();
    pthread_mutex_unlock(&shm_lock);
}

/* ------------------------------ 5. Vitals store ------------------------------ */

// The reader thread writes everything, the client thread reads it without a lock. Both write valid_index.
_SYSDATA_ collectedData[kSlotCount];    // the ring: slot = seconds modulo 180
int64_t timestampToIndex[kSlotCount];   // all -1; nothing reads it
int64_t indexToTimestamp[kSlotCount];   // all -1; nothing reads it
int32_t last_index;                     // slot of the newest complete second
int32_t valid_index = -1;               // oldest slot of the unbroken run that ends at last_index; -1: not yet known
int32_t pos;                            // 0; nothing reads it
int64_t maxTimeValue = -1;              // ns, time of the sample that last moved last_index; -1: none yet
int32_t maxTimeIndex;                   // slot of maxTimeValue
double g_CPUTotalPer[kCpuSampleCount];  // percent, ring of total CPU usage samples
int32_t g_CPUSampleCnt;                 // index of the next sample in it, 0..499
int32_t g_CPUValidSample;               // samples in it, up to 500
double g_CPUTotalPercent;               // percent, highest average so far

static bool is_slot(int index) {
    return index >= 0 && index < kSlotCount;
}

static int slot_before(int slot) {
    return slot == 0 ? kSlotCount - 1 : slot - 1;
}

static int slot_after(int slot) {
    return slot == kSlotCount - 1 ? 0 : slot + 1;
}

double vital(const _SYSDATA_ &slot, unsigned type) {
    // The seventeen are adjacent (asserted at the record) but are separate members: this copies the bytes of one.
    double value = 0;
    if (type >= kVitalCount) return value;
    const auto *row = reinterpret_cast<const char *>(&slot) + offsetof(_SYSDATA_, element10);
    memcpy(&value, row + type * sizeof(double), sizeof(double));
    return value;
}

void init_collected_data() {
    // Kept as it stands: not all 500. The others are written before they are read.
    static constexpr int kSamplesCleared = 251;
    pos = 0;
    last_index = 0;
    g_CPUSampleCnt = 0;
    g_CPUValidSample = 0;
    valid_index = -1;
    for (int i = 0; i < kSamplesCleared; ++i) g_CPUTotalPer[i] = 0;
    for (int i = 0; i < kSlotCount; ++i) {
        collectedData[i] = {};
        collectedData[i].element1 = -1;
        collectedData[i].pid = -1;
        timestampToIndex[i] = -1;
        indexToTimestamp[i] = -1;
    }
    vesrta_hash_init_hist();
}

static void copy_switch_sample(_SYSDATA_ *slot, const _SYSDATA_ &sample, bool in_history) {
    slot->switch_timestamp = sample.switch_timestamp;
    slot->aux_time = sample.aux_time;
    if (sample.pid > 0 && !in_history) {
        update_history({sample.timestamp, sample.pid, sample.cpu_time_a, sample.cpu_time_b}, nullptr, sample.element1);
    }
    slot->element1 = sample.element1;
    slot->pid = sample.pid;
    slot->cpu_time_a = sample.cpu_time_a;
    slot->cpu_time_b = sample.cpu_time_b;
    memcpy(slot->utime, sample.utime, sizeof(slot->utime));
    memcpy(slot->stime, sample.stime, sizeof(slot->stime));
    memcpy(slot->idletime, sample.idletime, sizeof(slot->idletime));
    memcpy(slot->temperature, sample.temperature, sizeof(slot->temperature));
    memcpy(slot->iowaittime, sample.iowaittime, sizeof(slot->iowaittime));
    slot->element10 = sample.element10;
    slot->element11 = sample.element11;
}

// fillData. `in_history`: the decoder has already taken the sample into the CPU history.
static int fill_slot(int slot, const _SYSDATA_ *sample, int frame_type, bool in_history) {
    LOGS_AS("fillData");
    if (frame_type != kSwitchFrame && frame_type != kMeminfoFrame) {
        LOGE("ERR:vestrad : Not handling frametype %d\n", frame_type);
        return last_index;
    }
    if (!is_slot(slot)) return last_index;
    _SYSDATA_ &data = collectedData[slot];
    // The second of the previous lap is not merged with the new one.
    if (data.timestamp >= 1 && sample->timestamp > data.timestamp && sample->timestamp - data.timestamp > kStaleAfter) {
        data.flags = 0;
    }
    data.timestamp = sample->timestamp;
    if (frame_type == kMeminfoFrame) {
        memcpy(data.meminfo, sample->meminfo, sizeof(data.meminfo));
        data.flags |= kFlagMeminfo;
    } else {
        data.flags |= kFlagSwitch;
        copy_switch_sample(&data, *sample, in_history);
    }
    return (data.flags & kFlagSwitch) != 0 ? slot : last_index;
}

int fillData(int slot, _SYSDATA_ *sample, int frame_type, int /*message_type*/) {
    return fill_slot(slot, sample, frame_type, false);
}

// The oldest slot of the unbroken run of switch samples that ends at `last`.
static int start_of_run(int last) {
    int slot = last;
    do {
        const _SYSDATA_ &data = collectedData[slot];
        if (data.timestamp == 0 || (data.flags & kFlagSwitch) == 0) break;
        slot = slot_before(slot);
    } while (slot != last);
    return slot_after(slot);
}

void find_valid_index() {
    const int last = last_index;
    if (is_slot(last)) valid_index = start_of_run(last);
}

// Sums over the cores of a slot, from which its percentages are derived.
struct CoreSums {
    int64_t user, system, total, iowait;  // ticks
    int32_t temperature;
};

static CoreSums sum_cores(const _SYSDATA_ &data) {
    CoreSums sums = {};
    uint32_t temperature = 0;
    for (int core = 0; core < kCoreCount; ++core) {
        sums.user = wrapping_sum(sums.user, data.utime[core]);
        sums.system = wrapping_sum(sums.system, data.stime[core]);
        sums.iowait = wrapping_sum(sums.iowait, data.iowaittime[core]);
        temperature += static_cast<uint32_t>(data.temperature[core]);
    }
    sums.total = wrapping_sum(sums.user, sums.system);
    sums.temperature = static_cast<int32_t>(temperature);
    return sums;
}

// Adds samples of total CPU usage. After each sample, the average of all samples in the ring may be a new peak.
//
// Each average is summed from the first sample in the ring to the last, in that order. A pass adds up to 179 samples,
// so eight sums are computed side by side, and their common beginning only once.
static void add_cpu_samples(const double *samples, int count) {
    static constexpr int kTogether = 8;
    double head = 0;  // sum of the samples before the next one
    for (int i = 0; i < g_CPUSampleCnt; ++i) head += g_CPUTotalPer[i];
    while (count > 0) {
        const int place = g_CPUSampleCnt;
        const int together = std::min({count, kTogether, kCpuSampleCount - place});
        double sums[kTogether] = {};
        for (int j = 0; j < together; ++j) {
            head += samples[j];
            sums[j] = head;
            // The samples that come after this one are not stored yet: their old values still count.
            const int old = std::min(place + together, g_CPUValidSample);
            for (int i = place + j + 1; i < old; ++i) sums[j] += g_CPUTotalPer[i];
        }
        for (int i = place + together; i < g_CPUValidSample; ++i) {
            for (double &sum : sums) sum += g_CPUTotalPer[i];
        }
        for (int j = 0; j < together; ++j) {
            g_CPUTotalPer[place + j] = samples[j];
            if (g_CPUValidSample < kCpuSampleCount) ++g_CPUValidSample;
            const double average = sums[j] / g_CPUValidSample;
            if (g_CPUTotalPercent == 0.0 || (average != 0.0 && average > g_CPUTotalPercent)) {
                g_CPUTotalPercent = average;
            }
        }
        g_CPUSampleCnt = (place + together) % kCpuSampleCount;
        if (g_CPUSampleCnt == 0) head = 0;
        samples += together;
        count -= together;
    }
}

// calculateCPUAvgValues for the slots from `first` to `last`.
static void derive_percentages(int first, int last) {
    LOGS_AS("calculateCPUAvgValues");
    CoreSums before = {};
    int64_t time_before = 0;
    double iowait_accepted = 0.0;
    double totals[kSlotCount];
    int steps = 0;
    int slot = first;
    for (int step = 0; step < kSlotCount; ++step, slot = slot_after(slot)) {
        _SYSDATA_ &data = collectedData[slot];
        const CoreSums now = sum_cores(data);
        for (int core = 0; core < kCoreCount; ++core) {
            data.core_temperature[core] = static_cast<double>(data.temperature[core]);
        }
        if (step > 0) {
            // Kept as it stands: the first step of a run counts as one second, however far apart its samples are.
            // Clients compare the figures with those of older sets.
            const double dt =
                step == 1 ? 1.0 : static_cast<double>(distance(data.switch_timestamp, time_before)) / kNsPerSecond;
            const double ticks = ticks_in(dt);
            data.cpu_user_percent = percent_of(now.user, before.user, ticks);
            data.cpu_system_percent = percent_of(now.system, before.system, ticks);
            data.cpu_total_percent = percent_of(now.total, before.total, ticks);
            data.avg_temperature = now.temperature / kCoreCount;
            const double iowait = percent_of(now.iowait, before.iowait, ticks);
            if (iowait >= kIowaitGlitch) {
                LOGW("vestra : cpu_io_wait %lf current_cpu_iowait = %lld, previous_cpu_iowait=%lld, %lf %d %d \n",
                     iowait, static_cast<long long>(now.iowait), static_cast<long long>(before.iowait), dt, slot,
                     first);
            } else {
                iowait_accepted = iowait;
            }
            data.iowait_percent = iowait_accepted;
            totals[steps++] = data.cpu_total_percent;
        }
        before = now;
        time_before = data.switch_timestamp;
        if (slot == last || (slot == kSlotCount - 1 && exit_flag)) break;
    }
    add_cpu_samples(totals, steps);
}

void calculateCPUAvgValues() {
    const int first = valid_index, last = last_index;
    if (is_slot(first) && is_slot(last)) derive_percentages(first, last);
}

// groupData. `in_history` as for fill_slot.
static void store_sample(const _SYSDATA_ *sample, int frame_type, bool in_history) {
    LOGS_AS("groupData");
    if (sample->timestamp < 0) {
        LOGE("ERR:vestrad : Not handling timestamp %lld\n", static_cast<long long>(sample->timestamp));
        return;
    }
    const int slot = sample_second(sample->timestamp).slot;
    const int newest = fill_slot(slot, sample, frame_type, in_history);
    const bool first = maxTimeValue == -1;
    // Another sample of the same second moves neither the head nor maxTimeValue, the time of the sample that moved it.
    if (!first && (newest == last_index || maxTimeValue >= sample->timestamp)) return;
    maxTimeValue = sample->timestamp;
    maxTimeIndex = slot;
    last_index = newest;
    if (first) return;
    find_valid_index();
    // Not calculateCPUAvgValues: since then the client thread may have set valid_index for the head before this one.
    derive_percentages(start_of_run(newest), newest);
}

void groupData(_SYSDATA_ *sample, int frame_type, int /*message_type*/) {
    store_sample(sample, frame_type, false);
}

void printCollectedData() {
    for (const _SYSDATA_ &data : collectedData) {
        LOGI("vestra : %lld %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf 0X%X\n",
             static_cast<long long>(data.timestamp), data.element10, data.element11, data.cpu_total_percent,
             data.cpu_system_percent, data.cpu_user_percent, data.core_temperature[0], data.core_temperature[1],
             data.core_temperature[2], data.core_temperature[3], data.avg_temperature, data.iowait_percent,
             data.meminfo[0], data.meminfo[1], data.meminfo[2], data.meminfo[3], data.meminfo[4], data.meminfo[5],
             data.flags);
    }
}

/* ------------------------------ 6. Window statistics ------------------------------ */

static bool is_vital(int type) {
    return static_cast<unsigned>(type) < kVitalCount;
}

// The slots in a window, newest first.
struct Window {
    const _SYSDATA_ *slots[kSlotCount];
    int count;
};

// Walks from the slot of `end` back to valid_index, or once around the ring while valid_index is unknown.
static void find_window(int window, int64_t end, Window *found) {
    const int oldest = valid_index;
    int slot = slot_of(end);
    found->count = 0;
    for (int visited = 0; visited < kSlotCount; ++visited, slot = slot_before(slot)) {
        const _SYSDATA_ &data = collectedData[slot];
        int64_t until = 0;  // the last `end` whose window reaches this slot
        if (__builtin_add_overflow(data.timestamp, window * kNsPerSecond, &until)) {
            until = window < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
        }
        if (until >= end) found->slots[found->count++] = &data;
        if (slot == oldest) break;
    }
}

// The statistics of several vitals are computed side by side, each vital in its own lane of a vector. A lane adds the
// figures of its vital alone, in the order of the slots, so the results are the same, bit for bit, as one by one.
static constexpr int kLanes = 2;
using Lanes = double __attribute__((vector_size(kLanes * sizeof(double))));
static constexpr int kVectors = 2;  // processors work on several at a time
static constexpr int kTogether = kLanes * kVectors;

static constexpr Lanes kZero = {0.0, 0.0}, kOne = {1.0, 1.0}, kNone = {-1.0, -1.0};

struct Figures {
    Lanes maximum = kNone, minimum = kNone;
    Lanes sum = kZero, count = kZero;  // of the values above 0
    Lanes average = kZero;             // rounded to float
    Lanes squares = kZero;             // sum of (value - average) squared
};

// `condition ? a : b` chooses for each lane. A value that does not count is added as 0, which does not change a sum.
static void add_value(Figures *figures, const Lanes &value) {
    const auto counts = value > kZero;
    const auto greater = (figures->maximum == kNone) | (figures->maximum < value);
    // Kept as it stands: the first value always counts, later ones only above 0. Zeros are seconds without data, and to
    // clients a minimum of 0 means that the newest second is empty.
    const auto less = (figures->minimum == kNone) | (counts & (value < figures->minimum));
    figures->maximum = greater ? value : figures->maximum;
    figures->minimum = less ? value : figures->minimum;
    figures->sum += counts ? value : kZero;
    figures->count += counts ? kOne : kZero;
}

static void add_square(Figures *figures, const Lanes &value) {
    const Lanes apart = value - figures->average;
    figures->squares += value > kZero ? apart * apart : kZero;
}

// A result that is too large for a float becomes infinite.
static_assert(std::numeric_limits<float>::is_iec559);

// volatile, because g++ 12 otherwise leaves out the rounding of two numbers that it converts together in a vector.
static double rounded_to_float(double value) {
    const volatile float rounded = static_cast<float>(value);
    return rounded;
}

// Writes the statistics of the vitals types[0] to types[count - 1], of which there are 1 to kTogether.
static void compute_together(const Window &window, const int *types, int count, _VestraData_ *results) {
    // A copy: all statistics of a vital come from the same values, even if the reader stores new ones meanwhile.
    Lanes values[kSlotCount][kVectors];
    for (int i = 0; i < window.count; ++i) {
        for (int k = 0; k < kTogether; ++k) {
            const int type = types[k < count ? k : 0];  // lanes without a vital repeat the first
            values[i][k / kLanes][k % kLanes] = vital(*window.slots[i], static_cast<unsigned>(type));
        }
    }
    Figures figures[kVectors];
    for (int i = 0; i < window.count; ++i) {
        for (int v = 0; v < kVectors; ++v) add_value(&figures[v], values[i][v]);
    }
    for (Figures &f : figures) {
        for (int k = 0; k < kLanes; ++k) f.average[k] = rounded_to_float(f.sum[k] / f.count[k]);
    }
    for (int i = 0; i < window.count; ++i) {
        for (int v = 0; v < kVectors; ++v) add_square(&figures[v], values[i][v]);
    }
    for (int i = 0; i < count; ++i) {
        const Figures &f = figures[i / kLanes];
        const int k = i % kLanes;
        results[i] = {f.maximum[k], f.minimum[k], f.average[k], rounded_to_float(f.squares[k] / f.count[k])};
    }
}

// The statistics of one vital; those of an empty window if there is no such vital.
static _VestraData_ window_statistics(int type, int window, int64_t end) {
    Window found;
    found.count = 0;
    if (is_vital(type)) find_window(window, end, &found);
    _VestraData_ result;
    compute_together(found, &type, 1, &result);
    return result;
}

double calculateMax(int type, int window, long long end) {
    return window_statistics(type, window, end).maximum;
}

double calculateMin(int type, int window, long long end) {
    return window_statistics(type, window, end).minimum;
}

float calculateAvg(int type, int window, long long end) {
    return static_cast<float>(window_statistics(type, window, end).average);
}

float calculateVariance(int type, int window, long long end) {
    return static_cast<float>(window_statistics(type, window, end).variance);
}

void getTypeResult(_VestraData_ *out, int type, int window, long long end, int slot) {
    if (!is_vital(type)) {
        LOGE("ERR:vestra : Not a valid packetType\n");
        return;
    }
    if (window != 0) {
        *out = window_statistics(type, window, end);
        return;
    }
    if (!is_slot(slot)) return;
    const double value = vital(collectedData[slot], static_cast<unsigned>(type));
    *out = {value, value, value, 0.0};
}

static void set_figures(vestra_api_data *req, const _VestraData_ &result) {
    req->maximum = result.maximum;
    req->minimum = result.minimum;
    req->average = result.average;
    req->variance = result.variance;
}

void getResult(vestra_api_data *req, long long end, int slot) {
    _VestraData_ result = {req->maximum, req->minimum, req->average, req->variance};
    getTypeResult(&result, req->packet_type, req->window, end, slot);
    set_figures(req, result);
}

static void log_answer(const vestra_api_data &request) {
    LOGS_AS("process_request");
    LOGD("[vestra] [%s] %d %lf %lf, %lf, %lf\n", log_operation, request.packet_type, request.maximum, request.minimum,
         request.average, request.variance);
}

void process_request(vestra_api_data *reqs, int count) {
    find_valid_index();
    const int64_t end = maxTimeValue;
    const int slot = last_index;
    if (count <= 1) {
        if (reqs[0].packet_type == VESTRA_API_UNUSED) return;
        getResult(&reqs[0], end, slot);
        log_answer(reqs[0]);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const int type = reqs[i].packet_type;
        if (type == VESTRA_API_UNUSED) continue;
        if (type < 0 || type >= count) {
            LOGE("ERR:vestra : Not a valid packetType\n");
            continue;
        }
        // Kept as it stands: the type is the index in the array. Clients rely on it: request t has type t.
        vestra_api_data &request = reqs[type];
        getResult(&request, end, slot);
        LOGD("[vestra] [%s] %d %d %lf %lf, %lf, %lf\n", __func__, type, i, request.maximum, request.minimum,
             request.average, request.variance);
    }
}

// A vital over a window, not its current value.
static bool needs_window(const vestra_api_data &request) {
    return is_vital(request.packet_type) && request.window != 0;
}

// Answers request `first` and the later ones with the same window.
static void answer_window(vestra_api_data (&reqs)[VESTRA_API_VITALS], int first, int64_t end,
                          bool (&answered)[VESTRA_API_VITALS]) {
    Window window;
    find_window(reqs[first].window, end, &window);
    int types[VESTRA_API_VITALS], places[VESTRA_API_VITALS];
    int count = 0;
    for (int i = first; i < VESTRA_API_VITALS; ++i) {
        if (!needs_window(reqs[i]) || reqs[i].window != reqs[first].window) continue;
        types[count] = reqs[i].packet_type;
        places[count++] = i;
        answered[i] = true;
    }
    _VestraData_ results[VESTRA_API_VITALS];
    for (int i = 0; i < count; i += kTogether) {
        compute_together(window, &types[i], std::min(count - i, kTogether), &results[i]);
    }
    for (int i = 0; i < count; ++i) set_figures(&reqs[places[i]], results[i]);
}

void answer_requests(vestra_api_data (&reqs)[VESTRA_API_VITALS]) {
    find_valid_index();
    const int64_t end = maxTimeValue;
    const int slot = last_index;
    bool answered[VESTRA_API_VITALS] = {};
    for (int i = 0; i < VESTRA_API_VITALS; ++i) {
        if (needs_window(reqs[i]) && !answered[i]) answer_window(reqs, i, end, answered);
    }
    // What is logged stays in the order of the requests.
    for (int i = 0; i < VESTRA_API_VITALS; ++i) {
        if (reqs[i].packet_type == VESTRA_API_UNUSED) continue;
        if (!answered[i]) getResult(&reqs[i], end, slot);
        log_answer(reqs[i]);
    }
}

/* ------------------------------ 7. Message formats ------------------------------ */
// The element tables of trace_format.h, and what is logged when an element cannot be read.

struct MessageFormat {
    const ElementKind *kinds;
    int elements;
    const char *varint_check, *length_check, *bytes_check;  // an element cannot be read
    const char *count_check;                                // there are too few, after one of the above or alone
    // Kept as it stands: all elements were counted but the last cannot be read. No input does that.
    const char *guard_check;
};

// True when `text` takes 4 or 5 integers and nothing else: what log_check passes after the prefix's own arguments.
static constexpr bool takes_integers(std::string_view text) {
    int count = 0;
    for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 2)) {
        const std::string_view conversion = text.substr(at, 2);
        if (conversion == "%%") continue;
        if (conversion != "%d") return false;
        ++count;
    }
    return count == 4 || count == 5;
}
static_assert(takes_integers("%d%% %d, %d %%%d") && takes_integers("%d%d%d%d%d"));
static_assert(!takes_integers("%d%d%d%%d") && !takes_integers("%d%d%d%d%ld") && !takes_integers("%d%d%d%d%"));

// A check's log text with the prefix. The compiler cannot check the arguments of a text in a table, so this does.
#define CHECK_TEXT(text)                           \
    [] {                                           \
        static_assert(takes_integers(text));       \
        return VESTRA_LOG_PREFIX "vestra : " text; \
    }()
#define AT_TEXT " at frame_index:%d, frame_len:%d, messageType:%d, offset:%d"

static constexpr MessageFormat kSwitchMessage = {kSwitchKinds,
                                                 kSwitchElements,
                                                 CHECK_TEXT("7. Corrupted" AT_TEXT " \n"),
                                                 CHECK_TEXT("8. Corrupted" AT_TEXT "\n"),
                                                 CHECK_TEXT("9. Corrupted" AT_TEXT " \n"),
                                                 CHECK_TEXT("Corrupted" AT_TEXT ", elm_count:%d \n"),
                                                 CHECK_TEXT("Corrupted" AT_TEXT ", elm_count:%d \n")};
static constexpr MessageFormat kMeminfoMessage = {kMeminfoKinds,
                                                  kMeminfoElements,
                                                  CHECK_TEXT("6. cpumeminfo Corrupted" AT_TEXT " \n"),
                                                  CHECK_TEXT("7. cpumeminfo Corrupted" AT_TEXT "\n"),
                                                  CHECK_TEXT("8. cpumeminfo Corrupted" AT_TEXT " \n"),
                                                  CHECK_TEXT("9. cpumeminfo Corrupted" AT_TEXT ", elm_count:%d \n"),
                                                  CHECK_TEXT("10. cpumeminfo Corrupted" AT_TEXT ", elm_count:%d \n")};

// The per-core block of a switch message: these five for core 0, then for core 1, 2 and 3.
static constexpr struct CoreCounter {
    retIntStruct *read;
    int64_t (_SYSDATA_::*figures)[kCoreCount];
    const char *check;
} kCoreBlock[kCoreElements] = {
    {&utimeIs, &_SYSDATA_::utime, CHECK_TEXT("10. Corrupted" AT_TEXT " \n")},
    {&stimeIs, &_SYSDATA_::stime, CHECK_TEXT("11. Corrupted" AT_TEXT " \n")},
    // Kept as they stand: in the last three the point is after the blank. Log filters match the texts.
    {&idletimeIs, &_SYSDATA_::idletime, CHECK_TEXT("12 .Corrupted" AT_TEXT " \n")},
    {&temperatureIs, &_SYSDATA_::temperature, CHECK_TEXT("13 .Corrupted" AT_TEXT " \n")},
    {&iowaittimeIs, &_SYSDATA_::iowaittime, CHECK_TEXT("14 .Corrupted" AT_TEXT " \n")},
};

static constexpr const char *kSwitchCores = CHECK_TEXT("15. Corrupted" AT_TEXT ", elm_count:%d \n");

/* ------------------------------ 8. Message decoders ------------------------------ */

// Logs a CHECK_TEXT, which has checked the text. One that takes four integers leaves out the last.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
[[gnu::cold]] static void log_check(int prio, const char *text, const char *function, int line, int a, int b, int c,
                                    int d, int e) {
    if (!dlog_wants(prio)) return;
    __dlog_print(LOG_ID_MAIN, prio, VESTRA_LOG_TAG, text, __FILE_NAME__, function, line, function, line, a, b, c, d, e);
}
#pragma GCC diagnostic pop

// Where a message is.
//
// Fast path: the take_ functions decode it without diagnosing. If they fail, the slow path, the report_ functions,
// reads it again with the field readers, element by element, to find and log the fault.
struct MessagePlace {
    const char *function;  // of the decoder, for its log lines
    char *frame;
    int frame_len;
    int offset;  // of the body
    int message_type;

    const unsigned char *body() const { return bytes_at(frame, offset); }
    const unsigned char *end() const { return bytes_at(frame, frame_len); }
    int consumed(const unsigned char *at) const { return static_cast<int>(at - body()); }
};

// Takes a message's elements: the numbers into `value`, the string into *text. Returns the place after them, or null if
// one is malformed or missing. Fold expressions, so that the compiler unrolls the loop.
template <const MessageFormat &format, size_t... element>
static inline const unsigned char *take_elements(const MessagePlace &place, uint64_t *value, std::string_view *text,
                                                 std::index_sequence<element...> /*all*/) {
    const unsigned char *at = place.body(), *const end = place.end();
    const bool taken = (((at = take_element<format.kinds[element]>(at, end, &value[element], text)) != nullptr) && ...);
    return taken ? at : nullptr;
}

// Takes the five figures of a core into the sample, in the same way. starts[i] gets the place of the i-th.
template <size_t... element>
static inline const unsigned char *take_core(const unsigned char *at, const unsigned char *end, int core,
                                             _SYSDATA_ *sample, const unsigned char **starts,
                                             std::index_sequence<element...> /*all*/) {
    const auto take = [&](size_t index, int64_t(_SYSDATA_::*figures)[kCoreCount]) {
        const Varint number = take_varint(at, end);
        (sample->*figures)[core] = static_cast<int64_t>(number.value);
        starts[index] = at;
        at = number.next;
        return at != nullptr;
    };
    return (take(element, kCoreBlock[element].figures) && ...) ? at : nullptr;
}

// The sample of the last switch message. It keeps the figures of its per-core block for the next message; the store
// ignores the fields that the decoder does not set.
static _SYSDATA_ switch_sample;

// Takes the per-core block at `at` into switch_sample, in the same way.
//
// The counters advance with the clock, 250 times a second, and messages come more often. A block that equals the
// previous one, byte for byte, is not decoded again.
static inline const unsigned char *take_core_block(const unsigned char *at, const unsigned char *end) {
    static unsigned char block[kCoreCount * kCoreElements * kVarintMax];
    static size_t length;  // of the previous block; 0 when it was malformed
    static retIntStruct results[kCoreElements];
    const size_t left = static_cast<size_t>(end - at);
    if (length == 0 || left < length || memcmp(at, block, length) != 0) {
        const unsigned char *const start = at;
        const unsigned char *starts[kCoreElements + 1];  // of the figures of the last core
        length = 0;
        for (int core = 0; core < kCoreCount; ++core) {
            at = take_core(at, end, core, &switch_sample, starts, std::make_index_sequence<kCoreElements>());
            if (at == nullptr) return nullptr;
        }
        starts[kCoreElements] = at;
        for (int element = 0; element < kCoreElements; ++element) {
            const int64_t figure = (switch_sample.*kCoreBlock[element].figures)[kCoreCount - 1];
            results[element] = {0, static_cast<int32_t>(starts[element + 1] - starts[element]),
                                static_cast<uint64_t>(figure)};
        }
        length = static_cast<size_t>(at - start);
        memcpy(block, start, length);
    } else {
        at += length;
    }
    for (int element = 0; element < kCoreElements; ++element) *kCoreBlock[element].read = results[element];
    return at;
}

static void log_message(const MessagePlace &place, const char *text, int line, const unsigned char *at, int elements) {
    log_check(DLOG_WARN, text, place.function, line, place.offset, place.frame_len, place.message_type,
              place.consumed(at), elements);
}

// Reads the varint at *at and moves *at past it. Logs `check` when it cannot be read.
static bool read_varint(const MessagePlace &place, const unsigned char **at, const char *check, retIntStruct *ret) {
    initiailizeRet(0, ret);
    get_unpackedInt(place.frame_len, place.offset + place.consumed(*at), place.frame, ret);
    if (ret->status == -1) {
        log_message(place, check, __LINE__, *at, 0);
        return false;
    }
    *at += ret->length;
    return true;
}

// Reads the length of the string at *at, then moves *at past its bytes. Logs what cannot be read; *at then stays after
// the part that can.
static bool read_string(const MessagePlace &place, const MessageFormat &format, const unsigned char **at) {
    retIntStruct length;
    if (!read_varint(place, at, format.length_check, &length)) return false;
    if (length.value > 0 && length.value <= static_cast<uint64_t>(place.end() - *at)) {
        *at += length.value;
        return true;
    }
    // A length that does not fit an int is longer than any frame anyway.
    constexpr uint64_t kIntMax = std::numeric_limits<int>::max();
    initiailizeRet(1, &retCs);
    get_unpackedBytesWithLength(place.frame_len, place.offset + place.consumed(*at), place.frame,
                                static_cast<int>(std::min(length.value, kIntMax)), &retCs);
    log_message(place, format.bytes_check, __LINE__, *at, 0);
    return false;
}

// Finds and logs the fault in a message's elements.
[[gnu::cold]] static void report_elements(const MessagePlace &place, const MessageFormat &format) {
    const unsigned char *at = place.body();
    int element = 0;
    for (; element < format.elements && at < place.end(); ++element) {
        retIntStruct number;
        const bool read = format.kinds[element] == kString ? read_string(place, format, &at)
                                                           : read_varint(place, &at, format.varint_check, &number);
        if (!read) break;
    }
    log_message(place, element < format.elements ? format.count_check : format.guard_check, __LINE__, at, element);
}

// Finds and logs the fault in the per-core block at `at`. The shared results get the figures before it.
[[gnu::cold]] static void report_core_block(const MessagePlace &place, const unsigned char *at) {
    for (int number = 0; number < kCoreCount * kCoreElements; ++number) {
        const CoreCounter &counter = kCoreBlock[number % kCoreElements];
        if (!read_varint(place, &at, counter.check, counter.read)) break;
    }
    log_message(place, kSwitchCores, __LINE__, at, kSwitchElements);
}

// Fetches what accounting is about to use, while the rest of the message is decoded: the process's record and the two
// oldest nodes of the list.
static inline void prefetch_process(int32_t pid) {
    const __VestraProcCPUUsageHist__ *record = &gProcCpuUsageHist[home_index(pid)];
    __builtin_prefetch(record);
    __builtin_prefetch(reinterpret_cast<const char *>(record + 1) - 1);
    // Both ends: last_node is stale after the list was freed, and null in a list that others have made.
    if (ghead_shm == nullptr || last_node == nullptr || last_node->prev == nullptr) return;
    __builtin_prefetch(last_node);
    __builtin_prefetch(&last_node->prev->next);
}

// Takes a process's sample into CPU history and memory list. *in_history: the history knows the process by name, so
// that the slot writer would change nothing in it. False without memory: the message is dropped, and the trigger key is
// reset so that nobody waits for the database.
static bool account_process(const _SYSDATA_ &sample, std::string_view name, uint64_t rss, uint64_t swap,
                            bool *in_history) {
    try {
        const size_t kept = std::min(kNameKept, name.length());
        process_mem record = {sample.timestamp, sample.pid, std::string(name.data(), strnlen(name.data(), kept)),
                              static_cast<int32_t>(rss), static_cast<int32_t>(swap)};
        // First, because only this can fail: a dropped message leaves nothing in the history.
        circ_buf_shm *node = GetShmNode(&record, 0);
        const __VestraProcCPUUsageHist__ *known =
            update_history({sample.timestamp, sample.pid, sample.cpu_time_a, sample.cpu_time_b}, &record.name, -1);
        *in_history = known != nullptr && known->timestamp != 0 && !known->name.empty();
        node->cpu = known != nullptr ? known->total_percent : 0;
        insert_node(node);
        return true;
    } catch (const std::exception &) {
        set_shm_default_vconf();
        return false;
    }
}

void decode_switchFrame(int /*frame_type*/, int frame_len, int offset, char *frame, int message_type, int /*core_id*/,
                        retIntStruct *ret) {
    const MessagePlace place = {__func__, frame, frame_len, offset, message_type};
    std::string_view name;
    uint64_t value[kSwitchElements];
    const unsigned char *cores =
        take_elements<kSwitchMessage>(place, value, &name, std::make_index_sequence<kSwitchElements>());
    if (cores == nullptr) return report_elements(place, kSwitchMessage);
    prefetch_process(static_cast<int32_t>(value[kSwitchPid]));
    const unsigned char *next = take_core_block(cores, place.end());
    if (next == nullptr) return report_core_block(place, cores);
    _SYSDATA_ &sample = switch_sample;
    sample.timestamp = static_cast<int64_t>(value[kSwitchTime]);
    sample.switch_timestamp = sample.timestamp;
    sample.aux_time = 0;
    sample.element1 = static_cast<int32_t>(value[kSwitchElement1]);
    sample.pid = static_cast<int32_t>(value[kSwitchPid]);
    sample.cpu_time_a = static_cast<int64_t>(value[kSwitchCpuA]);
    sample.cpu_time_b = static_cast<int64_t>(value[kSwitchCpuB]);
    sample.element10 = plain_figure(value[kSwitchElement10]);
    sample.element11 = plain_figure(value[kSwitchElement11]);

    const bool accounted = value[kSwitchPid] != 0 && value[kSwitchRss] != 0 && value[kSwitchSwap] != 0;
    bool in_history = false;
    if (accounted && !account_process(sample, name, value[kSwitchRss], value[kSwitchSwap], &in_history)) return;
    ret->status = 0;
    ret->length = place.consumed(next);
    store_sample(&sample, kSwitchFrame, in_history);
}

void decode_cpumeminfoFrame(int /*frame_type*/, int frame_len, int offset, char *frame, int message_type,
                            int /*core_id*/, retIntStruct *ret) {
    const MessagePlace place = {__func__, frame, frame_len, offset, message_type};
    std::string_view name;  // not used
    uint64_t value[kMeminfoElements];
    const unsigned char *next =
        take_elements<kMeminfoMessage>(place, value, &name, std::make_index_sequence<kMeminfoElements>());
    if (next == nullptr) return report_elements(place, kMeminfoMessage);

    ret->status = 0;
    ret->length = place.consumed(next);
    _SYSDATA_ sample;  // the store ignores the fields that are not set here
    sample.timestamp = static_cast<int64_t>(value[kMeminfoTime]);
    sample.aux_time = 0;
    sample.meminfo[0] = decimal_figure(&value[kMeminfoDecimal0]);
    sample.meminfo[1] = decimal_figure(&value[kMeminfoDecimal1]);
    sample.meminfo[2] = decimal_figure(&value[kMeminfoDecimal2]);
    sample.meminfo[3] = plain_figure(value[kMeminfoPlain3]);
    sample.meminfo[4] = plain_figure(value[kMeminfoPlain4]);
    sample.meminfo[5] = plain_figure(value[kMeminfoPlain5]);
    groupData(&sample, kMeminfoFrame, message_type);
}

/* ------------------------------ 9. Walkers ------------------------------ */

// A copy of the frame that is being decoded: the decoders never read the caller's block. Reader thread.
unsigned char frameData[kFrameMax + 1];

#define FRAME_AT_TEXT " at file_index:%d, frame index:%d, frame_len:%d, messageType:%d, offset:%d\n"
#define CORE_AT_TEXT " at file_index:%d, frame_index:%d, frame_len:%d, core_id:%d offset:%d\n"

// Where the walks of the two frame types differ.
struct FrameFormat {
    const char *function;
    int type;
    void (*decode)(int, int, int, char *, int, int, retIntStruct *);
    int core_priority;
    const char *core_check, *type_check, *body_check, *range_check;
};
// Kept as it stands: a wrong core id is an error in a switch frame and a warning in a CPU and memory frame. Log filters
// go by the priority.
static constexpr FrameFormat kSwitchFormat = {"decode_frame",
                                              kSwitchFrame,
                                              decode_switchFrame,
                                              DLOG_ERROR,
                                              CHECK_TEXT("2. Invalid core id" CORE_AT_TEXT),
                                              CHECK_TEXT("3. Corrupted frame" FRAME_AT_TEXT),
                                              CHECK_TEXT("4. Corrupted frame" FRAME_AT_TEXT),
                                              CHECK_TEXT("5. Corrupted frame" FRAME_AT_TEXT)};
static constexpr FrameFormat kMeminfoFormat = {"decode_frame_8",
                                               kMeminfoFrame,
                                               decode_cpumeminfoFrame,
                                               DLOG_WARN,
                                               CHECK_TEXT("2. frame_8 Invalid core id" CORE_AT_TEXT),
                                               CHECK_TEXT("3. frame_8 Corrupted frame" FRAME_AT_TEXT),
                                               CHECK_TEXT("4. frame_8 Corrupted frame" FRAME_AT_TEXT),
                                               CHECK_TEXT("5. frame_8 Corrupted frame" FRAME_AT_TEXT)};

template <const FrameFormat &format>
static void walk_messages(int frame_len, char *frame, int file_index, retIntStruct *ret) {
    const int core_id = static_cast<unsigned char>(frame[1]);
    if (core_id >= kCoreCount) {
        return log_check(format.core_priority, format.core_check, format.function, __LINE__, file_index, 0, frame_len,
                         core_id, 0);
    }
    initiailizeRet(0, ret);
    int type = 0;  // of the message, or of the previous one until it is read
    for (int offset = kFrameHeader; offset < frame_len;) {
        const auto report = [&](const char *check, int line, int type_length) {
            log_check(DLOG_WARN, check, format.function, line, file_index, offset, frame_len, type, type_length);
        };
        initiailizeRet(0, &retIs);
        get_unpackedInt(frame_len, offset, frame, &retIs);
        if (retIs.status == -1) return report(format.type_check, __LINE__, 0);
        const int type_length = retIs.length;
        type = static_cast<int>(retIs.value);
        if (!is_message_type(retIs.value)) return report(format.range_check, __LINE__, type_length);
        initiailizeRet(0, &retIs);
        format.decode(format.type, frame_len, offset + type_length, frame, type, core_id, &retIs);
        if (retIs.status == -1) return report(format.body_check, __LINE__, type_length);
        offset += type_length + retIs.length;
    }
    ret->status = 0;
    ret->length = 0;
}

void decode_frame(int frame_len, char *frame, int file_index, retIntStruct *ret) {
    if (frame_len < kFrameHeader || frame[0] != kSwitchFrame) return;
    walk_messages<kSwitchFormat>(frame_len, frame, file_index, ret);
}

void decode_frame_8(int frame_len, char *frame, int file_index, retIntStruct *ret) {
    if (frame_len < kFrameHeader) {
        LOGW("vestra : 1. frame_8 Empty frame at file_index:%d, frame_index:%d, frame_len:%d, offset:%d\n", file_index,
             0, frame_len, 0);
        return;
    }
    const int type = static_cast<signed char>(frame[0]);
    if (type != kMeminfoFrame) {
        LOGW(
            "vestra : frame_8 Invalid frametype:%d Empty frame at file_index:%d, frame_index:%d, frame_len:%d, "
            "offset:%d\n",
            type, file_index, 0, frame_len, 0);
        return;
    }
    walk_messages<kMeminfoFormat>(frame_len, frame, file_index, ret);
}

int decode_file(unsigned char *buf, unsigned int total) {
    if (buf == nullptr || total == 0) {
        LOGE("vestra:Invalid I/P pBuf=%p tfs=%d\n", static_cast<void *>(buf), static_cast<int>(total));
        return -1;
    }
    auto *frame = reinterpret_cast<char *>(frameData);
    uint64_t index = 0;
    int last_type = -1;
    while (total > index + kLengthField) {
        const uint32_t frame_len = get_frame_len(buf + index);
        if (frame_len > kFrameMax) {
            LOGD("vestra : Invalid frame_len %ld \n", static_cast<long>(frame_len));
            return last_type;
        }
        const uint64_t start = index + kLengthField;
        const uint64_t end = start + frame_len;
        // Kept as it stands: a frame that ends exactly with the block is not decoded. The module adds an empty record.
        if (total <= end) {
            memset(frameData, 0, frame_len);
            LOGD("vestra : No more data file_index %d total %d \n", static_cast<int>(index), static_cast<int>(total));
            return last_type;
        }
        memcpy(frameData, buf + start, frame_len);
        index = end;
        if (frame_len < kFrameHeader) continue;
        last_type = static_cast<signed char>(frameData[0]);
        LOGD("vestra : frame_len %ld frame_type:%d\n", static_cast<long>(frame_len), last_type);
        retIntStruct walked;
        initiailizeRet(0, &walked);
        if (last_type == kSwitchFrame) {
            decode_frame(static_cast<int>(frame_len), frame, static_cast<int>(start), &walked);
        } else if (last_type == kMeminfoFrame) {
            decode_frame_8(static_cast<int>(frame_len), frame, static_cast<int>(start), &walked);
        }
    }
    LOGD("vestra : No more valid data file_index %d total %d \n", static_cast<int>(index), static_cast<int>(total));
    return last_type;
}

/* ------------------------------ 10. History database ------------------------------ */

static constexpr char kDbPath[] = "/opt/usr/home/owner/share/tvhistory.db";
static constexpr size_t kDbPathSize = 128;
static constexpr char kTriggerKey[] = "memory/SHM/trigger_db_write";

static constexpr char kDropTable[] = "DROP TABLE IF EXISTS PROCESS_INFO;";
static constexpr char kCreateTable[] =
    "CREATE TABLE IF NOT EXISTS PROCESS_INFO(TIMESTAMP         VARCHAR(20)   NOT NULL,PROCESS_ID   INT   NOT "
    "NULL,PROCESS_NAME VARCHAR(20)  NULL,RSS_USED     INT   NOT NULL,SWAP_USED    INT   NOT NULL,CPU_PERCENTAGE_USED  "
    "DOUBLE   NOT NULL,RSS_BIN      INT   DEFAULT 0 NOT NULL,SWAP_BIN     INT   DEFAULT 0 NOT NULL,AVG_RSS      INT   "
    "DEFAULT 0 NOT NULL,SHM_CURR_TIME DATETIME DEFAULT CURRENT_TIMESTAMP,AVG_CPU      INT   DEFAULT 0 NOT NULL );";

// Main thread only.
sqlite3 *db;      // the handle that was opened last; null once it is closed
char *dbPath;     // block of kDbPathSize bytes, set once by ProcessDbInit and never freed
const char *sql;  // the last statement; null after a batch, whose text is freed
char *zErrMsg;    // SQLite's text about a failed statement, until it is logged

void set_shm_default_vconf() {
    if (vconf_set_int(kTriggerKey, 0) == 0) {
        LOGD("vconf_set_int(%s) success with 0", kTriggerKey);
    } else {
        LOGE("vconf_set_int(%s) failed", kTriggerKey);
    }
}

static const char *db_path() {
    return dbPath != nullptr ? dbPath : "";
}

// SQLite's text about the failed statement, or about the handle when there is none, as after a failed open.
static const char *sql_error() {
    return zErrMsg != nullptr ? zErrMsg : sqlite3_errmsg(db);
}

static void free_sql_error() {
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
}

static int run_statement(const char *statement) {
    sql = statement;
    zErrMsg = nullptr;
    return sqlite3_exec(db, statement, nullptr, nullptr, &zErrMsg);
}

int openDB() {
    // A failed fill leaves the database open: close it first, or its descriptor would leak.
    sqlite3_close(std::exchange(db, nullptr));
    if (sqlite3_open(dbPath, &db) != 0) {
        LOGE("Can't open database: %s", sqlite3_errmsg(db));
    } else {
        LOGE("Opened database successfully");
    }
    return 0;
}

int closeDB() {
    if (sqlite3_close(db) != 0) {
        LOGE("Can't close database: %s", sqlite3_errmsg(db));
    } else {
        LOGE("Closed database successfully");
        db = nullptr;
    }
    return 0;
}

int createTables() {
    if (run_statement(kDropTable) != 0) {
        LOGE("SQL error: %s", sql_error());
        free_sql_error();
    } else {
        LOGD("Table PROCESS_INFO DROPPED successfully");
    }
    if (run_statement(kCreateTable) != 0) {
        LOGE("SQL error: %s", sql_error());
        free_sql_error();
    } else {
        LOGD("Table PROCESS_INFO created successfully");
    }
    return 0;
}

int ProcessDbInit() {
    set_shm_default_vconf();
    if (dbPath == nullptr) dbPath = static_cast<char *>(calloc(kDbPathSize, 1));
    if (dbPath != nullptr) memcpy(dbPath, kDbPath, sizeof(kDbPath));
    LOGE("DATABASE PATH : %s", db_path());
    // Kept as it stands, here and at every use below: neither returns -1. A set without storage must still start.
    if (openDB() == -1) {
        LOGE("Unable to Open db : %s", db_path());
        set_shm_default_vconf();
        return 0;
    }
    LOGE("Success in Opening db : %s", db_path());
    createTables();
    if (closeDB() == -1) {
        LOGE("Unable to Close db : %s", db_path());
        set_shm_default_vconf();
        return 0;
    }
    LOGD("Success in Closing db : %s", db_path());
    return 0;
}

/* ------------------------------ 11. Database fill ------------------------------ */

static constexpr char kClearTable[] = "DELETE FROM PROCESS_INFO;";
static constexpr char kInsertRows[] =
    "INSERT INTO PROCESS_INFO(TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED) VALUES ";
static constexpr int kBatchRows = 100;

// A percentage without its fraction, clamped to 64 bits. NaN becomes 0.
static long long whole_percent(double percent) {
    if (std::isnan(percent)) return 0;
    if (percent >= 0x1p63) return std::numeric_limits<long long>::max();
    if (percent < -0x1p63) return std::numeric_limits<long long>::min();
    return static_cast<long long>(percent);
}

// A name of the current batch contains a quote, so the statement may be anything.
static bool quote_in_batch;

// Decides what a fill's statements may do: insert into PROCESS_INFO and delete from it. The rows of an insertion count
// as a SELECT; reading a table would need SQLITE_READ. With a quote in a name, nothing is allowed, so that the statement
// fails even where it is valid SQL.
static int authorize(void *, int action, const char *table, const char *, const char *base, const char *trigger) {
    if (quote_in_batch) return SQLITE_DENY;
    if (action == SQLITE_SELECT) return SQLITE_OK;
    if (action != SQLITE_INSERT && action != SQLITE_DELETE) return SQLITE_DENY;
    return strcmp(table, "PROCESS_INFO") == 0 && strcmp(base, "main") == 0 && trigger == nullptr ? SQLITE_OK
                                                                                                 : SQLITE_DENY;
}

static void restrict_fill() {
    quote_in_batch = false;
    if (db == nullptr) return;
    sqlite3_set_authorizer(db, authorize, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
}

// Appends up to kBatchRows rows, from `node` on, and the statement's end. Returns the node of the last row.
//
// Kept as it stands: a name is quoted but not escaped. A quote in a name makes the statement fail, and the requester
// finds its key still set.
static const circ_buf_shm *append_rows(const circ_buf_shm *node, std::string *values) {
    std::string quoted;
    quote_in_batch = false;
    for (int rows = 1;; ++rows, node = node->next) {
        const bool closes = node->next == nullptr || rows == kBatchRows;
        quoted.assign(1, '"').append(node->name).append(1, '"');
        quote_in_batch = quote_in_batch || node->name.find('"') != std::string::npos;
        values->append("(").append(node->timestamp).append(",").append(ToString(node->pid)).append(",");
        values->append(quoted).append(",").append(ToString(node->rss)).append(",").append(ToString(node->swap));
        values->append(",").append(ToString(whole_percent(node->cpu))).append(")").append(closes ? ";" : ",");
        if (closes) return node;
    }
}

// Inserts one batch, from `node` on. Returns the node of its last row, or null when the fill has failed.
static const circ_buf_shm *insert_batch(const circ_buf_shm *node) {
    LOGS_AS("Process_Info_fill");
    std::string values = " ", statement = kInsertRows;
    const circ_buf_shm *closing = append_rows(node, &values);
    statement.append(values);
    auto *block = static_cast<char *>(malloc(statement.length() + 1));
    if (block == nullptr) return nullptr;
    memcpy(block, statement.c_str(), statement.length() + 1);
    const int result = run_statement(block);
    if (result != 0) LOGE("SQL error: %s Query = %s", sql_error(), statement.c_str());
    free_sql_error();
    free(block);
    sql = nullptr;
    if (result == 0) {
        LOGD("Records inserted successfully!");
        return closing;
    }
    closeDB();
    if (result == SQLITE_FULL) LOGE("Can't fill the table because there is no disk space left");
    return nullptr;
}

// The node to begin with: `head`, the newest one before the table was cleared, or, if the reader thread has dropped
// that since, the newest one now. The caller holds shm_lock.
static const circ_buf_shm *first_node(const circ_buf_shm *head) {
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; node = node->next) {
        if (node == head) return node;
    }
    return head == nullptr ? nullptr : ghead_shm;
}

// Inserts the list from `head` on. The caller holds shm_lock. False when a batch failed.
static bool insert_list(const circ_buf_shm *head) {
    for (const circ_buf_shm *node = first_node(head); node != nullptr; node = node->next) {
        node = insert_batch(node);
        if (node == nullptr) return false;
    }
    return true;
}

int Process_Info_fill() {
    if (openDB() == -1) {
        LOGE("Unable to Open db : %s", db_path());
        return 0;
    }
    LOGE("Success in Opening db : %s", db_path());
    restrict_fill();
    const circ_buf_shm *head = __atomic_load_n(&ghead_shm, __ATOMIC_ACQUIRE);
    if (run_statement(kClearTable) != 0) {
        // Kept as it stands: the database stays open and the key set. So the requester sees that the fill failed.
        LOGE("SQL error: %s", sql_error());
        free_sql_error();
        return 0;
    }
    LOGD("Table PROCESS_INFO previous record cleared successfully");
    pthread_mutex_lock(&shm_lock);
    bool filled = false;
    try {
        filled = insert_list(head);
    } catch (const std::exception &) {  // no memory for a statement's text
        pthread_mutex_unlock(&shm_lock);
        closeDB();
        set_shm_default_vconf();
        return 0;
    }
    pthread_mutex_unlock(&shm_lock);
    if (!filled) return 0;
    if (closeDB() == -1) {
        LOGE("Unable to Close db : %s", db_path());
        return 0;
    }
    LOGD("Success in Closing db : %s", db_path());
    LOGE("Filling in Table PROCESS_INFO Ends");
    set_shm_default_vconf();
    return 0;
}
