// usb_device.h -- the set's USB device service.
//
// The set promises: the devices that are plugged in, in the order of plugging, with their class and mount path. The
// stand-in: a device is a file NNNN-LABEL in the state directory's usb/ (NNNN, the order of plugging), in GLib's
// key-file format:
//     [device]
//     class=8
//     mount=/media/usb1        (missing while it is not mounted)
// An entry that cannot be read is left out with a log line. Differs from the set: listing works without init.
//
// 0 is success and a negative value failure unless said otherwise. Any thread; a list or handle belongs to one thread.
#pragma once

extern "C" {

typedef struct usb_device_s *usb_device_h;
typedef struct usb_device_list_s *usb_device_list_h;
enum { USB_DEVICE_CLASS_MASS_STORAGE = 8 };

int usb_device_init(void);
int usb_device_fini(void);

// The plugged devices of a class, perhaps none, in a list that the caller frees.
int usb_device_get_device_list(int device_class, usb_device_list_h *list);

// The list's first device, in a handle of its own that the caller frees; fails for an empty list.
int usb_device_list_get_first(usb_device_list_h list, usb_device_h *device);

// Where the device is mounted; null when it is not. Owned by the handle.
const char *usb_device_get_mountpath(usb_device_h device);

void free_usb_device_h(usb_device_h device);
void usb_device_free_device_list(usb_device_list_h list);

/* ------------------------------ The stand-in's remote side ------------------------------ */

// For the launcher and for tests; no set has it. Plugs a device in behind the others (`mount` null: not mounted;
// UTF-8), or pulls every device of that label. `label` is any text but the empty one; it is percent-encoded in the
// file's name. 0, or -1 with a log line, or when there is no such device. Any process, one at a time.
int usb_device_plug(const char *label, const char *mount, int device_class);
int usb_device_unplug(const char *label);

}  // extern "C"
