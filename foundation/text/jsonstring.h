#ifndef MERVANE_FOUNDATION_TEXT_JSONSTRING_H
#define MERVANE_FOUNDATION_TEXT_JSONSTRING_H

#include <string>
#include <string_view>

namespace mervane {

/// Appends a quoted JSON string. Ill-formed UTF-8 is replaced, control characters (C1 included,
/// which a terminal would obey) are escaped: the result is valid whatever the text holds.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace mervane

#endif
