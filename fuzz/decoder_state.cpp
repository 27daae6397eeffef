#include "fuzz/decoder_state.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_env.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestrad.h"

namespace vestra_fuzz {
namespace {

constexpr int64_t kSecond = trace::kNsPerSecond;

// True also for NaN, which two samples with the same time give.
bool not_negative(double value) {
    return !(value < 0);
}

bool is_slot(int index) {
    return index >= 0 && index < kSlotCount;
}

bool belongs(int64_t time, int slot) {
    return time >= 0 && time / kSecond % kSlotCount == slot;
}

bool in_run(const _SYSDATA_ &slot) {
    return slot.timestamp != 0 && (slot.flags & kFlagSwitch) != 0;
}

void check_slot(const _SYSDATA_ &slot, int index) {
    FUZZ_RULE((slot.flags & ~(kFlagSwitch | kFlagMeminfo)) == 0, "a slot holds no unknown flag");
    if (slot.flags == 0) {
        FUZZ_RULE(slot.timestamp == 0, "a slot with a time holds a sample");
        FUZZ_RULE(slot.pid == -1 && slot.element1 == -1, "a slot that was never written is as at the start");
    } else {
        FUZZ_RULE(belongs(slot.timestamp, index), "a slot's time belongs to it");
    }
    if ((slot.flags & kFlagSwitch) != 0) {
        FUZZ_RULE(belongs(slot.switch_timestamp, index), "the time of a slot's switch sample belongs to it");
    }
    FUZZ_RULE(slot.aux_time == 0, "the third time is not used");
    for (const double percent :
         {slot.cpu_total_percent, slot.cpu_system_percent, slot.cpu_user_percent, slot.iowait_percent}) {
        FUZZ_RULE(not_negative(percent), "a percentage is not negative");
    }
}

void check_run() {
    find_valid_index();
    FUZZ_RULE(is_slot(valid_index), "the run begins in the ring");
    int length = 0;
    const auto back = [](int steps) { return collectedData[(last_index - steps + kSlotCount) % kSlotCount]; };
    while (length < kSlotCount && in_run(back(length))) ++length;
    // In a ring without a gap the run begins right after the head, once around. If the head has no sample, the run is
    // empty and begins after the head, too.
    const int begin = length == kSlotCount ? last_index + 1 : last_index - length + 1;
    FUZZ_RULE((begin + kSlotCount) % kSlotCount == valid_index, "the run is the longest one that ends at the head");
}

}  // namespace

void check_ring() {
    FUZZ_RULE(is_slot(last_index) && is_slot(maxTimeIndex), "the head is in the ring");
    FUZZ_RULE(valid_index >= -1 && valid_index < kSlotCount, "the run begins in the ring, or its start is unknown");
    FUZZ_RULE(maxTimeValue == -1 || belongs(maxTimeValue, maxTimeIndex), "the newest time belongs to its slot");
    for (int i = 0; i < kSlotCount; ++i) {
        check_slot(collectedData[i], i);
        FUZZ_RULE(timestampToIndex[i] == -1 && indexToTimestamp[i] == -1, "the maps stay unused");
    }
    check_run();
    FUZZ_RULE(g_CPUSampleCnt >= 0 && g_CPUSampleCnt < kCpuSampleCount, "there is room for the next CPU sample");
    FUZZ_RULE(g_CPUValidSample == kCpuSampleCount || g_CPUValidSample == g_CPUSampleCnt,
              "all CPU samples that were added are kept");
    for (int i = 0; i < g_CPUValidSample; ++i)
        FUZZ_RULE(not_negative(g_CPUTotalPer[i]), "a CPU sample is not negative");
    FUZZ_RULE(not_negative(g_CPUTotalPercent), "the peak is not negative");
}

void check_list() {
    const circ_buf_shm *newer = nullptr;
    int64_t charge = 0;
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; newer = node, node = node->next) {
        FUZZ_RULE(node->prev == newer, "the list is linked both ways");
        charge += kListNodeCharge + static_cast<int64_t>(node->timestamp.size() + node->name.size());
        FUZZ_RULE(charge <= kListLimit, "the list does not grow beyond its limit");
        const long long time = strtoll(node->timestamp.c_str(), nullptr, 10);
        FUZZ_RULE(node->timestamp == std::to_string(time), "a node's time is a number's decimal text");
        FUZZ_RULE(node->name.size() <= trace::kNameKept && node->name.find('\0') == std::string::npos,
                  "a node's name is at most 14 bytes without a zero");
        FUZZ_RULE(not_negative(node->cpu), "a node's percentage is not negative");
    }
    FUZZ_RULE(last_node == newer, "the list ends at its tail");
    FUZZ_RULE(shm_list_size == charge, "the list's size is the sum of its nodes' charges");
}

void check_history() {
    for (int i = 0; i < kHistRecords; ++i) {
        const __VestraProcCPUUsageHist__ &record = gProcCpuUsageHist[i];
        if (record.pid == -1) {
            const bool nothing = record.timestamp == 0 && record.cpu_time_a == 0 && record.cpu_time_b == 0 &&
                                 record.element1 == -1 && record.total_percent == 0 && record.name.empty();
            FUZZ_RULE(nothing, "an unused record is empty");
            continue;
        }
        FUZZ_RULE(record.name.size() <= trace::kNameKept, "a record's name is at most 14 bytes");
        FUZZ_RULE(record.name.empty() || vesrta_checkhash_hist(record.pid) == i,
                  "a process lookup finds the record with the name");
        for (const double percent : {record.total_percent, record.percent_a, record.percent_b}) {
            FUZZ_RULE(not_negative(percent), "a percentage is not negative");
        }
    }
    const __VestraProcCPUUsageHist__ &extra = gProcCpuUsageHist[kHistRecords];
    FUZZ_RULE(extra.pid == 0 && extra.timestamp == 0 && extra.name.empty(), "the extra record stays unused");
}

void check_decoder() {
    check_ring();
    check_list();
    check_history();
    for (pthread_mutex_t *mutex : {&shm_lock, &lock}) {
        FUZZ_RULE(pthread_mutex_trylock(mutex) == 0, "no lock is held");
        pthread_mutex_unlock(mutex);
    }
}

void reset_decoder() {
    free_bufs_shm(&ghead_shm);
    last_node = nullptr;
    shm_list_size = 0;
    static bool begun = false;
    if (!begun) init_collected_data();
    begun = true;
    pos = last_index = maxTimeIndex = g_CPUSampleCnt = g_CPUValidSample = 0;
    valid_index = -1;
    maxTimeValue = -1;
    g_CPUTotalPercent = 0;
    for (double &sample : g_CPUTotalPer) sample = 0;
    for (_SYSDATA_ &slot : collectedData) {
        slot = {};
        slot.element1 = slot.pid = -1;
    }
    for (int i = 0; i < kHistRecords; ++i) {
        if (gProcCpuUsageHist[i].pid != -1) gProcCpuUsageHist[i] = {0, -1, -1, 0, 0, 0, 0, 0, std::string()};
    }
    exit_flag = 0;
}

}  // namespace vestra_fuzz
