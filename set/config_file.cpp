#include "set/config_file.h"

#include <tinyxml2.h>

#include "default_config.h"  // made by CMake from packaging/orna_vestra_config.xml

namespace vestra_set {
namespace {

constexpr const char *kRootElement = "vestra_config";

// Where a simulated set differs from what is shipped: dumps may follow each other sooner, and an upload has an address.
constexpr const char *kSetValues[] = {"min_time_diff_dump=10", "vestra_unique_id=1",
                                      "vestra_extfile_path_id=/opt/data/vestraDir/",
                                      "vestra_extfile_path_other_id=/opt/data/vestraDir/"};

std::string value_of(const tinyxml2::XMLElement &element) {
    const char *text = element.GetText();  // null for an empty element
    return text != nullptr ? text : "";
}

bool override_element(tinyxml2::XMLElement *root, const std::string &item, std::string *error) {
    const size_t equals = item.find('=');
    const std::string name = item.substr(0, equals);
    tinyxml2::XMLElement *element = root->FirstChildElement(name.c_str());
    if (equals != std::string::npos && !name.empty() && element != nullptr) {
        element->SetText(item.substr(equals + 1).c_str());
        return true;
    }
    *error = "--config " + item + ": expected NAME=VALUE, where NAME is one of these (with their values):";
    for (element = root->FirstChildElement(); element != nullptr; element = element->NextSiblingElement()) {
        *error += std::string("\n  ") + element->Name() + " (" + value_of(*element) + ")";
    }
    return false;
}

}  // namespace

std::string make_config(const std::vector<std::string> &overrides, std::string *error) {
    tinyxml2::XMLDocument document;
    document.Parse(kDefaultConfig);
    tinyxml2::XMLElement *root = document.FirstChildElement(kRootElement);
    for (const char *item : kSetValues) {
        if (!override_element(root, item, error)) return {};
    }
    for (const std::string &item : overrides) {
        if (!override_element(root, item, error)) return {};
    }
    tinyxml2::XMLPrinter printer;
    document.Print(&printer);
    return printer.CStr() + std::string("\n");
}

bool config_loads_module(const std::string &config) {
    tinyxml2::XMLDocument document;
    if (document.Parse(config.c_str()) != tinyxml2::XML_SUCCESS) return false;
    const tinyxml2::XMLElement *root = document.FirstChildElement(kRootElement);
    const tinyxml2::XMLElement *element =
        root != nullptr ? root->FirstChildElement("vestra_kmod_load_unload") : nullptr;
    return element != nullptr && value_of(*element).find_first_of("123456789") != std::string::npos;
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
