// perfetto_fields.h -- the part of Perfetto's trace format that we write: messages, field numbers and constants, under the
// names that the format's documentation gives them (https://perfetto.dev/docs/reference/trace-packet-proto).
//
// A trace is protocol buffers: one packet after the other, each a field `kPacket` of the outermost message.
#pragma once

#include <cstdint>
#include <protozero/types.hpp>

namespace vestra_dump::perfetto {

constexpr protozero::pbf_tag_type kPacket = 1;

enum class TracePacket : protozero::pbf_tag_type {
    kProcessTree = 2,
    kClockSnapshot = 6,
    kSysStats = 7,
    kTimestamp = 8,  // ns; of the boot-time clock, as no other is named
    kProcessStats = 9,
    kSequenceId = 10,
    kTrackEvent = 11,
    kSequenceFlags = 13,
    kTrackDescriptor = 60,
    kFirstPacketOnSequence = 87,
    kMachineId = 98,
    kTraceAttributes = 126
};
constexpr uint32_t kIncrementalStateCleared = 1;  // of the sequence flags

enum class ClockSnapshot : protozero::pbf_tag_type { kClocks = 1, kPrimaryTraceClock = 2 };
enum class Clock : protozero::pbf_tag_type { kClockId = 1, kTimestamp = 2 };  // ns
constexpr uint32_t kRealtime = 1, kBoottime = 6;                              // clock ids

enum class TrackDescriptor : protozero::pbf_tag_type {
    kUuid = 1,
    kName = 2,
    kProcess = 3,
    kParentUuid = 5,
    kCounter = 8,
    kChildOrdering = 11,
    kSiblingOrderRank = 12,
    kDescription = 14
};
constexpr int32_t kOrderedByRank = 3;  // of the children
enum class ProcessDescriptor : protozero::pbf_tag_type { kPid = 1, kProcessName = 6 };
enum class CounterDescriptor : protozero::pbf_tag_type { kUnitName = 6, kYAxisShareKey = 7 };

enum class TrackEvent : protozero::pbf_tag_type {
    kDebugAnnotations = 4,
    kType = 9,
    kTrackUuid = 11,
    kCategories = 22,
    kName = 23,
    kCounterValue = 30,
    kDoubleCounterValue = 44
};
enum EventType : int32_t { kSliceBegin = 1, kSliceEnd = 2, kInstant = 3, kCounter = 4 };
enum class DebugAnnotation : protozero::pbf_tag_type {
    kUintValue = 3,
    kIntValue = 4,
    kDoubleValue = 5,
    kStringValue = 6,
    kName = 10
};

enum class ProcessTree : protozero::pbf_tag_type { kProcesses = 1 };
enum class TreeProcess : protozero::pbf_tag_type { kPid = 1, kParent = 2, kCommandLine = 3 };
enum class ProcessStats : protozero::pbf_tag_type { kProcesses = 1, kCollectionEnd = 2 };  // ns
enum class StatsProcess : protozero::pbf_tag_type { kPid = 1, kRssKb = 3, kSwapKb = 7 };

enum class SysStats : protozero::pbf_tag_type { kMeminfo = 1, kCpuStat = 3 };
enum class MeminfoValue : protozero::pbf_tag_type { kKey = 1, kValue = 2 };  // KiB
enum MeminfoKey : int32_t { kMemFree = 2, kMemAvailable = 3, kCached = 5 };
enum class CpuTimes : protozero::pbf_tag_type { kCpuId = 1, kUserNs = 2, kSystemNs = 4, kIdleNs = 5, kIoWaitNs = 6 };

enum class TraceAttributes : protozero::pbf_tag_type { kAttribute = 1 };
enum class Attribute : protozero::pbf_tag_type { kKey = 1, kLongValue = 2, kStringValue = 3 };

}  // namespace vestra_dump::perfetto
