// fault.h -- makes stand-in operations fail on purpose. For tests only; nothing is switched on unless a test does it.
#pragma once

// One entry for each operation that can fail. The failing result is the one that the operation's header gives.
enum platform_operation {
    FAULT_VCONF_NOTIFY,
    FAULT_VCONF_GET,
    FAULT_VCONF_SET,
    FAULT_NOTIFICATION_CREATE,
    FAULT_NOTIFICATION_HIDE_TIMEOUT,
    FAULT_NOTIFICATION_AUTO_REMOVE,
    FAULT_NOTIFICATION_TEXT,
    FAULT_NOTIFICATION_APPLIST,
    FAULT_NOTIFICATION_POST,
    FAULT_USB_INIT,
    FAULT_USB_LIST,
    FAULT_USB_FIRST,
    FAULT_USB_MOUNTPATH,
    FAULT_SYSTEM_INFO,
    FAULT_INSMOD,
    FAULT_RMMOD,
    FAULT_KEY_INITIALIZE,
    FAULT_KEY_ADD_HANDLER,
    FAULT_GET_SHM,
    FAULT_OPERATIONS  // their number
};

// From now on the `nth` call of `operation` fails (1: the next one), once. 0 switches the fault off.
void platform_fail_nth(platform_operation operation, int nth);

// Every call of `operation` fails until the switch is reset.
void platform_fail_always(platform_operation operation);

void platform_faults_reset();

// For the stand-ins: counts a call and tells whether it must fail. Any thread.
bool platform_fault(platform_operation operation);
