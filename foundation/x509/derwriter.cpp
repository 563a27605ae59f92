#include "foundation/x509/derwriter.h"

#include <algorithm>
#include <string>

#include "foundation/text/bytes.h"

namespace mervane::der {
namespace {

void append(Octets& out, Bytes bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

// X.690 8.1.3 and 10.1: the length in as few octets as it takes.
Octets header(std::uint8_t tag, std::size_t size) {
    if (size < 0x80) return {tag, static_cast<std::uint8_t>(size)};
    Octets out = {tag, 0x80};
    for (std::size_t rest = size; rest != 0; rest >>= 8) {
        out.insert(out.begin() + 2, static_cast<std::uint8_t>(rest));
        ++out[1];
    }
    return out;
}

}  // namespace

Octets element(std::uint8_t tag, std::initializer_list<Octets> parts) {
    std::size_t size = 0;
    for (const Octets& part : parts) size += part.size();
    Octets out = header(tag, size);
    out.reserve(out.size() + size);
    for (const Octets& part : parts) append(out, part);
    return out;
}

Octets element(std::uint8_t tag, Bytes content) {
    Octets out = header(tag, content.size());
    append(out, content);
    return out;
}

Octets unsignedInteger(Bytes bigEndian) {
    const Bytes digits = magnitude(bigEndian);
    Octets content;
    if (digits.empty() || (digits[0] & 0x80U) != 0) content.push_back(0);
    append(content, digits);
    return element(kInteger, content);
}

Octets oid(std::string_view content) {
    return element(kOid, asBytes(content));
}

Octets setOf(std::vector<Octets> elements, std::uint8_t tag) {
    std::ranges::sort(elements);
    Octets content;
    for (const Octets& one : elements) append(content, one);
    return element(tag, content);
}

Octets time(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if ((c >= '0' && c <= '9') || c == 'Z') digits.push_back(c);
    }
    const bool isUtcTime = digits >= "1950" && digits < "2050";
    return element(isUtcTime ? kUtcTime : kGeneralizedTime,
                   asBytes(std::string_view(digits).substr(isUtcTime ? 2 : 0)));
}

}  // namespace mervane::der
