// PKCS #11 URIs, RFC 7512:
//
//     pk11-URI = "pkcs11:" pk11-path [ "?" pk11-query ]
//     pk11-path = [ pk11-pattr *( ";" pk11-pattr ) ]
//     pk11-query = [ pk11-qattr *( "&" pk11-qattr ) ]
//
// An attribute is a name, "=", and a value with percent-encoded bytes. One table has them all, in
// the order in which they are written.

#include "locate/uri.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "foundation/core/guarded.h"
#include "foundation/text/ascii.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"

namespace mervane {
namespace {

constexpr std::string_view kScheme = "pkcs11:";
constexpr std::string_view kFile = "file:";
constexpr std::size_t kMaxSize = 65536;  // of a URI; none that means something comes near

enum class Part : bool { Path, Query };

bool isText(std::string_view value) {
    return isValidUtf8(value) && value.find('\0') == std::string_view::npos;
}
// The name of a file without folder.
bool isName(std::string_view value) {
    return isText(value) && !value.empty() && value.find('/') == std::string_view::npos;
}
bool isAnything(std::string_view) {
    return true;
}
bool isNumber(std::string_view value) {
    CK_SLOT_ID number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    return error == std::errc() && end == value.data() + value.size();
}
// 1*DIGIT [ "." 1*DIGIT ]
bool isVersion(std::string_view value) {
    const auto dot = value.find('.');
    return isNumber(value.substr(0, dot)) &&
           (dot == std::string_view::npos || isNumber(value.substr(dot + 1)));
}
bool isType(std::string_view value) {
    constexpr std::array<std::string_view, 5> kTypes = {"cert", "private", "public", "secret-key",
                                                        "data"};
    return std::ranges::find(kTypes, value) != kTypes.end();
}

struct Attribute {
    std::string_view name;
    Pkcs11Uri::Value Pkcs11Uri::*member;
    Part part;
    bool (*isValid)(std::string_view value);
};

// Not constexpr, since the type that the members belong to is not a literal one.
const std::array kAttributes = {
    Attribute{"library-manufacturer", &Pkcs11Uri::libraryManufacturer, Part::Path, isText},
    Attribute{"library-description", &Pkcs11Uri::libraryDescription, Part::Path, isText},
    Attribute{"library-version", &Pkcs11Uri::libraryVersion, Part::Path, isVersion},
    Attribute{"slot-manufacturer", &Pkcs11Uri::slotManufacturer, Part::Path, isText},
    Attribute{"slot-description", &Pkcs11Uri::slotDescription, Part::Path, isText},
    Attribute{"slot-id", &Pkcs11Uri::slotId, Part::Path, isNumber},
    Attribute{"model", &Pkcs11Uri::model, Part::Path, isText},
    Attribute{"manufacturer", &Pkcs11Uri::manufacturer, Part::Path, isText},
    Attribute{"serial", &Pkcs11Uri::serial, Part::Path, isText},
    Attribute{"token", &Pkcs11Uri::token, Part::Path, isText},
    Attribute{"id", &Pkcs11Uri::id, Part::Path, isAnything},
    Attribute{"object", &Pkcs11Uri::object, Part::Path, isText},
    Attribute{"type", &Pkcs11Uri::type, Part::Path, isType},
    Attribute{"module-name", &Pkcs11Uri::moduleName, Part::Query, isName},
    Attribute{"module-path", &Pkcs11Uri::modulePath, Part::Query, isText},
    Attribute{"pin-source", &Pkcs11Uri::pinSource, Part::Query, isText},
};

constexpr bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~").find(c) != std::string_view::npos;
}

// pk11-pchar and pk11-qchar, the percent sign aside.
constexpr bool mayStand(char c, Part part) {
    return isUnreserved(c) || std::string_view(":[]@!$'()*+,=").find(c) != std::string_view::npos ||
           std::string_view(part == Part::Path ? "&" : "/?|").find(c) != std::string_view::npos;
}

std::optional<std::string> decoded(std::string_view text, Part part) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            if (!mayStand(text[at], part)) return std::nullopt;
            out.push_back(text[at]);
            continue;
        }
        const auto digits = text.substr(at + 1, 2);
        const auto byte = fromHex(digits);
        if (!byte || byte->size() != 1) return std::nullopt;
        out.push_back(static_cast<char>(byte->front()));
        at += digits.size();
    }
    return out;
}

std::string encoded(std::string_view value) {
    std::string out;
    for (const char c : value) {
        if (isUnreserved(c)) {
            out.push_back(c);
        } else {
            const auto byte = static_cast<std::uint8_t>(c);
            out.append("%").append(toHex({&byte, 1}));
        }
    }
    return out;
}

class Parser {
  public:
    Parser(Pkcs11Uri& uri, LogBase& log) : m_uri(uri), m_log(log) {}

    bool parse(std::string_view text) {
        if (text.size() > kMaxSize) return fail("is longer than 64 KiB");
        if (!equalsIgnoreCase(text.substr(0, kScheme.size()), kScheme))
            return fail("does not begin with \"pkcs11:\"");
        text.remove_prefix(kScheme.size());
        const auto query = text.find('?');
        if (!parsePart(text.substr(0, query), Part::Path)) return false;
        return query == std::string_view::npos || parsePart(text.substr(query + 1), Part::Query);
    }

  private:
    bool fail(std::string_view what) {
        std::string line = "The PKCS #11 URI ";
        appendOneLine(line, what);
        m_log.LogError(line + ".");
        return false;
    }

    bool parsePart(std::string_view text, Part part) {
        const char separator = part == Part::Path ? ';' : '&';
        while (!text.empty()) {
            const auto end = std::min(text.find(separator), text.size());
            if (!parseAttribute(text.substr(0, end), part)) return false;
            const bool isLast = end == text.size();
            text.remove_prefix(isLast ? end : end + 1);
            if (!isLast && text.empty()) return fail("ends with a separator");
        }
        return true;
    }

    bool parseAttribute(std::string_view text, Part part) {
        const auto equals = text.find('=');
        const std::string name(text.substr(0, equals));
        if (equals == std::string_view::npos || name.empty())
            return fail("has an attribute without a value: " + name);
        if (part == Part::Query && name == "pin-value") {
            return fail(
                "has a PIN in it (pin-value), where others can read it; pin-source=file:PATH names "
                "a file instead");
        }
        const auto* const row = std::ranges::find_if(kAttributes, [&](const Attribute& attribute) {
            return attribute.part == part && attribute.name == name;
        });
        if (row == kAttributes.end()) return unknown(name, part);
        const auto value = decoded(text.substr(equals + 1), part);
        if (!value) return fail("has a character in " + name + " that is to be percent-encoded");
        return take(*row, *value);
    }

    bool unknown(const std::string& name, Part part) {
        if (part == Part::Path) return fail("has an attribute that is unknown here: " + name);
        std::string line = "An attribute of the PKCS #11 URI is passed over: ";
        appendOneLine(line, name);
        m_log.LogInfo(line);
        return true;
    }

    bool take(const Attribute& row, std::string value) {
        const std::string name(row.name);
        if (m_uri.*row.member) return fail("has " + name + " twice");
        if (!row.isValid(value)) return fail("has no meaningful value for " + name);
        if (row.member == &Pkcs11Uri::pinSource && !takeFile(value))
            return fail("has a pin-source that is not file: and an absolute path");
        m_uri.*row.member = std::move(value);
        return true;
    }

    // file:/path and file:///path, RFC 8089.
    static bool takeFile(std::string& value) {
        if (!equalsIgnoreCase(std::string_view(value).substr(0, kFile.size()), kFile)) return false;
        value.erase(0, kFile.size());
        if (value.starts_with("///")) value.erase(0, 2);
        return value.starts_with('/') && !value.starts_with("//");
    }

    Pkcs11Uri& m_uri;
    LogBase& m_log;
};

}  // namespace

Pkcs11Uri::Pkcs11Uri() noexcept = default;
Pkcs11Uri::Pkcs11Uri(const Pkcs11Uri& other) = default;
Pkcs11Uri::Pkcs11Uri(Pkcs11Uri&& other) noexcept = default;
Pkcs11Uri& Pkcs11Uri::operator=(const Pkcs11Uri& other) = default;
Pkcs11Uri& Pkcs11Uri::operator=(Pkcs11Uri&& other) noexcept = default;
Pkcs11Uri::~Pkcs11Uri() = default;

bool Pkcs11Uri::parse(std::string_view text, LogBase& log) {
    *this = Pkcs11Uri();
    return guarded(log, [&] {
        Pkcs11Uri uri;
        if (!Parser(uri, log).parse(trimmed(text))) return false;
        *this = std::move(uri);
        return true;
    });
}

std::string Pkcs11Uri::text() const {
    std::string out(kScheme);
    char separator = '\0';
    Part written = Part::Path;
    for (const Attribute& row : kAttributes) {
        const Value& value = this->*row.member;
        if (!value) continue;
        if (row.part != written) separator = '?';
        written = row.part;
        if (separator != '\0') out.push_back(separator);
        const bool isFile = row.member == &Pkcs11Uri::pinSource;
        out.append(row.name).append(isFile ? "=file:" : "=").append(encoded(*value));
        separator = row.part == Part::Path ? ';' : '&';
    }
    return out;
}

TokenChoice Pkcs11Uri::tokenChoice() const {
    TokenChoice choice;
    choice.label = token;
    choice.serialNumber = serial;
    choice.manufacturer = manufacturer;
    choice.model = model;
    CK_SLOT_ID number = 0;
    if (slotId) {
        std::from_chars(slotId->data(), slotId->data() + slotId->size(), number);
        choice.slotId = number;
    }
    return choice;
}

Pkcs11Uri uriOf(const TokenInfo& token) {
    Pkcs11Uri uri;
    const auto set = [](Pkcs11Uri::Value& value, const std::string& text) {
        if (!text.empty()) value = text;
    };
    set(uri.model, token.model);
    set(uri.manufacturer, token.manufacturer);
    set(uri.serial, token.serialNumber);
    set(uri.token, token.label);
    return uri;
}

Pkcs11Uri uriOfCert(const TokenInfo& token, ClsCert& cert) {
    Pkcs11Uri uri = uriOf(token);
    const auto shared = cert.getCert();
    if (!shared) return uri;
    const auto& info = shared->tokenInfo();
    const auto id = info.ckaId.span();
    if (!id.empty()) uri.id.emplace(id.begin(), id.end());
    if (!info.label.empty() && isText(info.label)) uri.object = info.label;
    uri.type = "cert";
    return uri;
}

std::optional<Pkcs11Uri> uriOfKey(const TokenInfo& token, ClsCert& cert) {
    const auto link = cert.PrivateKeyLink();
    if (!link) return std::nullopt;
    Pkcs11Uri uri = uriOf(token);
    if (link->facts.rule == KeyRule::CertHandle) uri.id = uriOfCert(token, cert).id;
    if (!link->facts.keyId.empty()) uri.id = link->facts.keyId;
    uri.type = "private";
    return uri.id ? std::optional(std::move(uri)) : std::nullopt;
}

}  // namespace mervane
