#include "set/module_state.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "trace/frame_walk.h"

namespace vestra_set {
namespace {

constexpr size_t kRecentLimit = 256;
constexpr size_t kFilterNames = 5;    // the daemon sends at most 5 at a time
constexpr size_t kRefusedShown = 64;  // bytes of a refused text that are kept

double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Counts a block's frames by type. False when the block is not a whole number of frames.
bool count_frames(const uint8_t *block, size_t size, std::array<uint64_t, 256> *frames) {
    const uint8_t *const end = block + size;
    while (block != end) {
        const Record record = take_record(block, end);
        if (record.next == nullptr) return false;
        if (record.size > 0) ++(*frames)[record.frame[0]];
        block = record.next;
    }
    return true;
}

}  // namespace

void ModuleState::reset() {
    const std::lock_guard<std::mutex> guard(mutex_);
    control_ = ModuleControl();
    temperature_known_ = false;
    ++loads_;
    ++control_version_;
}

int ModuleState::write(std::string_view text) {
    const auto command = parse_node_command(text);
    const std::lock_guard<std::mutex> guard(mutex_);
    ++writes_;
    if (!command) {
        ++refused_;
        last_refused_ = text.substr(0, kRefusedShown);
        return EINVAL;
    }
    if (text.back() == '\n') text.remove_suffix(1);
    if (!recent_.empty() && recent_.back().text == text) {
        // A temperature comes every second and would push all other commands out.
        recent_.back() = {now(), std::string(text), recent_.back().count + 1};
    } else {
        recent_.push_back({now(), std::string(text), 1});
    }
    if (recent_.size() > kRecentLimit) recent_.pop_front();
    apply(*command);
    return 0;
}

void ModuleState::apply(const NodeCommand &command) {
    ++control_version_;
    if (command.kind == NodeCommand::kTracing) {
        control_.tracing = command.number == 1;
        return;
    }
    Tally &tally = commands_[command.number];
    ++tally.count;
    tally.payload = command.payload;
    switch (command.number) {
        case 0:
            control_.temperature = command.value;
            temperature_known_ = true;
            break;
        case 1:
            control_.disk_read = true;
            break;
        case 2:
            control_.disk_read = false;
            break;
        case 3:
            control_.disk_write = true;
            break;
        case 4:
            control_.disk_write = false;
            break;
        case 5:
            control_.pids = command.pids;
            break;
        default: {
            // A command has one name and does not say whether it begins a list.
            // So the list is the newest five different names.
            auto &names = control_.names;
            names.erase(std::remove(names.begin(), names.end(), command.name), names.end());
            names.push_back(command.name);
            if (names.size() > kFilterNames) names.erase(names.begin());
        }
    }
}

void ModuleState::count_read(const uint8_t *block, size_t size) {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++reads_;
    if (size == 0) {
        ++empty_reads_;
        return;
    }
    ++blocks_;
    bytes_ += size;
    if (!count_frames(block, size, &frames_)) ++damaged_blocks_;
}

void ModuleState::count_failed_read() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++reads_;
    ++failed_reads_;
}

ModuleControl ModuleState::control() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return control_;
}

uint64_t ModuleState::control_version() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return control_version_;
}

nlohmann::json ModuleState::status() const {
    using nlohmann::json;
    const std::lock_guard<std::mutex> guard(mutex_);
    json frames = json::object();
    for (size_t type = 0; type < frames_.size(); ++type) {
        if (frames_[type] != 0) frames[std::to_string(type)] = frames_[type];
    }
    json commands = json::object();
    for (const auto &[number, tally] : commands_) {
        commands[std::to_string(number)] = {{"count", tally.count}, {"payload", tally.payload}};
    }
    json recent = json::array();
    for (const Recent &entry : recent_) {
        recent.push_back({{"time", entry.time}, {"command", entry.text}, {"count", entry.count}});
    }
    return {{"loads", loads_},
            {"tracing", control_.tracing},
            {"disk_read", control_.disk_read},
            {"disk_write", control_.disk_write},
            {"temperature", temperature_known_ ? json(control_.temperature) : json(nullptr)},
            {"filter", {{"names", control_.names}, {"pids", control_.pids}}},
            {"reads", {{"total", reads_}, {"empty", empty_reads_}, {"failed", failed_reads_}}},
            {"blocks", blocks_},
            {"bytes", bytes_},
            {"frames", frames},
            {"damaged_blocks", damaged_blocks_},
            {"writes", writes_},
            {"refused", refused_},
            {"last_refused", last_refused_},
            {"commands", commands},
            {"recent", recent}};
}

}  // namespace vestra_set
