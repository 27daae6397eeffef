#include "tools/dump/report_html.h"

namespace vestra_dump {

std::string html(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

// In JSON these characters are only in strings, where \u means the same. U+2028 and U+2029 end a line in older browsers.
std::string script_json(std::string_view document) {
    constexpr std::string_view kLines = "\xe2\x80";
    std::string safe;
    for (size_t i = 0; i < document.size(); ++i) {
        const char c = document[i];
        if (c == '<' || c == '>' || c == '&') {
            safe += c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : "\\u0026";
        } else if (document.substr(i, 2) == kLines && i + 2 < document.size() && (document[i + 2] & 0xfe) == 0xa8) {
            safe += document[i + 2] == '\xa8' ? "\\u2028" : "\\u2029";
            i += 2;
        } else {
            safe += c;
        }
    }
    return safe;
}

void append_table(const char *id, std::string_view caption, const std::vector<HtmlColumn> &columns,
                  const std::vector<std::vector<std::string>> &rows, std::string *out,
                  const std::vector<std::string> &links) {
    out->append("<div class=\"wide\"><table id=\"").append(id).append("\">\n<caption>").append(html(caption));
    out->append("</caption>\n<thead><tr>");
    for (const HtmlColumn &column : columns) {
        out->append(column.number ? "<th scope=\"col\" class=\"n\">" : "<th scope=\"col\">");
        out->append(html(column.title)).append("</th>");
    }
    out->append("</tr></thead>\n<tbody>\n");
    for (size_t number = 0; number < rows.size(); ++number) {
        const std::vector<std::string> &row = rows[number];
        out->append("<tr>");
        for (size_t i = 0; i < row.size(); ++i) {
            const bool link = i == 0 && number < links.size() && !links[number].empty();
            out->append(columns[i].number ? "<td class=\"n\">" : "<td><bdi>");
            if (link) out->append("<a href=\"").append(html(links[number])).append("\">");
            out->append(html(row[i])).append(link ? "</a>" : "");
            out->append(columns[i].number ? "</td>" : "</bdi></td>");
        }
        out->append("</tr>\n");
    }
    out->append("</tbody></table></div>\n");
}

}  // namespace vestra_dump
