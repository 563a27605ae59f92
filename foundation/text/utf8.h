#ifndef MERVANE_FOUNDATION_TEXT_UTF8_H
#define MERVANE_FOUNDATION_TEXT_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace mervane {

bool isValidUtf8(std::string_view text) noexcept;

/// The text with every ill-formed byte replaced.
std::string toValidUtf8(std::string_view text);

/// One line fit for logs and terminals: ill-formed bytes replaced, control characters (C0, DEL,
/// C1, line and paragraph separators, direction overrides) written as \xNN or \u{N}.
void appendOneLine(std::string& out, std::string_view text);

/// Columns that `text` takes on a terminal: 2 for East Asian wide characters and emoji, 0 for
/// combining marks, 1 for the rest.
std::size_t displayWidth(std::string_view text) noexcept;

}  // namespace mervane

#endif
