// The first process of a set: makes its files, serves the control node and the remote control, starts the set's program
// and ends, and with it everything in the set, when that program ends or the launcher has gone.
//
// Messages on the link to the launcher: first the SetOptions, coming in; then going out {"ready"}, {"error": text},
// {"text": line}, and last {"exit": code} or {"signal": number}; coming in {"op": "stop", "grace": seconds}, {"op":
// "signal", "number": n},
// {"op": "kill"}. On the control socket, one request a connection:
//   {"op": "exec", "argv": [...], "directory": path, "term": text}, three descriptors beside it; answered by {"exit"},
//   {"signal"} or
//        {"error", "exit"}; meanwhile {"op": "signal", "number": n} is passed on, and a connection that closes hangs it
//        up
//   {"op": "stop", "grace": seconds}; answered by {"text": line}... and {"exit": 0} when the set's program is gone
//   {"op": "info"}; answered by {"name", "program", "pid", "daemon"}
#pragma once

#include <string>
#include <vector>

namespace vestra_set {

// Does all that on the message socket `link`. Returns only on failure, with an exit code: it has then been reported on
// the link.
int inner_init(int link, const std::vector<std::string> &program);

}  // namespace vestra_set
