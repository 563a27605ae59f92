#include "foundation/x509/extensionxml.h"

#include <optional>

#include "foundation/text/hex.h"
#include "foundation/x509/oid.h"

namespace mervane {
namespace {

// certificatePolicies ::= SEQUENCE SIZE (1..MAX) OF PolicyInformation; nullopt if malformed.
std::optional<std::string> certificatePolicies(der::Bytes value) {
    auto policies = der::enter(value, der::kSequence);
    if (!policies) return std::nullopt;
    std::string out;
    out.reserve(64 + 7 * value.size());  // a policy of five bytes becomes 31 characters
    out.append("<certificatePolicies>");
    while (!policies->atEnd()) {
        // PolicyInformation ::= SEQUENCE { policyIdentifier OBJECT IDENTIFIER,
        //     policyQualifiers SEQUENCE OF PolicyQualifierInfo OPTIONAL }
        const auto policy = policies->read(der::kSequence);
        if (!policy) return std::nullopt;
        const auto oid = der::Cursor(policy->content).read(der::kOid);
        const std::string dotted = oid ? oidToText(oid->content) : std::string();
        if (dotted.empty()) return std::nullopt;
        out.append("<policy><oid>").append(dotted).append("</oid></policy>");
    }
    out.append("</certificatePolicies>");
    return out;
}

}  // namespace

std::string extensionToXml(der::Bytes oid, bool critical, der::Bytes value) {
    const std::string dotted = oidToText(oid);
    if (dotted == "2.5.29.32") {
        if (auto policies = certificatePolicies(value)) return *std::move(policies);
    }
    return "<extension><extnID>" + dotted + "</extnID><critical>" + (critical ? "true" : "false") +
           "</critical><hex>" + toHex(value) + "</hex></extension>";
}

}  // namespace mervane
