// The files that a set has. Its first process makes them in the fresh namespace.
#pragma once

#include <string>

#include "set/set_options.h"

namespace vestra_set {

// Where things are inside a set.
constexpr const char *kStateDir = "/run/vestra-set";              // what the platform services keep
constexpr const char *kRealEtc = "/tv/etc";                       // the host's /etc, read-only
constexpr const char *kRealProc = "/tv/proc";                     // procfs
constexpr const char *kHostDir = "/tv/host";                      // the host's /proc and /sys; see show_host
constexpr const char *kNodeDir = "/tv/node";                      // the control node's file system
constexpr const char *kLauncher = "/tv/bin/vestra-set";           // this program
constexpr const char *kPlatformDir = "/tv/platform";              // the simulated platform, for the loader
constexpr const char *kLogFile = "/tv/log/vestrad.log";           // a file of the host, where the log goes to one
constexpr const char *kStateLog = "/run/vestra-set/vestrad.log";  // where it goes otherwise
constexpr const char *kTemperatureFile = "/sys/devices/platform/soc/thermal/temperature";
constexpr const char *kModuleName = "orna_vestra_kmod";
constexpr const char *kModuleFile = "/lib/modules/linux/kernel/orna-vestra-kmod.ko";

// Makes all files of a set. Throws Failure, as do the functions below that can fail.
void make_layout(const SetOptions &options);

// Gives this process the host's /proc and /sys, in its own mount namespace: a set's pid namespace hides the host's
// processes. Needs them mounted in kHostDir.
void show_host();

// Removes kHostDir's mounts from the set. A process that has called show_host keeps them.
void hide_host();

// Changes into a directory, or into / where the set has no such directory.
void enter_directory(const std::string &path);

// Adds links for process ids up to `last` to /proc; those made before stay.
void extend_process_links(int last);

// The newest process id in this pid namespace; 0 when it is not known.
int newest_process_id();

// Mounts a tmpfs stick of `size` (as mount(8) takes it) at /media/LABEL.
void mount_stick(const std::string &label, const std::string &size);

// True for a text that can name a stick or a set: 1 to 32 letters, digits, '-', '_' and '.', the first not '.' or '-'.
bool valid_name(const std::string &name);

}  // namespace vestra_set
