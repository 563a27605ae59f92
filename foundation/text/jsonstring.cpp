#include "foundation/text/jsonstring.h"

#include <algorithm>

#include "foundation/text/codepoint.h"
#include "foundation/text/hex.h"

namespace mervane {
namespace {

void appendEscaped(std::string& out, std::uint32_t c) {
    switch (c) {
        case '"':
            out.append("\\\"");
            return;
        case '\\':
            out.append("\\\\");
            return;
        case '\n':
            out.append("\\n");
            return;
        case '\r':
            out.append("\\r");
            return;
        case '\t':
            out.append("\\t");
            return;
        default:
            break;
    }
    if (c > 0xFFFF && isUnprintable(c)) {
        // As a pair of surrogates (RFC 8259 section 7).
        out.append("\\u").append(toHexNumber(0xD7C0 + (c >> 10), 4).substr(2));
        out.append("\\u").append(toHexNumber(0xDC00 + (c & 0x3FF), 4).substr(2));
    } else if (isUnprintable(c)) {
        out.append("\\u").append(toHexNumber(c, 4).substr(2));
    } else {
        appendUtf8(out, c);
    }
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
    // Plain ASCII is copied in runs; everything else goes through the UTF-8 decoder.
    const auto needsCare = [](char c) { return c < 0x20 || c > 0x7E || c == '"' || c == '\\'; };
    out.push_back('"');
    while (!text.empty()) {
        const auto* const special = std::ranges::find_if(text, needsCare);
        const auto numPlain = static_cast<std::size_t>(special - text.begin());
        out.append(text.substr(0, numPlain));
        text.remove_prefix(numPlain);
        bool ok = true;
        if (!text.empty()) appendEscaped(out, takeCodePoint(text, ok));
    }
    out.push_back('"');
}

}  // namespace mervane
