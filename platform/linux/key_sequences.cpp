#include "platform/linux/key_sequences.h"

#include <libevdev/libevdev.h>

#include <algorithm>
#include <cctype>

namespace {

constexpr int64_t kStepLimit = 3'000'000;  // us

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    while (!text.empty()) {
        const size_t end = std::min(text.find(separator), text.size());
        if (end > 0) parts.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

// A key's code, or -1.
int code_of(std::string name) {
    for (char &c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (name.compare(0, 4, "KEY_") != 0 && name.compare(0, 4, "BTN_") != 0) name.insert(0, "KEY_");
    return libevdev_event_code_from_name(EV_KEY, name.c_str());
}

}  // namespace

std::string KeySequences::parse(std::string_view text, Sequence *sequence) {
    for (const std::string &step : split(text, ' ')) {
        Step codes;
        for (const std::string &name : split(step, '+')) {
            const int code = code_of(name);
            if (code < 0) return "no key has the name \"" + name + "\"";
            codes.insert(code);
        }
        if (codes.empty()) return "\"" + step + "\" names no key";
        sequence->steps.push_back(std::move(codes));
    }
    return {};
}

std::string KeySequences::add(int combination, std::string_view text) {
    std::vector<Sequence> added;
    for (const std::string &alternative : split(text, ';')) {
        Sequence sequence;
        sequence.combination = combination;
        std::string problem = parse(alternative, &sequence);
        if (!problem.empty()) return problem;
        if (!sequence.steps.empty()) added.push_back(std::move(sequence));
    }
    if (added.empty()) return "no keys";
    for (Sequence &sequence : added) {
        for (const Step &step : sequence.steps) codes_.insert(step.begin(), step.end());
        sequences_.push_back(std::move(sequence));
    }
    return {};
}

bool KeySequences::advance(Sequence *sequence, int code, int64_t time_us, const std::function<bool(int)> &held) {
    std::vector<Progress> begun;
    begun.swap(sequence->begun);
    begun.push_back({0, time_us});
    for (const Progress &progress : begun) {
        const Step &step = sequence->steps[progress.done];
        if (step.count(code) == 0 || time_us - progress.time_us > kStepLimit) continue;
        if (!std::all_of(step.begin(), step.end(), [&](int key) { return key == code || held(key); })) {
            if (progress.done > 0) sequence->begun.push_back(progress);  // its other keys may follow
        } else if (progress.done + 1 == sequence->steps.size()) {
            sequence->begun.clear();
            return true;
        } else {
            sequence->begun.push_back({progress.done + 1, time_us});
        }
    }
    return false;
}

std::vector<int> KeySequences::press(int code, int64_t time_us, const std::function<bool(int)> &held) {
    std::vector<int> complete;
    for (Sequence &sequence : sequences_) {
        if (advance(&sequence, code, time_us, held) &&
            std::find(complete.begin(), complete.end(), sequence.combination) == complete.end()) {
            complete.push_back(sequence.combination);
        }
    }
    return complete;
}
