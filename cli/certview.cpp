// What is shown of a certificate and its key: members of JSON documents, and texts for people.

#include "certview.h"

#include "failure.h"

#include <algorithm>
#include <array>
#include <ctime>

#include <mervane/foundation/text/ascii.h>
#include <mervane/foundation/text/utf8.h>
#include <mervane/locate/uri.h>

namespace mervane::cli {
namespace {

// The front of a text for people: a hostile name of a megabyte is not copied on its way to a cell.
std::string readCell(ClsCert& cert, TextProperty property) {
    XString text;
    (cert.*property)(text);
    return std::string(text.view().substr(0, Table::kMaxCell + 1));
}

// Null where the certificate has no such text, or a malformed one.
template <class Read>
void printText(JsonPrinter& document, std::string_view name, const Certificate& cert, Read read) {
    XString text;
    if (read(cert, text)) {
        document.text(name, text.view());
    } else {
        document.member(name, JsonValue());
    }
}

using TextReader = bool (Certificate::*)(XString&, LogBase&) const;

void printText(JsonPrinter& document, std::string_view name, const Certificate& cert,
               TextReader reader) {
    printText(document, name, cert, [reader](const Certificate& from, XString& text) {
        LogNull log;
        return (from.*reader)(text, log);
    });
}

void printValidity(JsonPrinter& document, const Certificate& cert) {
    std::string notBefore;
    std::string notAfter;
    const bool isKnown = cert.getValidity(notBefore, notAfter);
    document.member("notBefore", isKnown ? JsonValue(notBefore) : JsonValue());
    document.member("notAfter", isKnown ? JsonValue(notAfter) : JsonValue());
}

using Names = std::vector<std::string> (ClsCert::*)();

void printNames(JsonPrinter& document, std::string_view name, ClsCert& cert, Names names) {
    JsonValue list = JsonValue::array();
    for (const std::string& word : (cert.*names)()) list.append(JsonValue(word));
    document.member(name, list);
}

JsonValue keyTypeName(int type) {
    return type == kRsaKey ? JsonValue("RSA") : type == kEcKey ? JsonValue("EC") : JsonValue();
}

JsonValue knownOrNull(std::optional<bool> flag) {
    return flag ? JsonValue(*flag) : JsonValue();
}

JsonValue toJson(const Certificate::Pkcs11Link& link) {
    JsonValue out = JsonValue::object();
    out.set("handle", link.keyHandle);
    out.set("keyType", keyTypeName(link.keyType));
    out.set("expectedSignatureSize", link.expectedSignatureSize);
    out.set("keyBy", nameOf(link.facts.rule));
    out.set("maySign", knownOrNull(link.facts.maySign));
    out.set("alwaysAuthenticate", knownOrNull(link.facts.alwaysAuthenticate));
    return out;
}

void printKey(JsonPrinter& document, const KeyView& key, const std::optional<Pkcs11Uri>& uri) {
    JsonValue found = key.link ? toJson(*key.link) : JsonValue();
    if (key.link) found.set("uri", uri ? JsonValue(uri->text()) : JsonValue());
    document.member("privateKey", found);
    if (key.state == KeyView::State::Unknown) document.member("keyBy", JsonValue("unknown"));
    if (key.explanation) document.member("explanation", mervane::toJson(*key.explanation));
}

JsonValue toJson(const TokenInfo& token) {
    JsonValue out = JsonValue::object();
    out.set("label", token.label);
    out.set("serialNumber", token.serialNumber);
    out.set("slotId", token.slotId);
    out.set("uri", uriOf(token).text());
    return out;
}

struct TypeName {
    std::string_view oid;
    std::string_view name;
};

// Attribute types of X.520 that RFC 4514 has no short name for.
constexpr std::array kTypeNames = {
    TypeName{"2.5.4.4=", "surname="},
    TypeName{"2.5.4.5=", "serialNumber="},
    TypeName{"2.5.4.12=", "title="},
    TypeName{"2.5.4.13=", "description="},
    TypeName{"2.5.4.17=", "postalCode="},
    TypeName{"2.5.4.41=", "name="},
    TypeName{"2.5.4.42=", "givenName="},
    TypeName{"2.5.4.43=", "initials="},
    TypeName{"2.5.4.46=", "dnQualifier="},
    TypeName{"2.5.4.65=", "pseudonym="},
    TypeName{"2.5.4.97=", "organizationIdentifier="},
};

// Whether an attribute of a distinguished name begins there.
bool isStart(std::string_view dn, std::size_t at) {
    while (at > 0 && dn[at - 1] == ' ') --at;
    return at == 0 || ((dn[at - 1] == '+' || dn[at - 1] == ',') && (at == 1 || dn[at - 2] != '\\'));
}

// A distinguished name with the types of the table in their other form.
std::string rewritten(std::string_view dn, std::string_view TypeName::*from,
                      std::string_view TypeName::*to) {
    std::string out;
    for (std::size_t at = 0; at < dn.size();) {
        const std::string_view rest = dn.substr(at);
        const auto isHere = [&](const TypeName& type) {
            const std::string_view word = type.*from;
            return equalsIgnoreCase(rest.substr(0, word.size()), word) && isStart(dn, at);
        };
        const auto* const known = std::ranges::find_if(kTypeNames, isHere);
        if (known == kTypeNames.end()) {
            out.push_back(dn[at++]);
        } else {
            out.append(known->*to);
            at += (known->*from).size();
        }
    }
    return out;
}

std::string namedTypes(const std::string& dn) {
    return rewritten(dn, &TypeName::oid, &TypeName::name);
}

std::string today() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    std::array<char, 32> text{};
    if (::gmtime_r(&now, &utc) == nullptr) return {};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

}  // namespace

std::string read(ClsCert& cert, TextProperty property) {
    XString text;
    (cert.*property)(text);
    return std::string(text.view());
}

int linkKey(ClsPkcs11& p11, ClsCert& cert, const Options& options) {
    LogNull silent;
    LogBase& log = options.log ? static_cast<LogBase&>(p11.log()) : silent;
    const bool isLinked = p11.linkCertToPkcs11Session(cert.getCert().get(), true, log);
    if (!isLinked && p11.lastFailure().kind != FailureKind::NotFound) throwLastFailure(p11);
    return p11.get_NumLeftOut();
}

KeyView keyViewOf(ClsPkcs11& p11, ClsCert& cert, const TokenInfo& token, bool isLoggedIn,
                  bool isExplained) {
    KeyView key;
    key.link = cert.PrivateKeyLink();
    if (key.isGuess() || isExplained) {
        KeyExplanation explanation;
        if (!p11.ExplainPrivateKey(cert, explanation)) throwLastFailure(p11);
        // FindSigner passes over keys that this search may have ended at.
        if (key.link && key.link->keyHandle == explanation.keyHandle)
            key.link->facts = explanation.facts;
        if (isExplained) key.explanation = std::move(explanation);
    }
    if (key.link && key.link->facts.isDisproved) key.link.reset();
    const bool mayBeHidden = token.needsLogin && !isLoggedIn;
    key.state = key.link      ? KeyView::State::Found
                : mayBeHidden ? KeyView::State::Unknown
                              : KeyView::State::None;
    return key;
}

void printCert(JsonPrinter& document, ClsCert& cert, const CertContext& context,
               const KeyView* key) {
    const auto shared = cert.getCert();
    const Certificate& fields = *shared;
    document.member("index", JsonValue(context.index));
    printText(document, "subject", fields, &Certificate::getSubjectDN);
    printText(document, "subjectNoTags", fields, &Certificate::getSubjectDN_noTags);
    printText(document, "issuer", fields, &Certificate::getIssuerDN);
    printText(document, "issuerCN", fields, [](const Certificate& from, XString& text) {
        LogNull log;
        return from.getIssuerPart("CN", text, log);
    });
    printText(document, "serialNumber", fields, &Certificate::getSerialNumber);
    printText(document, "sha1Thumbprint", fields, &Certificate::getSha1ThumbprintX);
    printText(document, "sha256Thumbprint", fields, &Certificate::getSha256Thumbprint);
    printValidity(document, fields);
    const int type = cert.get_KeyType();
    document.member("keyType", keyTypeName(type));
    document.member("keyBits", type == kOtherKey ? JsonValue() : JsonValue(cert.get_KeyBits()));
    printNames(document, "keyUsage", cert, &ClsCert::KeyUsages);
    printNames(document, "extendedKeyUsage", cert, &ClsCert::ExtendedKeyUsages);
    printNames(document, "policies", cert, &ClsCert::Policies);
    document.member("isCa", JsonValue(cert.IsCa()));
    document.text("ckaId", read(cert, &ClsCert::get_CkaId));
    document.text("label", read(cert, &ClsCert::get_Label));
    document.text("uri", uriOfCert(context.token, cert).text());
    document.member("token", toJson(context.token));
    if (context.withPem) document.text("pem", cert.ExportPem());
    if (key != nullptr) printKey(document, *key, uriOfKey(context.token, cert));
}

std::string subjectFor(ClsCert& cert) {
    return namedTypes(readCell(cert, &ClsCert::get_SubjectDN));
}

std::string withOids(const std::string& dn) {
    return rewritten(dn, &TypeName::name, &TypeName::oid);
}

std::string issuerFor(ClsCert& cert) {
    return namedTypes(readCell(cert, &ClsCert::get_IssuerDN));
}

std::string whoFor(ClsCert& cert) {
    LogNull log;
    XString mail;
    std::string who = readCell(cert, &ClsCert::get_SubjectCN);
    if (cert.getCert()->getSubjectPart("E", mail, log))
        who.append(who.empty() ? "" : " ")
            .append("<")
            .append(mail.view().substr(0, Table::kMaxCell))
            .append(">");
    return who.empty() ? subjectFor(cert) : who;
}

std::string useFor(ClsCert& cert) {
    if (cert.IsCa()) return "CA";
    const auto usages = cert.KeyUsages();
    const auto has = [&](std::string_view usage) {
        return std::ranges::find(usages, usage) != usages.end();
    };
    std::vector<std::string> words;
    if (has("nonRepudiation")) words.emplace_back("signature");
    if (has("digitalSignature")) words.emplace_back(words.empty() ? "signature, login" : "login");
    if (has("keyEncipherment") || has("dataEncipherment") || has("keyAgreement"))
        words.emplace_back("encryption");
    std::string out;
    for (const std::string& word : words) out.append(out.empty() ? "" : ", ").append(word);
    return out.empty() ? (usages.empty() ? "any" : "other") : out;
}

std::string keyFor(ClsCert& cert) {
    const int type = cert.get_KeyType();
    if (type == kOtherKey) return "other";
    return (type == kRsaKey ? "RSA " : "EC ") + std::to_string(cert.get_KeyBits());
}

namespace {

enum class Validity : unsigned char { Valid, NotYet, Past, Unknown };

Validity validityOf(ClsCert& cert) {
    const std::string now = today();
    const std::string end = read(cert, &ClsCert::get_NotAfter);
    if (end.size() != now.size()) return Validity::Unknown;
    if (end < now) return Validity::Past;
    return read(cert, &ClsCert::get_NotBefore) > now ? Validity::NotYet : Validity::Valid;
}

}  // namespace

bool isValidToday(ClsCert& cert) {
    return validityOf(cert) == Validity::Valid;
}

std::string untilFor(ClsCert& cert) {
    const std::string end = read(cert, &ClsCert::get_NotAfter);
    std::string day = end.substr(0, end.find('T'));
    switch (validityOf(cert)) {
        case Validity::Past:
            return "EXPIRED " + day;
        case Validity::NotYet:
            return "NOT YET VALID";
        default:
            return day;
    }
}

std::string privateKeyFor(const KeyView& key) {
    if (key.link) return std::to_string(key.link->keyHandle);
    return key.state == KeyView::State::Unknown ? "unknown (not logged in)" : "none";
}

namespace {

std::string_view wordsFor(KeyObjection objection) noexcept {
    // In the order of the values.
    constexpr std::array<std::string_view, 7> kWords = {
        "cannot be read", "another ID",          "another subject", "another modulus",
        "another point",  "its point is hidden", "may not sign"};
    return kWords.at(static_cast<std::size_t>(objection));
}

}  // namespace

std::vector<std::string> explanationFor(const KeyView& key) {
    if (!key.explanation) return {};
    std::vector<std::string> lines;
    for (const PassedOverKey& other : key.explanation->passedOver) {
        std::string why;
        for (const KeyObjection objection : other.objections)
            why.append(why.empty() ? "" : ", ").append(wordsFor(objection));
        lines.push_back("key " + std::to_string(other.handle) + " (ID " + other.ckaId +
                        "): " + (why.empty() ? "fits as well, and comes later" : why));
    }
    if (key.explanation->numMore != 0)
        lines.push_back(std::to_string(key.explanation->numMore) + " more keys");
    return lines;
}

std::string foundByFor(const KeyView& key) {
    if (!key.link) return {};
    if (key.isGuess()) return "GUESS";
    switch (key.link->facts.rule) {
        case KeyRule::CertHandle:
            return "same handle";
        case KeyRule::Id:
            return "ID";
        default:
            return std::string(nameOf(key.link->facts.rule));
    }
}

std::string signsFor(const KeyView& key) {
    if (!key.link) return privateKeyFor(key) == "none" ? "no key" : "unknown (not logged in)";
    if (key.isGuess()) return "GUESS";
    if (!key.link->facts.maySign.value_or(true)) return "may not sign";
    return key.link->facts.alwaysAuthenticate.value_or(false) ? "yes, PIN each time" : "yes";
}

}  // namespace mervane::cli
