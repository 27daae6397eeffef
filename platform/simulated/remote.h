// remote.h -- the simulated services' remote side, for the launcher and for tests. Other platforms do not have it.
#pragma once

#include "platform/key_combination.h"
#include "platform/usb_device.h"

extern "C" {

// Presses `combination`. Returns 0, or -1 with a log line and errno. Any process.
int key_combination_drop(_KeyComb combination);

// Plug a device, as the last in order, or unplug all devices with that label. `mount` is UTF-8, or null for a device
// that is not mounted. `label` is any text that is not empty; it is percent-encoded in the file name. Return 0, or -1
// with a log line; unplugging a label that does not exist is a failure without one. Any process, one at a time.
int usb_device_plug(const char *label, const char *mount, int device_class);
int usb_device_unplug(const char *label);

}  // extern "C"
