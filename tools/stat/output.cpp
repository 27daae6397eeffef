#include "tools/stat/output.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>

#include "tools/stat/vitals.h"

namespace vestra_stat {
namespace {

constexpr int kColumn = 11;  // width of a figure

const Vital &vital_of(const vestra_api_data &answer) {
    return kVitals[static_cast<size_t>(answer.packet_type)];
}

// For a window without data the daemon answers -1, -1 and no average.
vestra_api_data without_markers(vestra_api_data answer) {
    if (answer.maximum == -1 && answer.minimum == -1 && std::isnan(answer.average)) {
        answer.maximum = answer.minimum = std::numeric_limits<double>::quiet_NaN();
    }
    return answer;
}

// With an exponent if it would not fit.
std::string figure(double value, int decimals) {
    if (std::isnan(value)) return "-";
    char text[512];  // the greatest double has 309 digits before the point
    if (std::snprintf(text, sizeof text, "%.*f", decimals, value) > kColumn) {
        std::snprintf(text, sizeof text, "%.3e", value);
    }
    return text;
}

// With the digits that distinguish it from other doubles.
std::string exact(double value) {
    if (std::isnan(value)) return "";
    std::array<char, 32> text;
    return {text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr};
}

// The same quantity in a base unit.
struct BaseUnit {
    const char *short_unit;
    const char *suffix;  // of the name
    const char *unit;    // null: there is none
    double factor, divisor;
};
constexpr BaseUnit kBaseUnits[] = {{"%", "_ratio", "ratio", 1, 100},
                                   {"C", "_celsius", "celsius", 1, 1},
                                   {"KiB", "_bytes", "bytes", 1024, 1},
                                   {"1/s", "_per_second", nullptr, 1, 1},
                                   {"", "", nullptr, 1, 1}};

const BaseUnit &base_unit(const Vital &vital) {
    return *std::find_if(std::begin(kBaseUnits), std::end(kBaseUnits) - 1,
                         [&](const BaseUnit &unit) { return std::string_view(unit.short_unit) == vital.short_unit; });
}

// Vitals that the daemon gets together. Types 2 to 10 are missing together, too, before there are two seconds.
size_t source_of(size_t type) {
    return type < 2 ? 0 : type < 11 ? 1 : 2;
}

// What vitals of several cores have in common: their texts without the number.
std::string without_number(std::string_view text) {
    return std::string(text.substr(0, text.find_last_not_of("0123456789 ") + 1));
}

std::string history_as_json(const Past &past) {
    nlohmann::ordered_json seconds = nlohmann::ordered_json::array();
    for (auto second = past.seconds.rbegin(); second != past.seconds.rend(); ++second) {
        nlohmann::ordered_json line = {{"age", second->age}};
        for (const int type : past.types) {
            line[kVitals[static_cast<size_t>(type)].name] = second->vitals[static_cast<size_t>(type)];
        }
        seconds.push_back(line);
    }
    const nlohmann::ordered_json all = {{"time", past.time}, {"seconds", seconds}};
    return all.dump() + "\n";
}

std::string history_as_csv(const Past &past) {
    std::string text = "age";
    for (const int type : past.types) text += std::string(",") + kVitals[static_cast<size_t>(type)].column;
    text += '\n';
    for (auto second = past.seconds.rbegin(); second != past.seconds.rend(); ++second) {
        text += std::to_string(second->age);
        for (const int type : past.types) text += "," + exact(second->vitals[static_cast<size_t>(type)]);
        text += '\n';
    }
    return text;
}

std::string history_as_table(const Past &past) {
    char field[kColumn + 128];
    std::string text = "age";
    for (const int type : past.types) {
        std::snprintf(field, sizeof field, " %*s", kColumn, kVitals[static_cast<size_t>(type)].name);
        text += field;
    }
    text += '\n';
    for (auto second = past.seconds.rbegin(); second != past.seconds.rend(); ++second) {
        std::snprintf(field, sizeof field, "%3d", second->age);
        text += field;
        for (const int type : past.types) {
            const Vital &vital = kVitals[static_cast<size_t>(type)];
            const int width = std::max(kColumn, static_cast<int>(std::strlen(vital.name)));
            std::snprintf(field, sizeof field, " %*s", width,
                          figure(second->vitals[static_cast<size_t>(type)], vital.decimals).c_str());
            text += field;
        }
        text += '\n';
    }
    return text;
}

}  // namespace

std::string as_text(const Past &past, Format format) {
    switch (format) {
        case Format::kJson:
            return history_as_json(past);
        case Format::kCsv:
            return history_as_csv(past);
        default:
            return history_as_table(past);
    }
}

std::string as_table(const Answer &answer) {
    char line[160];
    char clock[16] = "";
    const auto seconds = static_cast<time_t>(answer.time);
    struct tm local {};
    if (localtime_r(&seconds, &local) != nullptr) std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
    // With window 0 all figures are the same.
    const size_t figures = answer.window == 0 ? 1 : 4;
    std::string text = clock;
    if (answer.window == 0) {
        std::snprintf(line, sizeof line, "  now%*s\n", 17 + kColumn, "value");
    } else {
        std::snprintf(line, sizeof line, "  last %3d s%*s %*s %*s %*s\n", answer.window, 10 + kColumn, "maximum",
                      kColumn, "minimum", kColumn, "average", kColumn, "variance");
    }
    text += line;
    for (const vestra_api_data &entry : answer.vitals) {
        const Vital &vital = vital_of(entry);
        const vestra_api_data shown = without_markers(entry);
        std::snprintf(line, sizeof line, "%2d  %-20s %-4s", entry.packet_type, vital.name, vital.short_unit);
        text += line;
        const double values[] = {shown.maximum, shown.minimum, shown.average, shown.variance};
        for (size_t i = 0; i < figures; ++i) {
            std::snprintf(line, sizeof line, " %*s", kColumn, figure(values[i], vital.decimals).c_str());
            text += line;
        }
        text += '\n';
    }
    return text;
}

std::string as_json(const Answer &answer) {
    nlohmann::ordered_json vitals;
    for (const vestra_api_data &entry : answer.vitals) {
        const vestra_api_data shown = without_markers(entry);
        // NaN is written as null.
        vitals[vital_of(entry).name] = {{"type", entry.packet_type}, {"unit", vital_of(entry).short_unit},
                                        {"maximum", shown.maximum},  {"minimum", shown.minimum},
                                        {"average", shown.average},  {"variance", shown.variance}};
    }
    const nlohmann::ordered_json line = {{"time", answer.time}, {"window", answer.window}, {"vitals", vitals}};
    return line.dump() + "\n";
}

std::string as_openmetrics(const Answer &answer) {
    std::array<bool, 3> known = {};
    for (const vestra_api_data &entry : answer.vitals) {
        bool &source = known[source_of(static_cast<size_t>(entry.packet_type))];
        source = source || entry.average != 0;
    }
    std::string text, family_before;
    for (const vestra_api_data &entry : answer.vitals) {
        const Vital &vital = vital_of(entry);
        if (!known[source_of(static_cast<size_t>(entry.packet_type))] || !std::isfinite(entry.average)) continue;
        const BaseUnit &unit = base_unit(vital);
        const std::string column = vital.column, stem = without_number(column), core = column.substr(stem.size());
        const std::string family = "vestra_" + stem + unit.suffix;
        if (family != family_before) {
            text += "# TYPE " + family + " gauge\n";
            if (unit.unit != nullptr) text += "# UNIT " + family + " " + unit.unit + "\n";
            text += "# HELP " + family + " " + without_number(vital.label);
            text += (core.empty() ? std::string(": ") + vital.meaning : "") + "\n";
        }
        family_before = family;
        text += family + (core.empty() ? "" : "{core=\"" + core + "\"}") + " " +
                exact(entry.average * unit.factor / unit.divisor) + "\n";
    }
    return text + "# EOF\n";
}

std::string list_of_vitals() {
    char line[160];
    std::string text;
    for (size_t type = 0; type < kVitals.size(); ++type) {
        const Vital &vital = kVitals[type];
        std::snprintf(line, sizeof line, "%2zu%c %-20s %-4s %s\n", type, vital.from_module ? '*' : ' ', vital.name,
                      vital.short_unit, vital.meaning);
        text += line;
    }
    return text +
           "\n* sent by the kernel module; names and units are those of the simulated set's module.\n"
           "  The daemon computes the other figures from the cores' counters.\n";
}

bool print(const std::string &text) {
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

}  // namespace vestra_stat
