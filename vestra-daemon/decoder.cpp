// decoder.cpp -- the trace decoder and what it keeps.
//
// Divisions, in order:
//   1 Limits                  2 Field readers   3 CPU history        4 Per-process memory list
//   5 Vitals store            6 Window statistics
//   7 Message formats         8 Message decoders                     9 Walkers
//  10 History database       11 Database fill
// The wire format is in trace/trace_format.h, how percentages are computed in trace/percentages.h.
//
// A block enters at decode_file (9), which copies frame by frame into frameData and walks the messages; a message is
// read whole (8) before anything is stored: CPU history (3), memory list (4), then the ring (5).
//
// Threads: the reader runs everything but 6 (client thread), 10 and 11 (main thread). The ring is read by the client
// thread without a lock; what it takes from there it checks before it indexes. Lock order: `lock` (vestrad.cpp), then
// shm_lock. Counters come from outside: their sums, differences and products wrap.

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
#include "vestra-daemon/vestrad.h"

using namespace trace;

/* ------------------------------ 1. Limits ------------------------------ */

static constexpr int kTerminatedKept = 20;                // bytes of a terminated string's block, terminator included
static constexpr int64_t kStaleAfter = 8 * kNsPerSecond;  // a slot that much older holds a second of the lap before

// Slot of a time. The whole seconds are the quotient toward zero; a time before 0 counts back from the ring's end.
static int slot_of(int64_t time) {
    const auto slot = static_cast<int>(time / kNsPerSecond % kSlotCount);
    return slot < 0 ? slot + kSlotCount : slot;
}

// What all times of one second share. Worked out once for each second that samples come from: divisions of 64 bits, for
// which a 32-bit set has no instruction.
struct Second {
    int64_t start;  // ns
    int slot;
    size_t digits;  // of `text`; 0 for the first second, in which a time has none in front of its nanoseconds
    char text[10];  // the number of the second, which is at most 9223372036
};

// The second of a time that is not negative. Reader thread; holds until the next call.
static const Second &second_of(int64_t time) {
    static Second second = {};
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

// Results of the walkers' reads and of the message decoders; reader thread. The five of the per-core block hold the
// core read last.
retIntStruct retIs, utimeIs, stimeIs, idletimeIs, temperatureIs, iowaittimeIs;
retCharStruct retCs;  // of the byte string that could not be read last; one that can is used where it stands

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
    // Too long for what is left of the frame, which is therefore all that is allocated and shown (or no memory at all).
    const auto copied = static_cast<size_t>(count <= left ? 0 : left);
    auto *text = static_cast<char *>(calloc(copied + 1, 1));
    if (text != nullptr && copied > 0) memcpy(text, frame + offset, copied);
    LOGW(STRING_CORRUPTED, offset, frame_len, static_cast<int>(copied), text != nullptr ? text : "");
    free(text);
}

/* ------------------------------ 3. CPU history ------------------------------ */

// The table; the record behind the last index is never used. Reader thread only.
__VestraProcCPUUsageHist__ gProcCpuUsageHist[kHistRecords + 1];

// The table's used records by the home index of their process: a search is over when it has met as many. Kept by
// HistoryPid. At program start every pid is 0.
static uint16_t home_counts[kHistRecords] = {kHistRecords};

static int home_index(int pid) {
    return static_cast<int>(static_cast<uint32_t>(pid) & (kHistRecords - 1));
}

HistoryPid &HistoryPid::operator=(const HistoryPid &other) {
    const int32_t before = std::exchange(pid_, other.pid_);
    const auto offset = reinterpret_cast<uintptr_t>(this) - reinterpret_cast<uintptr_t>(gProcCpuUsageHist);
    if (before == pid_ || offset >= kHistRecords * sizeof(__VestraProcCPUUsageHist__)) return *this;
    if (before != -1) --home_counts[home_index(before)];
    if (pid_ != -1) ++home_counts[home_index(pid_)];
    return *this;
}

static int next_index(int index) {
    return (index + 1) & (kHistRecords - 1);
}

int vesrta_hash_init_hist() {
    for (int i = 0; i < kHistRecords; ++i) gProcCpuUsageHist[i] = {0, -1, -1, 0, 0, 0, 0, 0, std::string()};
    return 0;
}

int vesrta_gethash_hist(int pid) {
    if (pid == -1) return -1;
    int index = home_index(pid);
    for (int probe = 0; probe < kHistRecords; ++probe, index = next_index(index)) {
        __VestraProcCPUUsageHist__ &record = gProcCpuUsageHist[index];
        if (record.pid == -1) {
            record.pid = pid;
            return index;
        }
        if (record.name.empty()) return index;
    }
    return -1;
}

int vesrta_checkhash_hist(int pid) {
    if (pid == -1) return -1;
    const int home = home_index(pid);
    // An unused record does not end the search: records were claimed before others in front of them became free. The
    // last record of this home does.
    int index = home, left = home_counts[home];
    for (int probe = 0; left > 0 && probe < kHistRecords; ++probe, index = next_index(index)) {
        const __VestraProcCPUUsageHist__ &record = gProcCpuUsageHist[index];
        if (record.pid == pid) return record.name.empty() ? -1 : index;
        if (record.pid != -1 && home_index(record.pid) == home) --left;
    }
    return -1;
}

int vesrta_get_process_data_hist(int pid, int /*unused*/, __VestraProcCPUUsageHist__ *out) {
    const int index = vesrta_checkhash_hist(pid);
    if (index != -1 && out != nullptr) *out = gProcCpuUsageHist[index];
    return index;
}

#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION "vestra_vital_update_cpuusage_hist"
// The record to store `pid` in: where it was found, or, when that is -1, a free one. Null when there is none.
static __VestraProcCPUUsageHist__ *hist_place(int found, int pid) {
    const int index = found != -1 ? found : vesrta_gethash_hist(pid);
    if (index != -1) return &gProcCpuUsageHist[index];
    if (pid != -1) LOGE("vestra: tvuc no space available ret = %d\n", index);
    return nullptr;
}
#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION operation_name(log_operation, __func__)

int vestra_vital_update_cpuusage_hist(__VestraProcCPUUsageHist__ *rec) {
    if (rec == nullptr) return -1;
    __VestraProcCPUUsageHist__ *record = hist_place(vesrta_checkhash_hist(rec->pid), rec->pid);
    if (record == nullptr) return -1;
    *record = *rec;
    return static_cast<int>(record - gProcCpuUsageHist);
}

// What a sample says about the CPU time of its process.
struct ProcessSample {
    int64_t timestamp;
    int32_t pid;
    int64_t cpu_time_a, cpu_time_b;
};

// Takes a sample into the history: percentages always span more than a second. The switch decoder gives the process's
// name; the slot writer has none (null) but gives `element1`: a process known by name keeps it, an unknown one is
// stored without, so that its record stays free. Returns the process's record as it stands now, null when the table is
// full.
static const __VestraProcCPUUsageHist__ *update_history(const ProcessSample &sample, const std::string *name,
                                                        int32_t element1) {
    const int index = vesrta_checkhash_hist(sample.pid);
    const bool fresh = index == -1 || gProcCpuUsageHist[index].timestamp == 0;
    double percent_total = 0, percent_a = 0, percent_b = 0;
    if (!fresh) {
        const __VestraProcCPUUsageHist__ &known = gProcCpuUsageHist[index];
        if (known.timestamp >= sample.timestamp) return &known;
        if (known.cpu_time_a == sample.cpu_time_a && known.cpu_time_b == sample.cpu_time_b) return &known;
        const uint64_t interval = distance(sample.timestamp, known.timestamp);
        if (interval <= kNsPerSecond) return &known;
        const double interval_ms = static_cast<double>(interval) / 1000000;
        const double ticks = ticks_in(interval_ms / 1000);
        percent_b = percent_of(sample.cpu_time_b, known.cpu_time_b, ticks);
        percent_a = percent_of(sample.cpu_time_a, known.cpu_time_a, ticks);
        percent_total = percent_of(wrapping_sum(sample.cpu_time_a, sample.cpu_time_b),
                                   wrapping_sum(known.cpu_time_a, known.cpu_time_b), ticks);
    }
    __VestraProcCPUUsageHist__ *record = hist_place(index, sample.pid);
    if (record == nullptr) return nullptr;
    if (name == nullptr) {
        record->element1 = element1;
        if (index == -1) record->name.clear();
    } else {
        if (fresh) record->element1 = -1;
        if (record->name != *name) record->name = *name;
    }
    record->timestamp = sample.timestamp;
    record->pid = sample.pid;
    record->cpu_time_a = sample.cpu_time_a;
    record->cpu_time_b = sample.cpu_time_b;
    record->total_percent = percent_total;
    record->percent_a = percent_a;
    record->percent_b = percent_b;
    return record;
}

/* ------------------------------ 4. Per-process memory list ------------------------------ */

// Guards the three below. The reader links and trims under it, the main thread reads under it.
pthread_mutex_t shm_lock = PTHREAD_MUTEX_INITIALIZER;
circ_buf_shm *ghead_shm;  // newest node; null when the list is empty
circ_buf_shm *last_node;  // oldest node
static circ_buf_shm
    *spare_node;  // the node that fell off last, for the next one: at its bound the list allocates nothing. Reader only
int32_t shm_list_size;  // bytes: sum of node_charge over the list. The reader adds a node's before it takes the lock

static int32_t node_charge(const circ_buf_shm &node) {
    return kListNodeCharge + static_cast<int32_t>(node.timestamp.length() + node.name.length());
}

std::string ToString(long long value) {
    return std::to_string(value);
}

// Decimal text of a time. What stands in front of the nanoseconds is the same for all samples of a second.
static void set_time_text(int64_t time, std::string *text) {
    static constexpr size_t kFraction = 9;  // digits
    if (time < kNsPerSecond) {
        *text = ToString(time);
        return;
    }
    const Second &second = second_of(time);
    text->resize(second.digits + kFraction);
    char *to = text->data();
    memcpy(to, second.text, sizeof(second.text));  // always as many, of which the fraction takes some back
    to += second.digits;
    const auto fraction = static_cast<uint32_t>(time - second.start);
    // By threes: no division waits for many before it.
    for (const uint32_t three : {fraction / 1000000, fraction / 1000 % 1000, fraction % 1000}) {
        *to++ = static_cast<char>('0' + three / 100);
        *to++ = static_cast<char>('0' + three / 10 % 10);
        *to++ = static_cast<char>('0' + three % 10);
    }
}

circ_buf_shm *GetShmNode(process_mem *record, double cpu) {
    if (spare_node == nullptr) spare_node = new circ_buf_shm;
    // What can fail comes first: a node that was taken is always handed out.
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
    // Outside the lock: only the reader writes the size.
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

// All written by the reader thread and read by the client thread without a lock; valid_index is written by both.
_SYSDATA_ collectedData[kSlotCount];    // the ring: slot = seconds modulo 180
int64_t timestampToIndex[kSlotCount];   // -1 throughout; kept beside the ring for its layout, nobody reads it
int64_t indexToTimestamp[kSlotCount];   // likewise
int32_t last_index;                     // slot of the newest complete second
int32_t valid_index = -1;               // oldest slot of the unbroken run that ends at last_index; -1: not yet known
int32_t pos;                            // 0; nobody reads it
int64_t maxTimeValue = -1;              // ns, of the sample that moved last_index last; -1: none yet
int32_t maxTimeIndex;                   // slot of maxTimeValue
double g_CPUTotalPer[kCpuSampleCount];  // percent, ring of total CPU usage samples
int32_t g_CPUSampleCnt;                 // place of the next sample in it, 0..499
int32_t g_CPUValidSample;               // samples held, up to 500
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
    // The seventeen stand in one row (asserted with the record) but are members of their own: copied by their bytes.
    double value = 0;
    if (type >= kVitalCount) return value;
    const auto *row = reinterpret_cast<const char *>(&slot) + offsetof(_SYSDATA_, element10);
    memcpy(&value, row + type * sizeof(double), sizeof(double));
    return value;
}

void init_collected_data() {
    static constexpr int kSamplesCleared = 251;  // the others are written before they are read
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

#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION "fillData"
// fillData. `in_history`: the decoder has taken the sample into the CPU history, to which it adds nothing any more.
static int fill_slot(int slot, const _SYSDATA_ *sample, int frame_type, bool in_history) {
    if (frame_type != kSwitchFrame && frame_type != kMeminfoFrame) {
        LOGE("ERR:vestrad : Not handling frametype %d\n", frame_type);
        return last_index;
    }
    if (!is_slot(slot)) return last_index;
    _SYSDATA_ &data = collectedData[slot];
    // A second of the ring's lap before is not merged with the new one.
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

#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION operation_name(log_operation, __func__)

int fillData(int slot, _SYSDATA_ *sample, int frame_type, int /*message_type*/) {
    return fill_slot(slot, sample, frame_type, false);
}

void find_valid_index() {
    const int last = last_index;
    if (!is_slot(last)) return;
    int slot = last;
    do {
        const _SYSDATA_ &data = collectedData[slot];
        if (data.timestamp == 0 || (data.flags & kFlagSwitch) == 0) break;
        slot = slot_before(slot);
    } while (slot != last);
    valid_index = slot_after(slot);
}

// What the derived figures of a slot are made of, summed over the cores.
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

// Adds samples of total CPU usage; after each the average of all that are held may be a new peak.
//
// Every average is the sum from the first sample on, in that order. A pass adds up to 179 of them, so eight are summed
// side by side, and what stands in front of them only once.
static void add_cpu_samples(const double *samples, int count) {
    static constexpr int kTogether = 8;
    double head = 0;  // sum of what stands in front of the next place
    for (int i = 0; i < g_CPUSampleCnt; ++i) head += g_CPUTotalPer[i];
    while (count > 0) {
        const int place = g_CPUSampleCnt;
        const int together = std::min({count, kTogether, kCpuSampleCount - place});
        double sums[kTogether] = {};
        for (int j = 0; j < together; ++j) {
            head += samples[j];
            sums[j] = head;
            // The places of the samples that come after this one still count with what they held.
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

void calculateCPUAvgValues() {
    const int first = valid_index, last = last_index;
    if (!is_slot(first) || !is_slot(last)) return;
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
            // Kept as it stands: the first step of a run counts as a whole second however far apart its samples are;
            // clients compare figures with those of older sets.
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

#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION "groupData"
// groupData; `in_history` as above.
static void store_sample(const _SYSDATA_ *sample, int frame_type, bool in_history) {
    if (sample->timestamp < 0) {
        LOGE("ERR:vestrad : Not handling timestamp %lld\n", static_cast<long long>(sample->timestamp));
        return;
    }
    const int slot = second_of(sample->timestamp).slot;
    const int newest = fill_slot(slot, sample, frame_type, in_history);
    const bool first = maxTimeValue == -1;
    // Within one second the head stays, and so does maxTimeValue: it is the time of the sample that moved the head.
    if (!first && (newest == last_index || maxTimeValue >= sample->timestamp)) return;
    maxTimeValue = sample->timestamp;
    maxTimeIndex = slot;
    last_index = newest;
    if (first) return;
    find_valid_index();
    calculateCPUAvgValues();
}

#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION operation_name(log_operation, __func__)

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

// Calls visit(value) for the slots in the window, newest first: from the slot of `end` back to valid_index, or once
// around the ring while that is not known.
template <class Visit>
static void walk_window(int type, int window, int64_t end, Visit visit) {
    if (!is_vital(type)) return;
    const int oldest = valid_index;
    int slot = slot_of(end);
    for (int visited = 0; visited < kSlotCount; ++visited, slot = slot_before(slot)) {
        const _SYSDATA_ &data = collectedData[slot];
        int64_t until = 0;  // last moment that this slot is in a window's reach of
        if (__builtin_add_overflow(data.timestamp, window * kNsPerSecond, &until)) {
            until = window < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
        }
        if (until >= end) visit(vital(data, static_cast<unsigned>(type)));
        if (slot == oldest) break;
    }
}

double calculateMax(int type, int window, long long end) {
    double maximum = -1.0;
    walk_window(type, window, end, [&](double value) {
        if (maximum == -1.0 || maximum < value) maximum = value;
    });
    return maximum;
}

double calculateMin(int type, int window, long long end) {
    double minimum = -1.0;
    // Kept as it stands: the first value is taken whatever it is, later ones only above 0. Zeros are seconds without
    // data, and clients know a minimum of 0 as "newest second empty".
    walk_window(type, window, end, [&](double value) {
        if (minimum == -1.0 || (value > 0.0 && value < minimum)) minimum = value;
    });
    return minimum;
}

// A figure too large for a float becomes infinite, here and below.
static_assert(std::numeric_limits<float>::is_iec559);

float calculateAvg(int type, int window, long long end) {
    double sum = 0, count = 0;
    walk_window(type, window, end, [&](double value) {
        if (!(value > 0.0)) return;
        sum += value;
        ++count;
    });
    return static_cast<float>(sum / count);
}

float calculateVariance(int type, int window, long long end) {
    const double average = calculateAvg(type, window, end);
    double sum = 0, count = 0;
    walk_window(type, window, end, [&](double value) {
        if (!(value > 0.0)) return;
        sum += (value - average) * (value - average);
        ++count;
    });
    return static_cast<float>(sum / count);
}

void getTypeResult(_VestraData_ *out, int type, int window, long long end, int slot) {
    if (!is_vital(type)) {
        LOGE("ERR:vestra : Not a valid packetType\n");
        return;
    }
    if (window != 0) {
        *out = {calculateMax(type, window, end), calculateMin(type, window, end), calculateAvg(type, window, end),
                calculateVariance(type, window, end)};
        return;
    }
    if (!is_slot(slot)) return;
    const double value = vital(collectedData[slot], static_cast<unsigned>(type));
    *out = {value, value, value, 0.0};
}

void getResult(vestra_api_data *req, long long end, int slot) {
    _VestraData_ result = {req->maximum, req->minimum, req->average, req->variance};
    getTypeResult(&result, req->packet_type, req->window, end, slot);
    req->maximum = result.maximum;
    req->minimum = result.minimum;
    req->average = result.average;
    req->variance = result.variance;
}

void process_request(vestra_api_data *reqs, int count) {
    find_valid_index();
    const int64_t end = maxTimeValue;
    const int slot = last_index;
    if (count <= 1) {
        if (reqs[0].packet_type == kVestraUnused) return;
        getResult(&reqs[0], end, slot);
        LOGD("[vestra] [%s] %d %lf %lf, %lf, %lf\n", __func__, reqs[0].packet_type, reqs[0].maximum, reqs[0].minimum,
             reqs[0].average, reqs[0].variance);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const int type = reqs[i].packet_type;
        if (type == kVestraUnused) continue;
        if (type < 0 || type >= count) {
            LOGE("ERR:vestra : Not a valid packetType\n");
            continue;
        }
        // Kept as it stands: the type is the place in the array, so that request t must carry type t. Clients send it
        // so.
        vestra_api_data &request = reqs[type];
        getResult(&request, end, slot);
        LOGD("[vestra] [%s] %d %d %lf %lf, %lf, %lf\n", __func__, type, i, request.maximum, request.minimum,
             request.average, request.variance);
    }
}

/* ------------------------------ 7. Message formats ------------------------------ */
// The element tables of trace_format.h, with what is logged where an element cannot be read.

struct MessageFormat {
    const ElementKind *kinds;
    int elements;
    const char *varint_check, *length_check, *bytes_check;  // what is logged when an element cannot be read
    const char *count_check;                                // and then, or when the frame ends before the last
    // Kept as it stands: when the last is damaged but counts. No element does that.
    const char *guard_check;
};

#define CHECK_TEXT(text) VESTRA_LOG_PREFIX "vestra : " text
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
    // Kept as they stand: in the last three the point follows the blank. Log filters match them so.
    {&idletimeIs, &_SYSDATA_::idletime, CHECK_TEXT("12 .Corrupted" AT_TEXT " \n")},
    {&temperatureIs, &_SYSDATA_::temperature, CHECK_TEXT("13 .Corrupted" AT_TEXT " \n")},
    {&iowaittimeIs, &_SYSDATA_::iowaittime, CHECK_TEXT("14 .Corrupted" AT_TEXT " \n")},
};

static constexpr char kSwitchCores[] = CHECK_TEXT("15. Corrupted" AT_TEXT ", elm_count:%d \n");

/* ------------------------------ 8. Message decoders ------------------------------ */

// A line whose text stands in a table: the prefix and up to five integers, of which a text may leave out the last.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
[[gnu::cold]] static void log_check(int prio, const char *text, const char *function, int line, int a, int b, int c,
                                    int d, int e) {
    if (!dlog_wants(prio)) return;
    __dlog_print(LOG_ID_MAIN, prio, VESTRA_LOG_TAG, text, __FILE_NAME__, function, line, function, line, a, b, c, d, e);
}
#pragma GCC diagnostic pop

// Where a message stands.
//
// It is taken without a look at what may be wrong with it; one that cannot be taken is read again by the field readers,
// element by element, and reported.
struct MessagePlace {
    const char *function;  // the decoder's, for its log lines
    char *frame;
    int frame_len;
    int offset;  // of the body
    int message_type;

    const unsigned char *body() const { return bytes_at(frame, offset); }
    const unsigned char *end() const { return bytes_at(frame, frame_len); }
    int consumed(const unsigned char *at) const { return static_cast<int>(at - body()); }
};

// Takes a message's elements, its numbers into `value` and its string into *text. Returns what follows them, null when
// they are not all there. A loop that the compiler is made to unroll.
template <const MessageFormat &format, size_t... element>
static inline const unsigned char *take_elements(const MessagePlace &place, uint64_t *value, std::string_view *text,
                                                 std::index_sequence<element...> /*all*/) {
    const unsigned char *at = place.body(), *const end = place.end();
    const bool taken = (((at = take_element<format.kinds[element]>(at, end, &value[element], text)) != nullptr) && ...);
    return taken ? at : nullptr;
}

// Takes the five figures of a core into the sample, likewise. starts[i] gets the place of the i-th.
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

// The sample of the switch message that was taken last, of which the store takes what is set. It keeps the figures of
// its per-core block for the next message.
static _SYSDATA_ switch_sample;

// Takes the per-core block at `at` into switch_sample, likewise.
//
// The counters advance with the clock, 250 times a second, and messages come more often: a block that is, byte for
// byte, the one before has been taken already.
static inline const unsigned char *take_core_block(const unsigned char *at, const unsigned char *end) {
    static unsigned char block[kCoreCount * kCoreElements * kVarintMax];
    static size_t length;  // of the block before; 0 when it was damaged
    static retIntStruct results[kCoreElements];
    const size_t left = static_cast<size_t>(end - at);
    if (length == 0 || left < length || memcmp(at, block, length) != 0) {
        const unsigned char *const start = at;
        const unsigned char *starts[kCoreElements + 1];  // of the numbers of the core taken last
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

// Reads the varint at *at with its field reader and moves *at behind it. Reports one that cannot be read.
static bool read_number(const MessagePlace &place, const unsigned char **at, const char *check, retIntStruct *ret) {
    initiailizeRet(0, ret);
    get_unpackedInt(place.frame_len, place.offset + place.consumed(*at), place.frame, ret);
    if (ret->status == -1) {
        log_message(place, check, __LINE__, *at, 0);
        return false;
    }
    *at += ret->length;
    return true;
}

// Likewise a string: its length, then its bytes, which stay where they are. *at moves behind what could be read of it.
static bool read_string(const MessagePlace &place, const MessageFormat &format, const unsigned char **at) {
    retIntStruct length;
    if (!read_number(place, at, format.length_check, &length)) return false;
    if (length.value > 0 && length.value <= static_cast<uint64_t>(place.end() - *at)) {
        *at += length.value;
        return true;
    }
    // A length beyond an int is longer than any frame, which is all that matters of it.
    constexpr uint64_t kMost = std::numeric_limits<int>::max();
    initiailizeRet(1, &retCs);
    get_unpackedBytesWithLength(place.frame_len, place.offset + place.consumed(*at), place.frame,
                                static_cast<int>(std::min(length.value, kMost)), &retCs);
    log_message(place, format.bytes_check, __LINE__, *at, 0);
    return false;
}

// Reports what is wrong with a message's elements.
[[gnu::cold]] static void report_elements(const MessagePlace &place, const MessageFormat &format) {
    const unsigned char *at = place.body();
    int element = 0;
    for (; element < format.elements && at < place.end(); ++element) {
        retIntStruct number;
        const bool read = format.kinds[element] == kString ? read_string(place, format, &at)
                                                           : read_number(place, &at, format.varint_check, &number);
        if (!read) break;
    }
    log_message(place, element < format.elements ? format.count_check : format.guard_check, __LINE__, at, element);
}

// Reports what is wrong with the per-core block at `at`. The shared results get what could be read of it.
[[gnu::cold]] static void report_core_block(const MessagePlace &place, const unsigned char *at) {
    for (int number = 0; number < kCoreCount * kCoreElements; ++number) {
        const CoreCounter &counter = kCoreBlock[number % kCoreElements];
        if (!read_number(place, &at, counter.check, counter.read)) break;
    }
    log_message(place, kSwitchCores, __LINE__, at, kSwitchElements);
}

// Fetches what accounting is about to touch, the process's record and the list's two oldest nodes, while the rest of
// the message is read.
static inline void prefetch_process(int32_t pid) {
    const __VestraProcCPUUsageHist__ *record = &gProcCpuUsageHist[home_index(pid)];
    __builtin_prefetch(record);
    __builtin_prefetch(reinterpret_cast<const char *>(record + 1) - 1);
    // A list that was freed leaves last_node as it was.
    if (ghead_shm == nullptr || last_node->prev == nullptr) return;
    __builtin_prefetch(last_node);
    __builtin_prefetch(&last_node->prev->next);
}

// Takes a sample of a process into CPU history and memory list. *in_history: the history knows the process by name, and
// the sample, once seen, changes nothing in it. False without memory: the message is dropped, and whoever waits for the
// database is told not to.
static bool account_process(const _SYSDATA_ &sample, std::string_view name, uint64_t rss, uint64_t swap,
                            bool *in_history) {
    try {
        const size_t kept = std::min(kNameKept, name.length());
        process_mem record = {sample.timestamp, sample.pid, std::string(name.data(), strnlen(name.data(), kept)),
                              static_cast<int32_t>(rss), static_cast<int32_t>(swap)};
        // First, because it alone can fail: a message that is dropped leaves nothing in the history.
        circ_buf_shm *node = GetShmNode(&record, 0);
        const __VestraProcCPUUsageHist__ *known =
            update_history({sample.timestamp, sample.pid, sample.cpu_time_a, sample.cpu_time_b}, &record.name, -1);
        *in_history = known != nullptr && known->timestamp != 0 && !known->name.empty();
        if (node != nullptr) {
            node->cpu = known != nullptr ? known->total_percent : 0;
            insert_node(node);
        }
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
    const unsigned char *behind = take_core_block(cores, place.end());
    if (behind == nullptr) return report_core_block(place, cores);
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
    ret->length = place.consumed(behind);
    store_sample(&sample, kSwitchFrame, in_history);
}

void decode_cpumeminfoFrame(int /*frame_type*/, int frame_len, int offset, char *frame, int message_type,
                            int /*core_id*/, retIntStruct *ret) {
    const MessagePlace place = {__func__, frame, frame_len, offset, message_type};
    std::string_view name;  // nobody wants it
    uint64_t value[kMeminfoElements];
    const unsigned char *behind =
        take_elements<kMeminfoMessage>(place, value, &name, std::make_index_sequence<kMeminfoElements>());
    if (behind == nullptr) return report_elements(place, kMeminfoMessage);

    ret->status = 0;
    ret->length = place.consumed(behind);
    _SYSDATA_ sample;  // of which the store takes what is set here
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

// The frame that is being decoded. Longer than any frame, so that what is read is never the caller's block.
unsigned char frameData[kFrameMax + 1];

#define FRAME_AT_TEXT " at file_index:%d, frame index:%d, frame_len:%d, messageType:%d, offset:%d\n"
#define CORE_AT_TEXT " at file_index:%d, frame_index:%d, frame_len:%d, core_id:%d offset:%d\n"

// What the two walks differ in.
struct FrameFormat {
    const char *function;
    int type;
    void (*decode)(int, int, int, char *, int, int, retIntStruct *);
    int core_priority;
    const char *core_check, *type_check, *body_check, *range_check;
};
// A wrong core id is an error for switch frames and only a warning for the others, which not every module fills in.
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
    int type = 0;  // of the message, or of the one before while it is not yet read
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
        // Kept as it stands: a frame that ends exactly with the block is not decoded either. The module ends a block
        // with an empty frame record.
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
sqlite3 *db;      // the handle opened last; replaced at every open
char *dbPath;     // block of kDbPathSize bytes, set once by ProcessDbInit and never freed
const char *sql;  // the statement executed last while that is a constant one; null after a batch
char *zErrMsg;    // SQLite's text about it, until it is logged

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

// SQLite's text of the failed statement; where it left none (a handle that could not be opened), that of the handle.
static const char *sql_error() {
    return zErrMsg != nullptr ? zErrMsg : sqlite3_errmsg(db);
}

static void free_sql_error() {
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
}

static int execute(const char *statement) {
    sql = statement;
    zErrMsg = nullptr;
    return sqlite3_exec(db, statement, nullptr, nullptr, &zErrMsg);
}

int openDB() {
    // What a fill that failed has left open; else its descriptor would never be closed.
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
    if (execute(kDropTable) != 0) {
        LOGE("SQL error: %s", sql_error());
        free_sql_error();
    } else {
        LOGD("Table PROCESS_INFO DROPPED successfully");
    }
    if (execute(kCreateTable) != 0) {
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
    // Kept as it stands, here and at every use below: neither opening nor closing ever answers -1. A set whose storage
    // is gone must start all the same.
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

// A percentage without its fraction. Not a number becomes 0; what no 64-bit integer holds, the largest or smallest.
static long long whole_percent(double percent) {
    if (std::isnan(percent)) return 0;
    if (percent >= 0x1p63) return std::numeric_limits<long long>::max();
    if (percent < -0x1p63) return std::numeric_limits<long long>::min();
    return static_cast<long long>(percent);
}

// Appends up to kBatchRows rows from `node` on and the statement's end. Returns the last node written.
//
// Kept as it stands: a name is quoted but not escaped. One with a quote in it makes the statement fail, and the
// requester finds its key still set.
static const circ_buf_shm *append_rows(const circ_buf_shm *node, std::string *values) {
    std::string quoted;
    for (int rows = 1;; ++rows, node = node->next) {
        const bool closes = node->next == nullptr || rows == kBatchRows;
        quoted.assign(1, '"').append(node->name).append(1, '"');
        values->append("(").append(node->timestamp).append(",").append(ToString(node->pid)).append(",");
        values->append(quoted).append(",").append(ToString(node->rss)).append(",").append(ToString(node->swap));
        values->append(",").append(ToString(whole_percent(node->cpu))).append(")").append(closes ? ";" : ",");
        if (closes) return node;
    }
}

#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION "Process_Info_fill"
// Runs one batch from `node` on. Returns its last node; null when the fill is over because it failed.
static const circ_buf_shm *insert_batch(const circ_buf_shm *node) {
    std::string values = " ", statement = kInsertRows;
    const circ_buf_shm *closing = append_rows(node, &values);
    statement.append(values);
    auto *block = static_cast<char *>(malloc(statement.length() + 1));
    if (block == nullptr) return nullptr;
    memcpy(block, statement.c_str(), statement.length() + 1);
    const int result = execute(block);
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
#undef VESTRA_LOG_OPERATION
#define VESTRA_LOG_OPERATION operation_name(log_operation, __func__)

// The node to begin with: `head` as it was before the table was cleared, or, when the reader has let it fall off
// meanwhile, the newest one. The caller holds shm_lock.
static const circ_buf_shm *first_node(const circ_buf_shm *head) {
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; node = node->next) {
        if (node == head) return node;
    }
    return head == nullptr ? nullptr : ghead_shm;
}

// The caller holds shm_lock. False when a batch failed.
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
    const circ_buf_shm *head = __atomic_load_n(&ghead_shm, __ATOMIC_ACQUIRE);
    if (execute(kClearTable) != 0) {
        // Kept as it stands: the database stays open and the key set; the requester sees that nothing was written.
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
