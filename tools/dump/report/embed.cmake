# Makes report_page.cpp: the pages with their styles and scripts, as arrays of bytes.
#   cmake -DHERE=tools/dump/report -DDYGRAPHS=/usr/share/javascript/dygraphs -DOUT=report_page.cpp -P embed.cmake
function(place name file)
  file(READ "${file}" text)
  # The source maps are missing, and developer tools would look for them.
  string(REGEX REPLACE "//# sourceMappingURL=[^\n]*" "" text "${text}")
  string(REGEX REPLACE "/\\*# sourceMappingURL=[^\n]*\\*/" "" text "${text}")
  foreach(end "</script" "</style" "<!--" "@{")
    string(FIND "${text}" "${end}" found)
    if(NOT found EQUAL -1)
      message(FATAL_ERROR "${file} contains ${end}, which would end it too early in the page")
    endif()
  endforeach()
  string(REPLACE "@[${name}]@" "${text}" page "${page}")
  set(page "${page}" PARENT_SCOPE)
endfunction()

function(embed name)
  file(WRITE "${OUT}.html" "${page}")
  file(READ "${OUT}.html" bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  file(APPEND "${OUT}" "static const char k${name}Bytes[] = {${bytes}};
const std::string_view k${name}(k${name}Bytes, sizeof(k${name}Bytes));

")
endfunction()

file(WRITE "${OUT}" "#include \"tools/dump/report_page.h\"

namespace vestra_dump {

")
file(READ "${HERE}/report.html" page)
place(report.css "${HERE}/report.css")
place(dygraph.css "${DYGRAPHS}/dygraph.min.css")
place(dygraph.js "${DYGRAPHS}/dygraph.min.js")
place(report.js "${HERE}/report.js")
embed(ReportPage)
file(READ "${HERE}/index.html" page)
place(report.css "${HERE}/report.css")
place(index.js "${HERE}/index.js")
embed(IndexPage)
file(APPEND "${OUT}" "}  // namespace vestra_dump\n")
