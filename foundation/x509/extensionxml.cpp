#include "foundation/x509/extensionxml.h"

#include <array>
#include <optional>
#include <string_view>

#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "foundation/x509/name.h"
#include "foundation/x509/oid.h"

namespace mervane {
namespace {

// Character data (XML 1.0 2.4); characters that XML cannot hold become U+FFFD.
std::string xmlText(std::string_view text) {
    std::string out;
    bool ok = true;
    while (!text.empty()) {
        const std::uint32_t c = takeCodePoint(text, ok);
        if (c == '<') {
            out.append("&lt;");
        } else if (c == '>') {
            out.append("&gt;");
        } else if (c == '&') {
            out.append("&amp;");
        } else {
            appendUtf8(out, c < 0x20 && c != '\t' && c != '\n' && c != '\r' ? kReplacementChar : c);
        }
    }
    return out;
}

std::string element(std::string_view name, std::string_view content) {
    std::string out;
    out.append("<").append(name).append(">").append(content);
    out.append("</").append(name).append(">");
    return out;
}

std::string_view asChars(der::Bytes bytes) noexcept {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

using Xml = std::optional<std::string>;  // nothing: malformed

// certificatePolicies ::= SEQUENCE SIZE (1..MAX) OF PolicyInformation
Xml certificatePolicies(der::Bytes value) {
    auto policies = der::enter(value, der::kSequence);
    if (!policies) return std::nullopt;
    std::string out;
    while (!policies->atEnd()) {
        // PolicyInformation ::= SEQUENCE { policyIdentifier OBJECT IDENTIFIER,
        //                                  policyQualifiers SEQUENCE OF PolicyQualifierInfo
        //                                  OPTIONAL }
        const auto policy = policies->read(der::kSequence);
        if (!policy) return std::nullopt;
        der::Cursor fields(policy->content);
        const auto oid = fields.read(der::kOid);
        const std::string dotted = oid ? oidToText(oid->content) : std::string();
        if (dotted.empty()) return std::nullopt;
        std::string content = element("oid", dotted);
        const auto list = fields.read(der::kSequence);
        for (der::Cursor qualifiers(list ? list->content : der::Bytes()); !qualifiers.atEnd();) {
            // PolicyQualifierInfo ::= SEQUENCE { policyQualifierId OBJECT IDENTIFIER, qualifier ANY
            // }
            const auto info = qualifiers.read(der::kSequence);
            if (!info) return std::nullopt;
            der::Cursor parts(info->content);
            const auto id = parts.read(der::kOid);
            const auto qualifier = parts.readAny();
            if (!id || !qualifier) return std::nullopt;
            // Not <oid>: that element is searched for policies.
            const auto text = stringValue(*qualifier);
            content += element("qualifier", element("id", oidToText(id->content)) +
                                                (text ? element("text", xmlText(*text))
                                                      : element("hex", toHex(qualifier->whole))));
        }
        out += element("policy", content);
    }
    return out;
}

Xml keyUsage(der::Bytes value) {
    // RFC 5280 4.2.1.3, bits 0 to 8.
    constexpr std::array<std::string_view, 9> kNames = {
        "digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement",
        "keyCertSign",      "cRLSign",        "encipherOnly",    "decipherOnly"};
    const auto bits = der::Cursor(value).read(der::kBitString);
    if (!bits || bits->content.empty()) return std::nullopt;
    std::string out;
    for (std::size_t i = 0; i < kNames.size() && 1 + i / 8 < bits->content.size(); ++i) {
        if ((bits->content[1 + i / 8] & (0x80U >> (i % 8))) != 0) {
            out.append("<").append(kNames[i]).append("/>");
        }
    }
    return out;
}

// ExtKeyUsageSyntax ::= SEQUENCE SIZE (1..MAX) OF OBJECT IDENTIFIER
Xml extendedKeyUsage(der::Bytes value) {
    auto purposes = der::enter(value, der::kSequence);
    if (!purposes) return std::nullopt;
    std::string out;
    while (!purposes->atEnd()) {
        const auto oid = purposes->read(der::kOid);
        if (!oid) return std::nullopt;
        out += element("oid", oidToText(oid->content));
    }
    return out;
}

// BasicConstraints ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE, pathLenConstraint INTEGER OPTIONAL }
Xml basicConstraints(der::Bytes value) {
    auto fields = der::enter(value, der::kSequence);
    if (!fields) return std::nullopt;
    const auto ca = fields->read(der::kBoolean);
    const auto pathLength = fields->read(der::kInteger);
    const bool isCa = ca && !ca->content.empty() && ca->content[0] != 0;
    std::string out = element("cA", isCa ? "true" : "false");
    if (!pathLength) return out;
    if (pathLength->content.empty() || pathLength->content.size() > 4) return std::nullopt;
    std::uint64_t length = 0;
    for (const std::uint8_t octet : pathLength->content) length = length << 8 | octet;
    return out + element("pathLenConstraint", std::to_string(length));
}

std::string ipAddress(der::Bytes octets) {
    std::string out;
    if (octets.size() == 4) {
        for (const std::uint8_t octet : octets)
            out += (out.empty() ? "" : ".") + std::to_string(octet);
        return out;
    }
    if (octets.size() != 16) return toHex(octets);
    for (std::size_t i = 0; i < octets.size(); i += 2) {
        out += (i == 0 ? "" : ":") + toHex(octets.subspan(i, 2));
    }
    return out;
}

// GeneralNames ::= SEQUENCE SIZE (1..MAX) OF GeneralName (RFC 5280 4.2.1.6)
Xml generalNames(der::Bytes value) {
    auto names = der::enter(value, der::kSequence);
    if (!names) return std::nullopt;
    std::string out;
    while (!names->atEnd()) {
        const auto name = names->readAny();
        if (!name) return std::nullopt;
        if (name->tag == der::context(1)) {
            out += element("rfc822Name", xmlText(asChars(name->content)));
        } else if (name->tag == der::context(2)) {
            out += element("dNSName", xmlText(asChars(name->content)));
        } else if (name->tag == der::contextConstructed(4)) {
            const auto text = nameToText(name->content, true);
            if (!text) return std::nullopt;
            out += element("directoryName", xmlText(*text));
        } else if (name->tag == der::context(6)) {
            out += element("uniformResourceIdentifier", xmlText(asChars(name->content)));
        } else if (name->tag == der::context(7)) {
            out += element("iPAddress", ipAddress(name->content));
        } else if (name->tag == der::context(8)) {
            out += element("registeredID", oidToText(name->content));
        } else {
            // otherName, x400Address, ediPartyName: their DER
            out += element("otherName", toHex(name->whole));
        }
    }
    return out;
}

struct Form {
    std::string_view oid;  // dotted
    std::string_view element;
    Xml (*write)(der::Bytes value);
};

// RFC 5280 4.2.1
constexpr std::array kForms = {
    Form{"2.5.29.32", "certificatePolicies", certificatePolicies},
    Form{"2.5.29.15", "keyUsage", keyUsage},
    Form{"2.5.29.37", "extendedKeyUsage", extendedKeyUsage},
    Form{"2.5.29.19", "basicConstraints", basicConstraints},
    Form{"2.5.29.17", "subjectAltName", generalNames},
    Form{"2.5.29.18", "issuerAltName", generalNames},
};

}  // namespace

int keyUsageBits(der::Bytes value) noexcept {
    // KeyUsage ::= BIT STRING
    const auto bits = der::Cursor(value).read(der::kBitString);
    if (!bits || bits->content.size() < 2 || bits->content[0] > 7) return 0;
    const unsigned unused = bits->content.size() == 2 ? bits->content[0] : 0;
    return static_cast<int>(bits->content[1] & (0xFFU << unused));
}

std::string extensionToXml(der::Bytes oid, bool critical, der::Bytes value) {
    const std::string dotted = oidToText(oid);
    for (const Form& form : kForms) {
        if (form.oid != dotted) continue;
        if (const Xml content = form.write(value)) return element(form.element, *content);
    }
    return element("extension", element("extnID", dotted) +
                                    element("critical", critical ? "true" : "false") +
                                    element("hex", toHex(value)));
}

}  // namespace mervane
