#include "platform/places.h"

#include <sys/stat.h>

std::string keys_directory() {
    // The package and the unit make it, too; a daemon that is started by hand on a bare machine finds it all the same.
    mkdir("/var/lib/vestrad", 0755);
    mkdir("/var/lib/vestrad/keys", 0755);
    return "/var/lib/vestrad/keys";
}

std::string system_info_file() {
    return "/etc/vestrad/system.conf";
}
