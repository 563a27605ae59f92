#ifndef MERVANE_FOUNDATION_JSON_PARSER_H
#define MERVANE_FOUNDATION_JSON_PARSER_H

#include <cstddef>
#include <string_view>

#include "foundation/json/value.h"

namespace mervane {

/// Where and why parsing failed. Line and column count from 1; the column counts bytes.
struct JsonError {
    std::size_t line = 0;
    std::size_t column = 0;
    std::string_view reason;  // static text
};

/// Parses one JSON text strictly to RFC 8259, nested at most 64 levels deep. A byte order mark at
/// the start is ignored, as RFC 8259 section 8.1 permits. An escaped lone surrogate, which the
/// grammar permits but UTF-8 cannot represent, becomes U+FFFD. On failure `value` is untouched.
[[nodiscard]] bool parseJson(std::string_view text, JsonValue& value, JsonError& error);

}  // namespace mervane

#endif
