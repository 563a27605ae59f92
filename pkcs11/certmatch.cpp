// The parts of a certificate that can be asked for. Each has a rule, a row of one table in which
// the order matters.

#include "pkcs11/certmatch.h"

#include <algorithm>
#include <array>

namespace mervane {
namespace {

// What a match rule looks at: the certificate, the normalised part name, and the value wanted.
struct Question {
    const Certificate& cert;
    std::string_view part;
    std::string_view value;
    LogBase& log;
};

using TextReader = bool (Certificate::*)(XString&, LogBase&) const;

// Reads a text, and logs it before it is compared.
template <TextReader Reader>
bool read(const Question& q, XString& text) {
    if (!(q.cert.*Reader)(text, q.log)) return false;
    q.log.LogDataX("checking", text);
    return true;
}

template <TextReader Reader>
bool textEquals(const Question& q) {
    XString text;
    return read<Reader>(q, text) && text.view() == q.value;
}

template <TextReader Reader>
bool textEqualsIgnoreCase(const Question& q) {
    XString text;
    return read<Reader>(q, text) && equalsIgnoreCase(text.view(), q.value);
}

// "SERIAL:issuer CN", for each of the three issuer keywords.
bool issuerAndSerialEqual(const Question& q) {
    XString serial;
    XString issuer;
    if (!q.cert.getSerialNumber(serial, q.log) || !q.cert.getIssuerPart("CN", issuer, q.log))
        return false;
    std::string joined(serial.view());
    joined.append(":").append(issuer.view());
    q.log.LogData("checking", joined);
    return joined == q.value;
}

bool hasPolicy(const Question& q) {
    StringBuffer xml;
    if (!q.cert.getExtensionXml("2.5.29.32", xml, q.log)) return false;
    std::string wanted = "<oid>";
    wanted.append(trimmed(q.value)).append("</oid>");
    return xml.containsSubstring(wanted);
}

struct Usage {
    std::string_view name;
    int bit;
};

// Bits of the first octet of KeyUsage (RFC 5280 4.2.1.3). "offlinecrlsign" is an older name for the
// "crlsigning" bit.
constexpr std::array kUsages = {
    Usage{"nonrepudiation", 0x40},     Usage{"digitalsignature", 0x80},
    Usage{"keyencipherment", 0x20},    Usage{"dataencipherment", 0x10},
    Usage{"certificatesigning", 0x04}, Usage{"crlsigning", 0x02},
    Usage{"keyagreement", 0x08},       Usage{"encipheronly", 0x01},
    Usage{"offlinecrlsign", 0x02},
};

// Any one of the usages named will do.
bool hasUsage(const Question& q) {
    const int bits = q.cert.getIntendedKeyUsage(q.log);
    q.log.LogData("checking", "");
    return std::ranges::any_of(kUsages, [&](const Usage& usage) {
        return (bits & usage.bit) != 0 && q.value.find(usage.name) != std::string_view::npos;
    });
}

bool subjectPartEquals(const Question& q) {
    StringBuffer part(q.part);
    part.toUpperCase();
    XString text;
    if (!q.cert.getSubjectPart(part.getString(), text, q.log)) return false;
    q.log.LogDataX("checking", text);
    return text.view() == q.value;
}

}  // namespace

struct MatchRule {
    std::string_view keyword;  // looked for anywhere in the part name
    bool (*matches)(const Question& question);
};

namespace {

// The first row whose keyword the part name contains applies, so the order matters: longer words
// come before the words they contain, and the issuer rows before "serial".
constexpr std::array kMatchRules = {
    MatchRule{"subjectdn_withtags", textEquals<&Certificate::getSubjectDN>},
    MatchRule{"subjectdn", textEquals<&Certificate::getSubjectDN_noTags>},
    MatchRule{"issuercn", issuerAndSerialEqual},
    MatchRule{"issuerserial", issuerAndSerialEqual},
    MatchRule{"serialissuer", issuerAndSerialEqual},
    MatchRule{"serial", textEqualsIgnoreCase<&Certificate::getSerialNumber>},
    MatchRule{"thumbprint", textEqualsIgnoreCase<&Certificate::getSha1ThumbprintX>},
    MatchRule{"policyoid", hasPolicy},
    MatchRule{"keyusage", hasUsage},
    MatchRule{"", subjectPartEquals},
};

// Trimmed and in lower case, with the two long names shortened.
StringBuffer normalizedPart(const StringBuffer& certPart) {
    StringBuffer part = certPart;
    part.trim2();
    part.toLowerCase();
    if (part.equals("organization")) {
        part.setString("o");
    } else if (part.equals("email")) {
        part.setString("e");
    }
    return part;
}

}  // namespace

CertMatch::CertMatch(std::string_view part, std::string_view value)
    : m_part(normalizedPart(StringBuffer(part))), m_value(value) {
    // Usage names are compared in lower case. Only the exact word lowers the value: the rule also
    // applies to longer words that contain "keyusage", whose callers pass lower case themselves.
    if (m_part.equals("keyusage")) m_value.toLowerCase();
    // The last row applies to everything.
    m_rule = std::ranges::find_if(
        kMatchRules, [this](const MatchRule& r) { return m_part.containsSubstring(r.keyword); });
}

bool CertMatch::matches(const Certificate& cert, LogBase& log) const {
    return m_rule->matches({cert, m_part.view(), m_value.view(), log});
}

}  // namespace mervane
