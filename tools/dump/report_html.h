// report_html.h -- pieces of HTML, and of scripts in HTML, with texts made harmless.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vestra_dump {

// Escapes & < > " ' for an element or a quoted attribute.
std::string html(std::string_view text);

// Makes a JSON document safe in a script element: nothing in it ends the element, opens a comment or ends a line.
std::string script_json(std::string_view document);

struct HtmlColumn {
    const char *title;
    bool number;
};

// A table with a caption; cells are escaped. Texts are isolated, so that right-to-left writing in one does not move its
// neighbours. `links`: for each row where its first cell leads, a relative URL or nothing.
void append_table(const char *id, std::string_view caption, const std::vector<HtmlColumn> &columns,
                  const std::vector<std::vector<std::string>> &rows, std::string *out,
                  const std::vector<std::string> &links = {});

}  // namespace vestra_dump
