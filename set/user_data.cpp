#include "set/user_data.h"

#include <algorithm>
#include <charconv>

namespace vestra_set {
namespace {

constexpr size_t kCommandLimit = 255;  // what fits into the sender's buffer
constexpr int kIntegerLength = 4;
constexpr size_t kFilterIds = 5;

// A whole text as a decimal number that fits an int.
std::optional<int> to_number(std::string_view text) {
    const std::string_view digits = text.substr(!text.empty() && text[0] == '-' ? 1 : 0);
    if (digits.empty() || digits[0] < '0' || digits[0] > '9' || (digits[0] == '0' && text.size() > 1))
        return std::nullopt;
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// Removes the text up to the next `separator`, and that, from `rest`; nothing if there is no separator.
std::optional<std::string_view> take_field(std::string_view *rest, char separator) {
    const size_t end = rest->find(separator);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view field = rest->substr(0, end);
    rest->remove_prefix(end + 1);
    return field;
}

bool parse_ids(std::string_view payload, std::vector<int> *ids) {
    for (size_t i = 0; i < kFilterIds; ++i) {
        const auto field = i + 1 < kFilterIds ? take_field(&payload, '|') : payload;
        const auto id = field ? to_number(*field) : std::nullopt;
        if (!id || *id < 0) return false;
        if (*id > 0) ids->push_back(*id);
    }
    return true;
}

bool parse_payload(std::string_view payload, int length, NodeCommand *command) {
    if (command->number <= 4) {
        const auto value = to_number(payload);
        if (!value || length != kIntegerLength || (command->number != 0 && *value != command->number)) return false;
        command->value = *value;
        return true;
    }
    if (length < 0 || static_cast<size_t>(length) != payload.size()) return false;
    if (command->number == 5) return parse_ids(payload, &command->pids);
    const auto printable = [](unsigned char c) { return c >= 0x20 && c != 0x7f; };
    if (payload.empty() || !std::all_of(payload.begin(), payload.end(), printable)) return false;
    command->name = payload;
    return true;
}

}  // namespace

std::optional<NodeCommand> parse_node_command(std::string_view text) {
    NodeCommand command;
    if (text == "0" || text == "0\n" || text == "1" || text == "1\n") {
        command.number = text[0] - '0';
        return command;
    }
    if (text.size() > kCommandLimit || text.substr(0, 2) != "c-") return std::nullopt;
    text.remove_prefix(2);
    const auto number_field = take_field(&text, '-');
    const auto length_field = number_field ? take_field(&text, '-') : std::nullopt;
    if (!length_field) return std::nullopt;
    const auto number = to_number(*number_field);
    const auto length = to_number(*length_field);
    if (!number || !length || *number < 0 || *number > 6) return std::nullopt;
    command.kind = NodeCommand::kUserData;
    command.number = *number;
    command.payload = text;
    if (!parse_payload(text, *length, &command)) return std::nullopt;
    return command;
}

}  // namespace vestra_set
