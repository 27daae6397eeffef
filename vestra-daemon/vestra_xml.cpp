// vestra_xml.cpp -- reads the configuration file. Main thread, once, at start-up.
//
// Divisions, in order:
//   1 Elements   the table of elements, in the order in which they are read; the file may hold them in any order
//   2 Reading    the file into the record
//   3 Values     text to number

#include "vestra-daemon/vestra_xml.h"

#include <tinyxml2.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "vestra-daemon/vestra_log.h"

/* ------------------------------ 1. Elements ------------------------------ */

// One child of the root: an integer for the field `number`, or, where that is null, a path for the field `text`.
struct ConfigElement {
    const char *name;
    int32_t VestraConfig_t::*number;
    char (VestraConfig_t::*text)[kExtfilePathSize];
};

static constexpr char kRootElement[] = "vestra_config";

// In reading order, which matters: in a file that lacks one element, those above it are still stored.
static const ConfigElement kElements[] = {
    {"vestra_kmod_load_unload", &VestraConfig_t::vestra_kmod_load_unload, nullptr},
    {"vestra_litemode_on", &VestraConfig_t::vestra_litemode_on, nullptr},
    {"min_time_diff_dump", &VestraConfig_t::min_time_diff_dump, nullptr},
    {"cont_data_collect", &VestraConfig_t::cont_data_collect, nullptr},
    {"no_of_files", &VestraConfig_t::no_of_files, nullptr},
    {"max_file_size", &VestraConfig_t::max_file_size, nullptr},
    {"user_notification_on", &VestraConfig_t::user_notification_on, nullptr},
    {"vestra_diskio_read_enable", &VestraConfig_t::vestra_diskio_read_enable, nullptr},
    {"vestra_diskio_write_enable", &VestraConfig_t::vestra_diskio_write_enable, nullptr},
    {"live_data_collect", &VestraConfig_t::live_data_collect, nullptr},
    {"vestra_unique_id", &VestraConfig_t::vestra_unique_id, nullptr},
    {"vestra_extfile_path_id", nullptr, &VestraConfig_t::vestra_extfile_path_id},
    {"vestra_extfile_path_other_id", nullptr, &VestraConfig_t::vestra_extfile_path_other_id},
    {"vestra_info_raise_priority", &VestraConfig_t::vestra_info_raise_priority, nullptr},
    {"vestra_info_new_priority_nice", &VestraConfig_t::vestra_info_new_priority_nice, nullptr},
};

/* ------------------------------ 2. Reading ------------------------------ */

int GetVestraConfigInfo(VestraConfig_t &config, char *path) try {
    // Opened here: the library's own descriptor would be inherited by children, and would leak without memory.
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path, "re"), fclose);
    tinyxml2::XMLDocument document;
    if (file == nullptr || document.LoadFile(file.get()) != tinyxml2::XML_SUCCESS) {
        LOGE("vestra Config file loading failed: %s\n", path);
        return -1;
    }
    printf("[Vestra] Config file loading success: %s\n", path);
    const tinyxml2::XMLElement *root = document.FirstChildElement(kRootElement);
    if (root == nullptr) {
        LOGE("parse element fail! \n");
        return -1;
    }
    for (const ConfigElement &element : kElements) {
        const tinyxml2::XMLElement *child = root->FirstChildElement(element.name);
        if (child == nullptr) {
            LOGE("vestra: %s parse failed! \n", element.name);
            return -1;
        }
        const char *text = child->GetText();  // null for an empty element
        if (element.number != nullptr) {
            config.*element.number = ToInt(text);
            LOGD("vestra: %s : %d\n", element.name, config.*element.number);
        } else {
            char(&field)[kExtfilePathSize] = config.*element.text;
            memset(field, 0, sizeof(field));
            // Kept as it stands: 256 bytes and more fill the field without a terminator. Readers stop at 256.
            if (text != nullptr) memcpy(field, text, strnlen(text, sizeof(field)));
            LOGD("vestra: %s : %.*s\n", element.name, kExtfilePathSize, field);
        }
    }
    return 0;
} catch (const std::exception &) {
    // The XML library throws when there is no memory.
    LOGE("vestra Config file loading failed: %s\n", path);
    return -1;
}

/* ------------------------------ 3. Values ------------------------------ */

int ToInt(const char *text) {
    if (text == nullptr) return 0;
    uint32_t value = 0;  // unsigned: many digits wrap
    for (; *text != '\0'; ++text) {
        if (*text >= '0' && *text <= '9') {
            value = value * 10U + static_cast<uint32_t>(*text - '0');
        } else {
            // Kept as it stands: a '-' is skipped like any other character, so "-10" reads as 10. The nice value
            // therefore only passes its range check as 0, and start-up falls back to -20.
            LOGW("string contain invalid char[%c]!", *text);
        }
    }
    return static_cast<int>(value);
}
