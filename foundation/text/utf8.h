#ifndef MERVANE_FOUNDATION_TEXT_UTF8_H
#define MERVANE_FOUNDATION_TEXT_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace mervane {

/// Whether `text` is well-formed UTF-8 (Unicode 15 table 3-7).
bool isValidUtf8(std::string_view text) noexcept;

/// A copy of `text` with each ill-formed byte replaced by U+FFFD.
std::string toValidUtf8(std::string_view text);

/// Appends `text` as one line that is safe in logs and on terminals: ill-formed bytes become
/// U+FFFD; control characters (C0, DEL, C1, line and paragraph separators, direction overrides) are
/// written as \xNN or \u{N}.
void appendOneLine(std::string& out, std::string_view text);

/// Number of terminal columns of `text`: 2 for East Asian wide characters and emoji, 0 for
/// combining marks, 1 for the rest.
std::size_t displayWidth(std::string_view text) noexcept;

}  // namespace mervane

#endif
