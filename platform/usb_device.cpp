#include "platform/usb_device.h"

#include <memory>
#include <utility>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/plugged.h"

struct usb_device_list_s {
    std::vector<usb_device_s> devices;
};

int usb_device_init(void) {
    return platform_fault(FAULT_USB_INIT) ? -1 : 0;
}
int usb_device_fini(void) {
    return platform_fault(FAULT_USB_FINI) ? -1 : 0;
}

int usb_device_get_device_list(int device_class, usb_device_list_h *list) {
    if (list == nullptr || platform_fault(FAULT_USB_LIST)) return -1;
    return guarded(-1, [&] {
        auto devices = plugged_devices(device_class);
        if (!devices) return -1;
        auto found = std::make_unique<usb_device_list_s>();
        found->devices = std::move(*devices);
        *list = found.release();
        return 0;
    });
}

int usb_device_list_get_first(usb_device_list_h list, usb_device_h *device) {
    if (list == nullptr || device == nullptr || list->devices.empty() || platform_fault(FAULT_USB_FIRST)) return -1;
    return guarded(-1, [&] {
        *device = new usb_device_s(list->devices.front());
        return 0;
    });
}

const char *usb_device_get_mountpath(usb_device_h device) {
    if (device == nullptr || device->mount.empty() || platform_fault(FAULT_USB_MOUNTPATH)) return nullptr;
    return device->mount.c_str();
}

void free_usb_device_h(usb_device_h device) {
    delete device;
}
void usb_device_free_device_list(usb_device_list_h list) {
    delete list;
}
