// Commands that the daemon writes into the control node. One write is one command.
//
//   0  1                      tracing off, on; a newline may follow
//   c-NUMBER-LENGTH-PAYLOAD   user data, at most 255 bytes, nothing after it:
//
//   NUMBER  LENGTH          PAYLOAD
//   0       4               temperature in degrees Celsius, decimal, may be negative
//   1, 2    4               the number again; 1: trace disk reads, 2: do not
//   3, 4    4               the number again; 3: trace disk writes, 4: do not
//   5       of the payload  five process ids, "%d|%d|%d|%d|%d"; 0 means none
//   6       of the payload  one process name, without control characters
//
// The 4 is the size of an integer in the sender, not its number of digits. Numbers are decimal and have no sign, no
// blank and no leading zero.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vestra_set {

struct NodeCommand {
    enum Kind { kTracing, kUserData } kind = kTracing;
    int number = 0;         // kTracing: 0 or 1; kUserData: 0..6
    int value = 0;          // numbers 0..4: the payload
    std::vector<int> pids;  // number 5: those that are not 0
    std::string name;       // number 6
    std::string payload;    // kUserData: as received
};

// What one write means, or nothing when it is malformed in any way.
std::optional<NodeCommand> parse_node_command(std::string_view text);

}  // namespace vestra_set
