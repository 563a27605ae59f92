#ifndef MERVANE_FOUNDATION_JSON_PARSER_H
#define MERVANE_FOUNDATION_JSON_PARSER_H

#include <cstddef>
#include <string_view>

#include "foundation/json/value.h"

namespace mervane {

/// Where and why a text is no JSON. Line and column count from 1; the column counts bytes.
struct JsonError {
    std::size_t line = 0;
    std::size_t column = 0;
    std::string_view reason;  // static text
};

/// Parses one JSON text, strictly as RFC 8259 has it, to a depth of 64 levels. A byte order mark
/// at the start is ignored (RFC 8259 section 8.1 allows that). An escaped lone surrogate, which the
/// grammar permits and UTF-8 cannot hold, becomes U+FFFD. On failure `value` is untouched.
[[nodiscard]] bool parseJson(std::string_view text, JsonValue& value, JsonError& error);

}  // namespace mervane

#endif
