#ifndef MERVANE_FOUNDATION_JSON_WRITER_H
#define MERVANE_FOUNDATION_JSON_WRITER_H

#include <cstddef>
#include <string>

#include "value.h"

namespace mervane {

/// Appends the value as JSON text: in one line, or indented by two blanks a level, as if it stood
/// `depth` levels within a document.
void appendJsonText(std::string& out, const JsonValue& value, bool indented, std::size_t depth = 0);

std::string toJsonText(const JsonValue& value, bool indented);

}  // namespace mervane

#endif
