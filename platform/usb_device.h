// usb_device.h -- the set's USB device service.
//
// The set promises: a list of the plugged devices, in the order in which they were plugged, with class and mount path.
//
// linux: the disks with an interface of the class mass storage and a size, by the kernel's number of the disk, without
// the one that / or /boot is on. The path is where the disk or its first mounted partition is mounted. Devices of other classes
// are not listed.
//
// simulated: a device is a file NNNN-LABEL in the state directory's usb/, in GLib's key-file format.
// NNNN is the order of plugging:
//     [device]
//     class=8
//     mount=/media/usb1        (missing while it is not mounted)
// An entry that cannot be read is left out, with a log line.
//
// In both, listing works without init.
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

}  // extern "C"
