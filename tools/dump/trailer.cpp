#include "tools/dump/trailer.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace vestra_dump {
namespace {

constexpr std::string_view kLiteKey = "QXLiteMode=";
constexpr size_t kBuildMax = 121, kModelMax = 32;  // bytes; trace::kTrailerMax is what they add up to
constexpr size_t kSureText = 6;                    // bytes; frames hardly ever contain as many printable ones in a row

// Takes a text and its length byte off the end. Nothing if the length is greater than what is there.
std::optional<std::string_view> take_text(std::string_view *end) {
    if (end->empty()) return std::nullopt;
    const size_t length = static_cast<uint8_t>(end->back());
    if (length > end->size() - 1) return std::nullopt;
    const auto text = end->substr(end->size() - 1 - length, length);
    end->remove_suffix(length + 1);
    return text;
}

std::optional<int> lite_mode(std::string_view text) {
    if (text.substr(0, kLiteKey.size()) != kLiteKey) return std::nullopt;
    text.remove_prefix(kLiteKey.size());
    int value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

bool is_text(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte >= ' ' && byte != 0x7f) || c == '\t' || c == '\r' || c == '\n';
    });
}

// Whether the daemon can have made the text from a version file: printable, with the '/' after a build text or with a
// model's line end, which is its only one.
bool is_possible(std::string_view text) {
    if (text.empty()) return true;
    const size_t line_end = text.find('\n');
    const bool one_line = line_end == std::string_view::npos || line_end == text.size() - 1;
    const bool marked = text.find('/') != std::string_view::npos || text.back() == '\n' || text.size() == kModelMax;
    return is_text(text) && one_line && marked;
}

// Splits the text into build and model. False if no version file can produce it.
bool divide(std::string_view text, Trailer *trailer) {
    if (!is_possible(text)) return false;
    // A build text ends in a '/' and may contain others; a model text contains none.
    const size_t slash = text.rfind('/');
    const size_t build = slash == std::string_view::npos ? 0 : slash;
    std::string_view model = slash == std::string_view::npos ? text : text.substr(slash + 1);
    if (build > kBuildMax || model.size() > kModelMax) return false;
    const bool line_end = !model.empty() && model.back() == '\n';
    const bool carriage_return = model.size() > 1 && model[model.size() - 2] == '\r';
    trailer->build = text.substr(0, build);
    trailer->build_cut = build > 0 && line_end && !carriage_return;
    trailer->model_cut = model.size() == kModelMax && !line_end;
    trailer->model = model.substr(0, model.find_last_not_of("\r\n") + 1);
    return true;
}

}  // namespace

std::vector<TrailerReading> read_trailer(std::string_view end_of_file) {
    std::vector<TrailerReading> readings;
    const auto add = [&](std::string_view rest, std::string_view text, std::optional<int> lite, bool sure) {
        Trailer trailer;
        if (!divide(text, &trailer)) return;
        trailer.bytes = end_of_file.substr(rest.size());
        trailer.lite_mode = lite;
        readings.push_back({std::move(trailer), sure});
    };
    std::string_view rest = end_of_file;
    const auto last = take_text(&rest);
    if (!last) return readings;
    if (const auto lite = lite_mode(*last)) {
        std::string_view before = rest;
        if (const auto version = take_text(&before)) add(before, *version, lite, true);
    }
    add(rest, *last, std::nullopt, last->size() >= kSureText);
    return readings;
}

}  // namespace vestra_dump
