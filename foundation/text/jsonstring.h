#ifndef MERVANE_FOUNDATION_TEXT_JSONSTRING_H
#define MERVANE_FOUNDATION_TEXT_JSONSTRING_H

#include <string>
#include <string_view>

namespace mervane {

/// Appends `text` as a quoted JSON string (RFC 8259), valid whatever the text holds: ill-formed
/// UTF-8 becomes U+FFFD, and control characters are escaped, including DEL and C1, which RFC 8259
/// would allow but a terminal obeys.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace mervane

#endif
