#ifndef MERVANE_PKCS11_CALLS_FIXEDTEXT_H
#define MERVANE_PKCS11_CALLS_FIXEDTEXT_H

#include <string>
#include <string_view>

#include "foundation/text/ascii.h"
#include "foundation/text/utf8.h"
#include "pkcs11/calls/cryptoki.h"

namespace mervane {

/// A fixed-size text of the standard's structures: padded with blanks, not terminated. Some modules
/// terminate it anyway, so a NUL ends it. The result is valid UTF-8.
template <std::size_t N>
std::string textOf(const CK_UTF8CHAR (&field)[N]) {
    const std::string_view whole(reinterpret_cast<const char*>(field), N);
    const std::string_view text = whole.substr(0, whole.find('\0'));
    return toValidUtf8(text.substr(0, text.find_last_not_of(kWhiteSpace) + 1));
}

}  // namespace mervane

#endif
