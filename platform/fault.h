// fault.h -- makes platform operations fail on purpose. For tests only: no fault is active unless a test sets one.
#pragma once

// One entry for each operation that can fail, with the failure result that its header documents. Operations that only
// the launcher calls (key_combination_drop, usb_device_plug, usb_device_unplug) have no entry.
enum platform_operation {
    FAULT_VCONF_NOTIFY,
    FAULT_VCONF_IGNORE,
    FAULT_VCONF_GET,  // vconf_get_int
    FAULT_VCONF_SET,  // vconf_set_int
    FAULT_VCONF_GET_STR,
    FAULT_VCONF_SET_STR,
    FAULT_VCONF_NODE_NAME,
    FAULT_VCONF_NODE_STR,  // the change has type string, but its text is null
    FAULT_NOTIFICATION_CREATE,
    FAULT_NOTIFICATION_HIDE_TIMEOUT,
    FAULT_NOTIFICATION_AUTO_REMOVE,
    FAULT_NOTIFICATION_TEXT,
    FAULT_NOTIFICATION_APPLIST,
    FAULT_NOTIFICATION_POST,
    FAULT_NOTIFICATION_FREE,  // reports failure, but frees the handle
    FAULT_USB_INIT,
    FAULT_USB_LIST,
    FAULT_USB_FIRST,
    FAULT_USB_MOUNTPATH,
    FAULT_USB_FINI,
    FAULT_SYSTEM_INFO,
    FAULT_INSMOD,
    FAULT_RMMOD,
    FAULT_KEY_INITIALIZE,
    FAULT_KEY_ADD_HANDLER,
    FAULT_OPERATIONS  // their number
};

// Makes the `nth` call of `operation` from now on fail (1: the next one), once. 0 switches the fault off.
void platform_fail_nth(platform_operation operation, int nth);

// Makes every call of `operation` fail until the faults are reset.
void platform_fail_always(platform_operation operation);

void platform_faults_reset();

// For the operations themselves: counts one call and returns true if it must fail. Any thread.
bool platform_fault(platform_operation operation);
