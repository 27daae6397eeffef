// One write to the control node, handled by the simulated module.
//
// Rules: each accepted command has exactly one spelling, which can be rebuilt from its parts. The state counts and
// shows it. A refused write changes only the counters. The state can be printed after any write.

#include <algorithm>
#include <cerrno>
#include <string>

#include "fuzz/fuzz_env.h"
#include "set/module_state.h"
#include "set/user_data.h"

namespace {

using vestra_set::NodeCommand;

std::string spelled(const NodeCommand &command) {
    if (command.kind == NodeCommand::kTracing) return std::to_string(command.number);
    std::string payload = command.number == 6 ? command.name : command.payload;
    if (command.number <= 4) payload = std::to_string(command.number == 0 ? command.value : command.number);
    const std::string length = command.number <= 4 ? "4" : std::to_string(payload.size());
    return "c-" + std::to_string(command.number) + "-" + length + "-" + payload;
}

}  // namespace

void vestra_fuzz::prepare() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const auto command = vestra_set::parse_node_command(text);
    vestra_set::ModuleState state;
    const uint64_t before = state.control_version();
    const int result = state.write(text);
    FUZZ_RULE(result == (command ? 0 : EINVAL), "a write succeeds if the parser accepts it");
    FUZZ_RULE((state.control_version() == before) == !command, "only accepted commands change the module");
    const auto status = state.status();
    FUZZ_RULE(status["refused"] == (command ? 0 : 1) && status["writes"] == 1, "every write is counted");
    const std::string shown = status.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    FUZZ_RULE(!shown.empty(), "the state can be printed");
    if (!command) return 0;
    std::string written(text);
    if (command->kind == NodeCommand::kTracing && written.back() == '\n') written.pop_back();
    FUZZ_RULE(spelled(*command) == written, "a command can be rebuilt from its parts");
    const auto &ids = command->pids;
    FUZZ_RULE(ids.size() <= 5 && std::all_of(ids.begin(), ids.end(), [](int id) { return id > 0; }),
              "at most five process ids, above 0");
    FUZZ_RULE(text.size() <= 255, "no command is longer than the sender's buffer");
    return 0;
}
