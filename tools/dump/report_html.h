// report_html.h -- pieces of HTML and of scripts in it, with texts that can do no harm there.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vestra_dump {

// Text for an element or an attribute in quotes: & < > " ' are escaped.
std::string html(std::string_view text);

// A JSON document for a script element: nothing in it ends the element, opens a comment or a line.
std::string script_json(std::string_view document);

struct HtmlColumn {
    const char *title;
    bool number;
};

// A table with a caption, its cells escaped. A text in the last column is isolated, so that writing from right to left
// in it does not move what stands beside it.
void append_table(const char *id, std::string_view caption, const std::vector<HtmlColumn> &columns,
                  const std::vector<std::vector<std::string>> &rows, std::string *out);

}  // namespace vestra_dump
