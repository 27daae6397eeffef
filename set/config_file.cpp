#include "set/config_file.h"

#include <algorithm>

namespace vestra_set {
namespace {

struct Element {
    const char *name;
    std::string value;
};

// The daemon's order. A desktop has the disk and the memory for all of it, so the recorder is switched on in full.
std::vector<Element> default_elements() {
    return {
        {"vestra_kmod_load_unload", "1"},
        {"vestra_litemode_on", "0"},
        {"min_time_diff_dump", "10"},
        {"cont_data_collect", "0"},
        {"no_of_files", "3"},
        {"max_file_size", "10"},
        {"user_notification_on", "1"},
        {"vestra_diskio_read_enable", "1"},
        {"vestra_diskio_write_enable", "1"},
        {"live_data_collect", "0"},
        {"vestra_unique_id", "1"},
        {"vestra_extfile_path_id", "/opt/data/vestraDir/"},
        {"vestra_extfile_path_other_id", "/opt/data/vestraDir/"},
        {"vestra_info_raise_priority", "0"},
        {"vestra_info_new_priority_nice", "0"},
    };
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

}  // namespace

std::string make_config(const std::vector<std::string> &overrides, std::string *error) {
    std::vector<Element> elements = default_elements();
    for (const std::string &item : overrides) {
        const size_t equals = item.find('=');
        const std::string key = item.substr(0, equals);
        const auto element =
            std::find_if(elements.begin(), elements.end(), [&](const Element &e) { return key == e.name; });
        if (equals == std::string::npos || element == elements.end()) {
            *error = "--config " + item + ": wanted KEY=VALUE with one of these keys:";
            for (const Element &known : elements) *error += std::string("\n  ") + known.name + " (" + known.value + ")";
            return {};
        }
        element->value = item.substr(equals + 1);
    }
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vestra_config>\n";
    for (const Element &element : elements) {
        text += std::string("    <") + element.name + ">" + escaped(element.value) + "</" + element.name + ">\n";
    }
    return text + "</vestra_config>\n";
}

bool config_loads_module(std::string_view config) {
    constexpr std::string_view kElement = "<vestra_kmod_load_unload>";
    const size_t start = config.find(kElement);
    if (start == std::string_view::npos) return false;
    const std::string_view value = config.substr(start + kElement.size());
    return value.substr(0, value.find('<')).find_first_of("123456789") != std::string_view::npos;
}

std::string make_product_info() {
    return "[PRODUCT]\r\n"
           "Product=TV\r\n"
           "Platform=VELMORA\r\n"
           "Model=VX-55SIM\r\n"
           "Build=T-SIMULATED-1000.1\r\n";
}

std::string make_system_info(std::string_view chip) {
    return "[com.velmora/featureconf]\nproduct.chipset=" + std::string(chip) + "\n";
}

}  // namespace vestra_set
