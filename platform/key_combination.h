// key_combination.h -- the set's key-combination library.
//
// The set promises: a handler is called on the main loop's thread when its combination is
// pressed on the remote control.
//
// linux: /etc/vestrad/keys.conf says which keys are which combination (linux/key_sequences.h). Input devices that have
// one of these keys are read, also those that are plugged later. Initialising succeeds without a device and without the
// file. While a handler runs, the kernel keeps the newest 64 events or more of each device; presses beyond are lost.
//
// simulated: a press is a file *.press in the state directory's keys/; its text is the number of the combination.
// Each press is removed and delivered once, in the order of the file names, on the thread of GLib's default main
// context. Presses that arrive while a handler runs are delivered after it returns. A file that does not hold a
// number is removed with a log line. A press without a handler is removed silently.
// There, presses from before the first handler was registered are delivered too.
#pragma once

extern "C" {

typedef int _KeyComb;  // number of a combination
typedef void (*KeyCombination_Handler)(_KeyComb combination, void *user_data);

// Connects to the service. Returns non-zero for success and 0 for failure, as the set's library does.
int KeyCombination_Initialize(void);

// Calls `handler` for each press of `combination`, with null user data. A combination may have several handlers; adding
// the same pair again has no effect. Returns non-zero for success and 0 for failure, including a library that is not
// initialised. Any thread, also from inside a handler.
int KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler);

}  // extern "C"
