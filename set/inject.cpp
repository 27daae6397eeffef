#include "set/inject.h"

#include <cerrno>
#include <sstream>

#include "set/files.h"

namespace vestra_set {

Injector::Verdict Injector::next() {
    const std::lock_guard<std::mutex> guard(mutex_);
    struct stat now {};  // stays so without a file
    stat(path_.c_str(), &now);
    if (now.st_ino != loaded_.st_ino || now.st_mtim.tv_sec != loaded_.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != loaded_.st_mtim.tv_nsec) {
        loaded_ = now;
        load();
    }
    if (stall_) return {Verdict::kStall, 0, SIZE_MAX};
    if (errors_ > 0) {
        --errors_;
        return {Verdict::kError, error_, SIZE_MAX};
    }
    if (empty_ > 0) {
        --empty_;
        return {Verdict::kEmpty, 0, SIZE_MAX};
    }
    return {Verdict::kRead, 0, size_limit_};
}

void Injector::load() {
    empty_ = errors_ = 0;
    stall_ = false;
    size_limit_ = SIZE_MAX;
    std::istringstream lines(read_file(path_).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string knob;
        uint32_t number = 0;
        words >> knob;
        if (knob == "stall") stall_ = true;
        if (!(words >> number)) continue;
        if (knob == "empty") empty_ = number;
        if (knob == "size") size_limit_ = number;
        if (knob == "error") {
            errors_ = number;
            if (!(words >> error_) || error_ <= 0 || error_ > 4095) error_ = EIO;
        }
    }
}

}  // namespace vestra_set
