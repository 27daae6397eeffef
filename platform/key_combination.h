// key_combination.h -- the set's key-combination library.
//
// The set promises: a handler is called on the main loop's thread when its combination is pressed on the remote
// control. The stand-in: a press is a file *.press in the state directory's keys/, with the combination's number as its
// text. Each is removed and delivered once, in the order of their names, on the thread of GLib's default main context;
// presses that come while a handler runs are delivered after it. A file that holds no number is removed with a log
// line, and so is, without one, a press that nobody handles. Differs from the set: presses dropped before the first
// handler was there are delivered too.
#pragma once

extern "C" {

typedef int _KeyComb;  // number of a combination
typedef void (*KeyCombination_Handler)(_KeyComb combination, void *user_data);

// Connects to the service. Non-zero for success, 0 for failure (the library's way).
int KeyCombination_Initialize(void);

// Calls `handler` for each press of `combination`, with null user data. Several handlers may have one combination; the
// same pair twice counts once. Non-zero for success, 0 for failure (also when the library is not initialised). Any
// thread, also from inside a handler.
int KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler);

/* ------------------------------ The stand-in's remote side ------------------------------ */

// For the launcher and for tests; no set has it. Presses `combination`. 0, or -1 with a log line and errno. Any
// process.
int key_combination_drop(_KeyComb combination);

}  // extern "C"
