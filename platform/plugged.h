// plugged.h -- the USB devices that an implementation of the platform finds.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct usb_device_s {
    std::string mount;  // empty while it is not mounted
};

// Those of a class, in the order in which they were plugged. Nothing, with a log line, if they cannot be listed. Any
// thread.
std::optional<std::vector<usb_device_s>> plugged_devices(int device_class);
