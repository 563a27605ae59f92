// A Name is walked in place by forEachAttribute(), which all readers share; nothing is parsed into
// a structure first.
//
// The text form takes escapes and short names from RFC 4514, but not the order: RFC 4514 reverses
// the relative names, here they stay as in the certificate. Two traps: a name may have several
// attributes of one type, so a look-up takes the first that is a string; and real certificates put
// UTF-8 or Latin-1 into string types that allow neither, so stringValue() decodes what is found in
// practice.

#include "foundation/x509/name.h"

#include <algorithm>
#include <array>
#include <utility>

#include "foundation/text/bytes.h"
#include "foundation/text/codepoint.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "foundation/x509/oid.h"

namespace mervane {
namespace {

struct AttributeType {
    std::string_view tag;
    std::string_view oid;  // content octets
    bool inNames;          // used when writing names, not only in look-ups
};

using namespace std::string_view_literals;

// First the table of RFC 4514 section 3, with emailAddress (RFC 2985). The rest, most from RFC
// 4519, can be looked up but are written by OID, as RFC 4514 2.3 requires for types outside its
// table.
constexpr std::array kTypes = {
    AttributeType{"CN", "\x55\x04\x03"sv, true},
    AttributeType{"O", "\x55\x04\x0A"sv, true},
    AttributeType{"OU", "\x55\x04\x0B"sv, true},
    AttributeType{"C", "\x55\x04\x06"sv, true},
    AttributeType{"L", "\x55\x04\x07"sv, true},
    AttributeType{"ST", "\x55\x04\x08"sv, true},
    AttributeType{"STREET", "\x55\x04\x09"sv, true},
    AttributeType{"DC", "\x09\x92\x26\x89\x93\xF2\x2C\x64\x01\x19"sv, true},
    AttributeType{"UID", "\x09\x92\x26\x89\x93\xF2\x2C\x64\x01\x01"sv, true},
    AttributeType{"E", "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x01"sv, true},
    AttributeType{"EMAILADDRESS", "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x01"sv, false},
    AttributeType{"S", "\x55\x04\x08"sv, false},
    AttributeType{"SN", "\x55\x04\x04"sv, false},
    AttributeType{"SURNAME", "\x55\x04\x04"sv, false},
    AttributeType{"SERIALNUMBER", "\x55\x04\x05"sv, false},
    AttributeType{"T", "\x55\x04\x0C"sv, false},
    AttributeType{"TITLE", "\x55\x04\x0C"sv, false},
    AttributeType{"DESCRIPTION", "\x55\x04\x0D"sv, false},
    AttributeType{"POSTALCODE", "\x55\x04\x11"sv, false},
    AttributeType{"NAME", "\x55\x04\x29"sv, false},
    AttributeType{"G", "\x55\x04\x2A"sv, false},
    AttributeType{"GN", "\x55\x04\x2A"sv, false},
    AttributeType{"GIVENNAME", "\x55\x04\x2A"sv, false},
    AttributeType{"INITIALS", "\x55\x04\x2B"sv, false},
    AttributeType{"DNQUALIFIER", "\x55\x04\x2E"sv, false},
    AttributeType{"PSEUDONYM", "\x55\x04\x41"sv, false},
    AttributeType{"ORGANIZATIONIDENTIFIER", "\x55\x04\x61"sv, false},
};

struct Attribute {
    std::string_view type;  // content octets of its OID
    der::Element value;
    bool startsRdn;  // first of its relative name
};

// Calls visit(attribute) for each attribute until it returns false. Returns false if the name is
// malformed; attributes before the fault have been visited by then.
template <class Visit>
bool forEachAttribute(der::Bytes name, Visit visit) {
    // Name ::= SEQUENCE OF RelativeDistinguishedName
    auto rdns = der::enter(name, der::kSequence);
    if (!rdns) return false;
    while (!rdns->atEnd()) {
        // RelativeDistinguishedName ::= SET SIZE (1..MAX) OF AttributeTypeAndValue
        const auto rdn = rdns->read(der::kSet);
        if (!rdn) return false;
        bool startsRdn = true;
        for (der::Cursor attributes(rdn->content); !attributes.atEnd(); startsRdn = false) {
            // AttributeTypeAndValue ::= SEQUENCE { type OBJECT IDENTIFIER, value ANY }
            const auto pair = attributes.read(der::kSequence);
            if (!pair) return false;
            der::Cursor fields(pair->content);
            const auto type = fields.read(der::kOid);
            const auto value = fields.readAny();
            if (!type || !value) return false;
            if (!visit(Attribute{asChars(type->content), *value, startsRdn})) return true;
        }
    }
    return true;
}

bool isControl(char c) noexcept {
    return static_cast<std::uint8_t>(c) < 0x20 || c == 0x7F;
}

// Escapes a value by RFC 4514 2.4, and control characters too, which keeps a name to one line.
// Ill-formed UTF-8 becomes U+FFFD.
void appendEscaped(std::string& out, std::string_view value) {
    constexpr std::string_view kSpecial = "\"+,;<>\\";
    // Room for all of it at once: a value may be a megabyte, and growing takes twice its memory.
    // A control character takes three bytes, and so does U+FFFD.
    const auto numControls = static_cast<std::size_t>(std::ranges::count_if(value, isControl));
    const std::size_t numLong = isValidUtf8(value) ? numControls : value.size();
    out.reserve(out.size() + value.size() + 2 * numLong);
    for (std::string_view rest = value; !rest.empty();) {
        const bool isFirst = rest.size() == value.size();
        const char c = rest.front();
        if (static_cast<std::uint8_t>(c) >= 0x80) {
            bool ok = true;
            appendUtf8(out, takeCodePoint(rest, ok));
            continue;
        }
        rest.remove_prefix(1);
        const bool atEdge = (c == ' ' && (isFirst || rest.empty())) || (c == '#' && isFirst);
        if (isControl(c)) {
            const std::array octet = {static_cast<std::uint8_t>(c)};
            out.append("\\").append(toHex(octet));
        } else {
            if (atEdge || kSpecial.find(c) != std::string_view::npos) out.push_back('\\');
            out.push_back(c);
        }
    }
}

// BMPString and UniversalString: big-endian units of 2 or 4 octets (X.690 8.23.7, 8.23.8).
std::optional<std::string> wideToUtf8(der::Bytes units, std::size_t unitSize) {
    if (units.size() % unitSize != 0) return std::nullopt;
    std::string out;
    std::uint32_t high = 0;  // pending high surrogate: BMPStrings do contain UTF-16 in practice
    for (; !units.empty(); units = units.subspan(unitSize)) {
        std::uint32_t c = 0;
        for (const std::uint8_t octet : units.first(unitSize)) c = c << 8 | octet;
        const bool isLow = c >= 0xDC00 && c <= 0xDFFF;
        if (high != 0 && isLow) c = 0x10000 + ((high - 0xD800) << 10) + (c - 0xDC00);
        if (high != 0 && !isLow) appendUtf8(out, kReplacementChar);
        high = c >= 0xD800 && c <= 0xDBFF ? c : 0;
        if (high == 0) appendUtf8(out, c);
    }
    if (high != 0) appendUtf8(out, kReplacementChar);
    return out;
}

// Real certificates carry UTF-8 in all of these types, allowed or not.
bool isUtf8Type(std::uint8_t tag) noexcept {
    return tag == der::kUtf8String || tag == der::kPrintableString || tag == der::kIa5String ||
           tag == der::kNumericString || tag == der::kVisibleString;
}

// A string value as UTF-8; nullopt if the type is not a string type or the content is not a whole
// number of characters.
std::optional<std::string> stringValue(const der::Element& value) {
    if (isUtf8Type(value.tag)) return toValidUtf8(asChars(value.content));
    switch (value.tag) {
        case der::kTeletexString: {
            // Issuers use it for Latin-1, not for T.61.
            std::string out;
            for (const std::uint8_t c : value.content) appendUtf8(out, c);
            return out;
        }
        case der::kBmpString:
            return wideToUtf8(value.content, 2);
        case der::kUniversalString:
            return wideToUtf8(value.content, 4);
        default:
            return std::nullopt;
    }
}

void appendValue(std::string& out, const der::Element& value) {
    if (isUtf8Type(value.tag)) {
        appendEscaped(out, asChars(value.content));
    } else if (const auto text = stringValue(value)) {
        appendEscaped(out, *text);
    } else {
        out.append("#").append(toHex(value.whole));
    }
}

void appendType(std::string& out, std::string_view oid) {
    const auto* const known = std::ranges::find(kTypes, oid, &AttributeType::oid);
    if (known != kTypes.end() && known->inNames) {
        out.append(known->tag);
    } else {
        out.append(oidToText(asBytes(oid)));
    }
}

}  // namespace

std::optional<std::string> nameToText(der::Bytes name, bool withTags) {
    std::string out;
    bool isFirst = true;
    const bool ok = forEachAttribute(name, [&](const Attribute& attribute) {
        if (!std::exchange(isFirst, false)) out.append(attribute.startsRdn ? ", " : "+");
        if (withTags) {
            appendType(out, attribute.type);
            out.push_back('=');
        }
        appendValue(out, attribute.value);
        return true;
    });
    return ok ? std::optional(std::move(out)) : std::nullopt;
}

bool isWellFormedName(der::Bytes name) noexcept {
    return forEachAttribute(name, [](const Attribute&) { return true; });
}

std::optional<std::string> namePart(der::Bytes name, std::string_view part) {
    const auto* const known = std::ranges::find(kTypes, part, &AttributeType::tag);
    const std::string parsed = known == kTypes.end() ? oidFromText(part) : std::string();
    const std::string_view wanted = known == kTypes.end() ? std::string_view(parsed) : known->oid;
    if (wanted.empty()) return std::nullopt;
    std::optional<std::string> found;
    static_cast<void>(forEachAttribute(name, [&](const Attribute& attribute) {
        if (attribute.type != wanted) return true;
        found = stringValue(attribute.value);
        return !found;
    }));
    return found;
}

}  // namespace mervane
