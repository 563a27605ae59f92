#ifndef MERVANE_FOUNDATION_JSON_WRITER_H
#define MERVANE_FOUNDATION_JSON_WRITER_H

#include <cstddef>
#include <string>

#include "value.h"

namespace mervane {

/// Appends the value as JSON text, on one line or indented by two spaces per level, starting from
/// level `depth`. The first line is not indented.
void appendJsonText(std::string& out, const JsonValue& value, bool indented, std::size_t depth = 0);

/// The value as JSON text; see appendJsonText().
std::string toJsonText(const JsonValue& value, bool indented);

}  // namespace mervane

#endif
