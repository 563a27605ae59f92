#include "parts.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include <mervane/foundation/text/ascii.h>

#include "certview.h"
#include "failure.h"
#include "output.h"
#include "words.h"

namespace mervane::cli {
namespace {

constexpr std::array kParts = {
    Part{"privateKey", Form::Text, false},
    Part{"subjectDN_withTags", Form::Name},
    Part{"subjectDN", Form::Name},
    Part{"issuerCN", Form::SerialAndIssuer},
    Part{"issuerSerial", Form::SerialAndIssuer},
    Part{"serialIssuer", Form::SerialAndIssuer},
    Part{"serial", Form::Hex},
    Part{"thumbprint", Form::Hex},
    Part{"sha256", Form::Hex},
    Part{"id", Form::Hex},
    Part{"label", Form::Text},
    Part{"policyOid", Form::Oid},
    Part{"keyUsage", Form::Usages},
    Part{"organization", Form::Text},
    Part{"email", Form::Text},
};

// Attribute types that a subject can be asked for by name.
constexpr std::array<std::string_view, 27> kSubjectParts = {"CN",
                                                            "O",
                                                            "OU",
                                                            "C",
                                                            "L",
                                                            "ST",
                                                            "STREET",
                                                            "DC",
                                                            "UID",
                                                            "E",
                                                            "EMAILADDRESS",
                                                            "S",
                                                            "SN",
                                                            "SURNAME",
                                                            "SERIALNUMBER",
                                                            "T",
                                                            "TITLE",
                                                            "DESCRIPTION",
                                                            "POSTALCODE",
                                                            "NAME",
                                                            "G",
                                                            "GN",
                                                            "GIVENNAME",
                                                            "INITIALS",
                                                            "DNQUALIFIER",
                                                            "PSEUDONYM",
                                                            "ORGANIZATIONIDENTIFIER"};

constexpr std::array<std::string_view, 9> kUsages = {
    "nonRepudiation",   "digitalSignature",   "keyEncipherment",
    "dataEncipherment", "certificateSigning", "crlSigning",
    "keyAgreement",     "encipherOnly",       "offlineCrlSign"};

bool isSame(std::string_view a, std::string_view b) {
    return equalsIgnoreCase(a, b);
}

bool isOid(std::string_view text) {
    return text.find('.') != std::string_view::npos && text.front() != '.' && text.back() != '.' &&
           text.find("..") == std::string_view::npos &&
           text.find_first_not_of("0123456789.") == std::string_view::npos;
}

template <class Names>
std::string listed(const Names& names) {
    std::string out;
    for (const std::string_view name : names) out.append(out.empty() ? "" : " ").append(name);
    return out;
}

std::string hexValue(const std::string& value) {
    const auto digits = hexDigits(value);
    if (!digits) throw CommandError{Exit::Usage, "Not hexadecimal: " + printable(value) + ".", {}};
    return digits->size() % 2 == 0 ? *digits : "0" + *digits;
}

// As the library writes it: without leading zero octets.
std::string serialValue(const std::string& value) {
    std::string digits = hexValue(value);
    while (digits.size() > 2 && digits.starts_with("00")) digits.erase(0, 2);
    return digits;
}

std::string usageValue(const std::string& value) {
    std::string out;
    for (const std::string& word : wordsOf(value)) {
        // RFC 5280's names for two of them.
        const std::string_view name = isSame(word, "keyCertSign") ? "certificateSigning"
                                      : isSame(word, "cRLSign")   ? "crlSigning"
                                                                  : std::string_view(word);
        const auto isName = [&](std::string_view usage) { return isSame(name, usage); };
        if (std::ranges::none_of(kUsages, isName))
            throw CommandError{
                Exit::Usage, "Unknown usage: " + printable(word) + "." + nearestHint(word, kUsages),
                "Usages are " + listed(kUsages) + "."};
        out.append(name).push_back(' ');
    }
    if (out.empty())
        throw CommandError{Exit::Usage, "No usage is named.",
                           "Usages are " + listed(kUsages) + "."};
    return out;
}

}  // namespace

const Part& partOf(const std::string& word) {
    static constexpr Part kAny{"\"\"", Form::Text, false};
    static constexpr Part kSubject{"CN", Form::Text};
    if (trimmed(word).empty()) return kAny;
    for (const Part& part : kParts) {
        if (isSame(trimmed(word), part.name)) return part;
    }
    const auto isWord = [&](std::string_view name) { return isSame(trimmed(word), name); };
    if (std::ranges::any_of(kSubjectParts, isWord) || isOid(trimmed(word))) return kSubject;
    std::vector<std::string_view> names(kSubjectParts.begin(), kSubjectParts.end());
    std::ranges::transform(kParts, std::back_inserter(names), &Part::name);
    throw CommandError{Exit::Usage,
                       "Unknown PART: " + printable(word) + "." + nearestHint(word, names),
                       "PART is one of " + listed(names) + ", or an OID."};
}

std::string comparable(const Part& part, const std::string& value) {
    if (!value.empty() && !part.takesValue)
        usageError("find-cert " + std::string(part.name) + " takes no VALUE.");
    if (value.empty() && part.takesValue)
        usageError("find-cert " + std::string(part.name) + " needs a VALUE.");
    switch (part.form) {
        case Form::Name:
            return spacedName(part.name == "subjectDN" ? value : withOids(value));
        case Form::Hex:
            return part.name == "serial" ? serialValue(value) : hexValue(value);
        case Form::Usages:
            return usageValue(value);
        case Form::Oid:
            if (!isOid(trimmed(value))) usageError("Not an OID: " + printable(value) + ".");
            return value;
        case Form::SerialAndIssuer: {
            const auto colon = value.find(':');
            if (colon == std::string::npos)
                usageError("The value is SERIAL:ISSUER, such as 0A1B:Test CA.");
            return serialValue(value.substr(0, colon)) + value.substr(colon);
        }
        default:
            return value;
    }
}

std::string partNameFor(const std::string& word) {
    return isSame(trimmed(word), "SERIALNUMBER") ? "2.5.4.5" : word;
}

}  // namespace mervane::cli
