// text.h -- texts that came from a dump, in a form that can do no harm.
#pragma once

#include <string>
#include <string_view>

namespace vestra_dump {

// Names in a dump are any bytes. Here they are UTF-8 without control characters: a byte that is no part of it, and each
// byte of a control character, is written \xNN, and a backslash is written twice. So nothing is lost, and the text is
// safe in a terminal, a table, JSON or SQL.
std::string printable(std::string_view bytes);

// Appends it to *out.
void append_printable(std::string_view bytes, std::string *out);

}  // namespace vestra_dump
