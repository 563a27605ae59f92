#include "foundation/x509/usage.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "foundation/text/bytes.h"
#include "foundation/x509/oid.h"

namespace mervane {
namespace {

// The first two octets of a KeyUsage, with unused bits cleared.
std::array<unsigned, 2> keyUsageOctets(der::Bytes value) noexcept {
    // KeyUsage ::= BIT STRING
    const auto bits = der::Cursor(value).read(der::kBitString);
    if (!bits || bits->content.size() < 2 || bits->content[0] > 7) return {};
    std::array<unsigned, 2> octets = {bits->content[1],
                                      bits->content.size() > 2 ? bits->content[2] : 0U};
    if (bits->content.size() <= 3)
        octets.at(bits->content.size() - 2) &= 0xFFU << bits->content[0] & 0xFFU;
    return octets;
}

// RFC 5280 4.2.1.3, bit 0 first.
constexpr std::array<std::string_view, 9> kKeyUsages = {
    "digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement",
    "keyCertSign",      "cRLSign",        "encipherOnly",    "decipherOnly"};

struct Purpose {
    std::string_view oid;
    std::string_view name;
};

constexpr std::array kPurposes = {
    Purpose{"2.5.29.37.0", "anyExtendedKeyUsage"},
    Purpose{"1.3.6.1.5.5.7.3.1", "serverAuth"},
    Purpose{"1.3.6.1.5.5.7.3.2", "clientAuth"},
    Purpose{"1.3.6.1.5.5.7.3.3", "codeSigning"},
    Purpose{"1.3.6.1.5.5.7.3.4", "emailProtection"},
    Purpose{"1.3.6.1.5.5.7.3.8", "timeStamping"},
    Purpose{"1.3.6.1.5.5.7.3.9", "OCSPSigning"},
    Purpose{"1.3.6.1.5.5.7.3.36", "documentSigning"},     // RFC 9336
    Purpose{"1.3.6.1.4.1.311.20.2.2", "smartcardLogon"},  // [MS-WCCE] szOID_KP_SMARTCARD_LOGON
};

// The OIDs that `oidOf` reads from the elements of a SEQUENCE, up to the first that has none.
template <class OidOf>
std::vector<std::string> oidsOf(der::Bytes value, OidOf oidOf) {
    std::vector<std::string> out;
    auto list = der::enter(value, der::kSequence);
    while (list && !list->atEnd() && out.size() < kMaxListed) {
        const auto oid = oidOf(*list);
        std::string text = oid ? oidToText(oid->content) : std::string();
        if (text.empty()) break;
        out.push_back(std::move(text));
    }
    return out;
}

}  // namespace

int keyUsageBits(der::Bytes value) noexcept {
    return static_cast<int>(keyUsageOctets(value)[0]);
}

std::vector<std::string> keyUsageNames(der::Bytes value) {
    const auto octets = keyUsageOctets(value);
    std::vector<std::string> out;
    for (std::size_t bit = 0; bit < kKeyUsages.size(); ++bit) {
        if ((octets.at(bit / 8) & 0x80U >> bit % 8) != 0) out.emplace_back(kKeyUsages.at(bit));
    }
    return out;
}

std::vector<std::string> extendedKeyUsageNames(der::Bytes value) {
    // ExtKeyUsageSyntax ::= SEQUENCE SIZE (1..MAX) OF KeyPurposeId
    auto names = oidsOf(value, [](der::Cursor& list) { return list.read(der::kOid); });
    for (std::string& name : names) {
        const auto* const known = std::ranges::find(kPurposes, name, &Purpose::oid);
        if (known != kPurposes.end()) name = known->name;
    }
    return names;
}

std::vector<std::string> policyOids(der::Bytes value) {
    return oidsOf(value, [](der::Cursor& list) {
        // PolicyInformation ::= SEQUENCE { policyIdentifier OBJECT IDENTIFIER, .. }
        const auto policy = list.read(der::kSequence);
        return policy ? der::Cursor(policy->content).read(der::kOid) : std::nullopt;
    });
}

bool isCaConstraint(der::Bytes value) noexcept {
    // BasicConstraints ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE, .. }
    auto fields = der::enter(value, der::kSequence);
    const auto isCa = fields ? fields->read(der::kBoolean) : std::nullopt;
    return isCa && !isCa->content.empty() && isCa->content[0] != 0;
}

}  // namespace mervane
