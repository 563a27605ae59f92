#ifndef MERVANE_FOUNDATION_JSON_WRITER_H
#define MERVANE_FOUNDATION_JSON_WRITER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/json/value.h"

namespace mervane {

/// Appends a quoted JSON string. Ill-formed UTF-8 is replaced, control characters (C1 included,
/// which a terminal would obey) are escaped: the result is valid whatever the text holds.
void appendJsonString(std::string& out, std::string_view text);

/// Appends the value as JSON text: in one line, or indented by two blanks a level, as if it stood
/// `depth` levels within a document.
void appendJsonText(std::string& out, const JsonValue& value, bool indented, std::size_t depth = 0);

std::string toJsonText(const JsonValue& value, bool indented);

}  // namespace mervane

#endif
