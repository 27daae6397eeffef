#include "set/trace/source.h"

#include "set/trace/host_source.h"
#include "set/trace/replay_source.h"
#include "set/trace/synthetic_source.h"

namespace vestra_set {
namespace {

constexpr double kSlowestSampling = 0.01;  // a second
constexpr double kFastestSampling = 100;
constexpr double kFastestBlocks = 10000;
constexpr uint32_t kLeastBlock = 64;  // bytes

bool within(double value, double low, double high) {
    return value >= low && value <= high;
}

}  // namespace

TraceSource::~TraceSource() = default;

std::unique_ptr<TraceSource> make_source(const SourceOptions &options, std::string *error) {
    const bool host = options.kind == "host";
    if (options.block_size != 0 && (options.block_size < kLeastBlock || options.block_size > kBlockMax)) {
        *error = "block size " + std::to_string(options.block_size) + ": must be 64 to 131072 bytes";
        return nullptr;
    }
    // NaN fails here, too.
    if (options.rate != 0 && !within(options.rate, kSlowestSampling, host ? kFastestSampling : kFastestBlocks)) {
        *error = "rate " + std::to_string(options.rate) + ": must be 0.01 to " +
                 (host ? "100 samples" : "10000 blocks") + " a second";
        return nullptr;
    }
    if (!options.faults.empty() && options.kind != "synthetic") {
        *error = "faults: only the synthetic source has any";
        return nullptr;
    }
    if (host) return make_host_source(options, error);
    if (options.kind == "synthetic") return make_synthetic_source(options, error);
    if (options.kind == "replay") return make_replay_source(options, error);
    *error = "source \"" + options.kind + "\": must be host, synthetic or replay";
    return nullptr;
}

}  // namespace vestra_set
