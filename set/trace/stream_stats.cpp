#include "set/trace/stream_stats.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "trace/frame_writer.h"

namespace vestra_set {
namespace {

constexpr double kNanoseconds = 1e9;  // in a second

void count_frame(const DumpRecord &record, DumpReport *report) {
    const FrameCheck &frame = record.frame;
    const bool good = frame.verdict == FrameCheck::kGood;
    if (good) {
        ++report->frames[frame.type];
        report->frame_bytes += record.size;
    } else {
        ++report->refused_frames;
        report->refused_bytes += record.size;
    }
    report->messages += frame.messages;
    if (!frame.timed) return;
    report->first_ns = report->timed ? std::min(report->first_ns, frame.first_ns) : frame.first_ns;
    report->last_ns = report->timed ? std::max(report->last_ns, frame.last_ns) : frame.last_ns;
    report->timed = true;
}

}  // namespace

bool inspect_dump(const std::string &path, DumpReport *report, std::string *error) {
    const auto file = DumpFile::open(path, error);
    if (file == nullptr) return false;
    *report = DumpReport{};
    report->file_bytes = file->size();
    report->payload_bytes = file->payload_size();
    report->trailer = file->trailer();
    DumpRecord record;
    for (uint64_t offset = 0; (record = file->record(offset)).kind != DumpRecord::kEnd; offset += record.size) {
        switch (record.kind) {
            case DumpRecord::kEmpty:
                ++report->empty_records;
                break;
            case DumpRecord::kFrame:
                count_frame(record, report);
                break;
            default:
                ++report->damaged_spans;
                report->damaged_bytes += record.size;
                if (report->first_damaged.size() < DumpReport::kSpansKept) {
                    report->first_damaged.push_back({record.offset, record.size});
                }
        }
    }
    return true;
}

std::string describe(const DumpReport &report) {
    std::ostringstream out;
    out << report.file_bytes << " bytes, " << report.payload_bytes << " of them payload\n";
    const auto frames = [&](int type) { return report.frames.count(type) > 0 ? report.frames.at(type) : 0; };
    uint64_t others = 0;
    for (const auto &[type, count] : report.frames) others += type == kSwitchFrame || type == kMeminfoFrame ? 0 : count;
    out << "switch frames: " << frames(kSwitchFrame) << "\nCPU and memory frames: " << frames(kMeminfoFrame) << '\n';
    if (others > 0) out << "frames of other types: " << others << '\n';
    out << "messages: " << report.messages << '\n'
        << "empty records (ends of blocks): " << report.empty_records << '\n';
    if (report.timed) {
        const double seconds =
            (static_cast<double>(report.last_ns) - static_cast<double>(report.first_ns)) / kNanoseconds;
        out << "time stamps: " << report.first_ns << " to " << report.last_ns << " ns, " << std::fixed
            << std::setprecision(1) << seconds << " s\n";
    }
    if (report.refused_frames > 0) {
        out << "refused frames: " << report.refused_frames << ", " << report.refused_bytes << " bytes\n";
    }
    out << "damaged spans: " << report.damaged_spans << ", " << report.damaged_bytes << " bytes\n";
    for (const auto &span : report.first_damaged) out << "  at " << span.offset << ": " << span.size << " bytes\n";
    if (report.first_damaged.size() < report.damaged_spans) out << "  and more\n";
    if (!report.trailer) {
        out << "no trailer: cut short, or not written to its end\n";
        return out.str();
    }
    out << "build: " << report.trailer->build << "\nmodel: " << report.trailer->model << '\n';
    if (report.trailer->lite_mode) out << "lite mode: " << *report.trailer->lite_mode << '\n';
    return out.str();
}

}  // namespace vestra_set
