// usb_device.h -- the set's USB device service.
//
// The set promises: a list of the plugged devices, in the order in which they were plugged, with class and mount path.
//
// The stand-in: a device is a file NNNN-LABEL in the state directory's usb/, in GLib's key-file format.
// NNNN is the order of plugging:
//     [device]
//     class=8
//     mount=/media/usb1        (missing while it is not mounted)
// An entry that cannot be read is left out, with a log line.
//
// Differs from the set: listing works without init.
//
// Unless noted otherwise, functions return 0 for success and a negative value for failure. Any thread; a list or handle
// belongs to one thread.
#pragma once

extern "C" {

typedef struct usb_device_s *usb_device_h;
typedef struct usb_device_list_s *usb_device_list_h;
enum { USB_DEVICE_CLASS_MASS_STORAGE = 8 };

int usb_device_init(void);
int usb_device_fini(void);

// Stores a list of the plugged devices of a class, possibly empty, in *list; the caller frees it.
int usb_device_get_device_list(int device_class, usb_device_list_h *list);

// Stores a new handle to the list's first device in *device; the caller frees it. Fails for an empty list.
int usb_device_list_get_first(usb_device_list_h list, usb_device_h *device);

// The device's mount path, owned by the handle. Null if the device is not mounted.
const char *usb_device_get_mountpath(usb_device_h device);

void free_usb_device_h(usb_device_h device);
void usb_device_free_device_list(usb_device_list_h list);

/* ------------------------------ The stand-in's remote side ------------------------------ */

// For the launcher and for tests; a real set does not have them. Plug a device, as the last in order, or unplug all
// devices with that label. `mount` is UTF-8, or null for a device that is not mounted. `label` is any text that is
// not empty; it is percent-encoded in the file name. Return 0, or -1 with a log line; unplugging a label that does
// not exist is a failure without one. Any process, one at a time.
int usb_device_plug(const char *label, const char *mount, int device_class);
int usb_device_unplug(const char *label);

}  // extern "C"
