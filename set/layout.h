// The files a set has, made by the set's first process in its fresh namespace.
#pragma once

#include <string>

#include "set/set_options.h"

namespace vestra_set {

// Where things are inside a set.
constexpr const char *kStateDir = "/run/vestra-set";              // what the platform services keep
constexpr const char *kRealEtc = "/tv/etc";                       // the host's /etc, read-only
constexpr const char *kRealProc = "/tv/proc";                     // procfs
constexpr const char *kHostDir = "/tv/host";                      // the host's /proc and /sys, see show_host
constexpr const char *kNodeDir = "/tv/node";                      // the control node's file system
constexpr const char *kLauncher = "/tv/bin/vestra-set";           // this program
constexpr const char *kLogFile = "/tv/log/vestrad.log";           // bound where the log goes to a file of the host
constexpr const char *kStateLog = "/run/vestra-set/vestrad.log";  // where it goes otherwise
constexpr const char *kTemperatureFile = "/sys/devices/platform/soc/thermal/temperature";
constexpr const char *kModuleName = "orna_vestra_kmod";
constexpr const char *kModuleFile = "/lib/modules/linux/kernel/orna-vestra-kmod.ko";

// Makes all of it. False with `*error` set when something could not be made.
bool make_layout(const SetOptions &options, std::string *error);

// Makes the host's /proc and /sys what this process sees under these names, in a mount namespace of its own: inside a
// set's pid namespace the host's processes could not be seen. They must be mounted in kHostDir. False with `*error` set
// on failure.
bool show_host(std::string *error);

// Takes the host's /proc and /sys away from the set, after show_host in another process.
void hide_host();

// Changes into a directory that the set may not have; into / where it has none.
void enter_directory(const std::string &path);

// Adds links for process ids up to `last` to /proc; those made before stay.
void extend_process_links(int last);

// The newest process id that was given out in this pid namespace, 0 when it cannot be told.
int newest_process_id();

// Mounts a tmpfs stick of `size` (as mount(8) takes it) at /media/LABEL. False with `*error` set on failure.
bool mount_stick(const std::string &label, const std::string &size, std::string *error);

// True for a text that can name a stick or a set: 1 to 32 letters, digits, '-', '_' and '.', not beginning with '.' or
// '-'.
bool valid_name(const std::string &name);

}  // namespace vestra_set
