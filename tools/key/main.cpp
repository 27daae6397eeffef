// vestra-key: reads, sets and watches the platform's configuration keys.

#include <glib.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "platform/dlog.h"
#include "platform/vconf.h"

namespace {

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 64 };

constexpr const char *kFooter =
    "A value is an integer or a text. Changes come to every program that watches the key, the daemon first of all.\n\n"
    "exit codes:\n"
    "  0   done\n"
    "  1   the key has no value, or it cannot be written or watched\n"
    "  64  invalid options or arguments\n\n"
    "examples:\n"
    "  vestra-key set system/DOD/test_monitor 1\n"
    "  vestra-key set system/vestra/robust '/media/usb|browser|4711'\n"
    "  vestra-key get memory/SHM/trigger_db_write\n"
    "  vestra-set exec -- vestra-key watch memory/SHM/trigger_db_write     in a simulated set";

std::vector<std::string> known_keys() {
    return {"memory/SHM/trigger_db_write", "memory/scenario_manager_tv/memory_drop", "system/DOD/test_monitor",
            "system/vestra/robust"};
}

// The failed attempt to read a value by the other type is no news. Not every log service has a threshold.
std::optional<int> integer_quietly(const std::string &key) {
    const bool threshold = &dlog_threshold != nullptr;
    const int before = threshold ? dlog_threshold : 0;
    if (threshold) dlog_threshold = DLOG_ERROR + 1;
    int number = 0;
    const int result = vconf_get_int(key.c_str(), &number);
    if (threshold) dlog_threshold = before;
    return result == 0 ? std::optional(number) : std::nullopt;
}

int print(const std::string &line) {
    return std::printf("%s\n", line.c_str()) >= 0 && std::fflush(stdout) == 0 ? kExitOk : kExitFailed;
}

int get(const std::string &key) {
    if (const auto number = integer_quietly(key)) return print(std::to_string(*number));
    const std::unique_ptr<char, decltype(&free)> text(vconf_get_str(key.c_str()), free);
    if (text != nullptr) return print(text.get());
    std::fprintf(stderr, "vestra-key: %s has no value\n", key.c_str());
    return kExitFailed;
}

int set(const std::string &key, const std::string &value, bool text) {
    int number = 0;
    const char *end = value.data() + value.size();
    const auto parsed = std::from_chars(value.data(), end, number);
    const bool integer = !text && parsed.ec == std::errc() && parsed.ptr == end;
    const int result = integer ? vconf_set_int(key.c_str(), number) : vconf_set_str(key.c_str(), value.c_str());
    if (result == 0) return kExitOk;
    std::fprintf(stderr, "vestra-key: %s was not set\n", key.c_str());
    return kExitFailed;
}

void print_change(keynode_t *node, void *loop) {
    const char *name = vconf_keynode_get_name(node);
    std::string value = "(no value)";
    if (vconf_keynode_get_type(node) == VCONF_TYPE_INT) value = std::to_string(vconf_keynode_get_int(node));
    if (const char *text = vconf_keynode_get_str(node)) value = text;
    if (print(std::string(name == nullptr ? "?" : name) + " " + value) != kExitOk) {
        g_main_loop_quit(static_cast<GMainLoop *>(loop));
    }
}

int watch(const std::vector<std::string> &keys) {
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    for (const std::string &key : keys) {
        if (vconf_notify_key_changed(key.c_str(), print_change, loop) == 0) continue;
        std::fprintf(stderr, "vestra-key: %s cannot be watched\n", key.c_str());
        return kExitFailed;
    }
    g_main_loop_run(loop);
    return kExitFailed;  // nobody reads the changes any more
}

int run(int argc, char **argv) {
    cli::Program program("Reads, sets and watches the configuration keys of the platform.", "vestra-key",
                         VESTRA_VERSION);
    program.footer(kFooter);
    program.require_command();
    std::string key, value;
    std::vector<std::string> keys;
    bool text = false;
    int (*act)(const std::string &, const std::string &, const std::vector<std::string> &, bool) = nullptr;

    cli::Command getting = program.add_command("get", "Print the value of a key");
    getting.add("KEY", key, "The key").required().type("").suggest(known_keys);
    getting.on_chosen([&] { act = [](const auto &k, const auto &, const auto &, bool) { return get(k); }; });

    cli::Command setting = program.add_command("set", "Set a key: an integer where the value is one, else a text");
    setting.add("KEY", key, "The key").required().type("").suggest(known_keys);
    setting.add("VALUE", value, "Its new value").required().type("");
    setting.add_flag("--text", text, "A text also if it is an integer");
    setting.on_chosen([&] { act = [](const auto &k, const auto &v, const auto &, bool t) { return set(k, v, t); }; });

    cli::Command watching = program.add_command("watch", "Print \"KEY VALUE\" at each change, until interrupted");
    watching.add("KEY", keys, "The keys").required().type("").suggest(known_keys);
    watching.on_chosen([&] { act = [](const auto &, const auto &, const auto &ks, bool) { return watch(ks); }; });

    if (const std::optional<int> code = program.parse(argc, argv)) return *code == 0 ? kExitOk : kExitUsage;
    return act(key, value, keys, text);
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "vestra-key: %s\n", problem.what());
        return kExitFailed;
    }
}
