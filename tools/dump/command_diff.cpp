// diff: two dumps compared.

#include <charconv>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/comparison.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Options {
    std::string a, b;
    std::string tolerance = "25%";
    bool json = false;
};

std::optional<double> percent(std::string_view text) {
    if (!text.empty() && text.back() == '%') text.remove_suffix(1);
    double value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
    return value >= 0 && value <= 100 ? std::optional(value) : std::nullopt;
}

struct Side {
    Dump dump;
    std::optional<Overview> overview;
    std::optional<Profile> profile;
};

// False, with a complaint, if it cannot be compared.
bool read_side(const std::string &path, Side *side) {
    int code = 0;
    if (!open_dump(path, {}, &side->dump, &code)) return false;
    Profile &profile = side->profile.emplace(side->dump.survey.timeline.span());
    side->overview = read(&side->dump, 0, profile);
    profile.end();
    if (report_result(*side->overview, true) == kExitUnreadable) return false;
    if (profile.full) {
        complain(printable(path) + ": more than " + std::to_string(Profile::kNamesMax) +
                 " names of processes; the others are not compared");
    }
    if (!side->overview->summary.first_ns) complain(printable(path) + ": no samples to compare");
    return side->overview->summary.first_ns.has_value();
}

int diff(const Options &options) {
    Side a, b;
    const bool a_read = read_side(options.a, &a);
    if (!read_side(options.b, &b) || !a_read) return kExitUnreadable;
    const Compared first = {*a.overview, *a.profile}, second = {*b.overview, *b.profile};
    const double tolerance = *percent(options.tolerance);
    const std::vector<Difference> differences = compare(first, second, tolerance);
    if (options.json) {
        std::cout << to_json(first, second, tolerance, differences).dump() << '\n';
    } else {
        print(first, second, tolerance, differences, std::cout);
    }
    if (!std::cout.flush()) {
        complain("standard output cannot be written");
        return kExitUnreadable;
    }
    return differences.empty() ? kExitAlike : kExitDifferent;
}

}  // namespace

Action setup_diff(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("a", options->a, "The dump to compare with; - is standard input").required().type("A").suggest_files();
    app.add("b", options->b, "The dump that is compared with it").required().type("B").suggest_files();
    app.add("--tolerance", options->tolerance, "Changes up to this part of a figure are no difference, 0 to 100 %")
        .type("PERCENT")
        .show_default()
        .check([](const std::string &text) { return percent(text) ? "" : "expected 0% to 100%"; });
    app.add_flag("--json", options->json, "All figures and the differences as a JSON object");
    return [options] { return diff(*options); };
}

}  // namespace vestra_dump
