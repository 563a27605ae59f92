// FindObject: one object from its description in JSON. Layout: docs/json.md. CountObjects: how many
// there are of the classes that a description can name.

#include <algorithm>
#include <array>

#include "foundation/text/hex.h"
#include "foundation/x509/der.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/calls/search.h"

namespace mervane::operation {
namespace {

struct Word {
    std::string_view text;
    CK_ULONG value;
};

constexpr std::array kClassWords = {
    Word{"certificate", CKO_CERTIFICATE},
    Word{"privateKey", CKO_PRIVATE_KEY},
    Word{"publicKey", CKO_PUBLIC_KEY},
    Word{"secretKey", CKO_SECRET_KEY},
    Word{"data", CKO_DATA},
};

constexpr std::array kKeyTypeWords = {Word{"RSA", CKK_RSA}, Word{"EC", CKK_EC}};

struct Description {
    std::optional<CK_ULONG> objectClass;
    std::optional<CK_ULONG> keyType;
    std::optional<bool> onToken;
    std::optional<std::vector<std::uint8_t>> label, id, serialNumber, subject;
};

template <std::size_t N>
bool readWord(const JsonValue& value, const std::array<Word, N>& words,
              std::optional<CK_ULONG>& out) {
    const auto text = value.asString();
    if (!text) return false;
    const auto* const word = std::ranges::find(words, *text, &Word::text);
    if (word == words.end()) return false;
    out = word->value;
    return true;
}

bool readHex(const JsonValue& value, std::optional<std::vector<std::uint8_t>>& out) {
    const auto text = value.asString();
    out = text ? fromHex(*text) : std::nullopt;
    return out.has_value();
}

bool readText(const JsonValue& value, std::optional<std::vector<std::uint8_t>>& out) {
    const auto text = value.asString();
    if (text) out.emplace(text->begin(), text->end());
    return text.has_value();
}

bool readBool(const JsonValue& value, std::optional<bool>& out) {
    if (value.asBool() != nullptr) out = *value.asBool();
    return value.asBool() != nullptr;
}

struct Member {
    std::string_view name;
    std::string_view form;  // for the error line
    bool (*read)(const JsonValue& value, Description& out);
};

constexpr std::array kMembers = {
    Member{
        "class", "one of certificate, privateKey, publicKey, secretKey, data",
        [](const JsonValue& v, Description& d) { return readWord(v, kClassWords, d.objectClass); }},
    Member{
        "keyType", "RSA or EC",
        [](const JsonValue& v, Description& d) { return readWord(v, kKeyTypeWords, d.keyType); }},
    Member{"label", "a string",
           [](const JsonValue& v, Description& d) { return readText(v, d.label); }},
    Member{"id", "hexadecimal digits",
           [](const JsonValue& v, Description& d) { return readHex(v, d.id); }},
    Member{"serialNumber", "hexadecimal digits",
           [](const JsonValue& v, Description& d) { return readHex(v, d.serialNumber); }},
    Member{"subject", "hexadecimal digits",
           [](const JsonValue& v, Description& d) { return readHex(v, d.subject); }},
    Member{"token", "true or false",
           [](const JsonValue& v, Description& d) { return readBool(v, d.onToken); }},
    // Left in the document by an earlier search.
    Member{"handle", "a number",
           [](const JsonValue& v, Description&) { return v.asNumber().has_value(); }},
};

bool readDescription(Calls& calls, const ClsJsonObject& json, Description& out, LogBase& log) {
    const auto refused = [&](const std::string& sentence) {
        return calls.fail(log, FailureKind::Argument, sentence);
    };
    const JsonObject* const members = json.valueAt("")->asObject();
    if (members == nullptr) return refused("The description of the object is not a JSON object.");
    for (const JsonMember& given : *members) {
        const std::string name(given.name());
        const auto* const member =
            std::ranges::find(kMembers, std::string_view(name), &Member::name);
        if (member == kMembers.end())
            return refused("The description has an unknown member: \"" + name + "\".");
        if (&given.value != json.valueAt("")->find(name))
            return refused("The description names \"" + name + "\" twice.");
        if (!member->read(given.value, out))
            return refused("The member \"" + name + "\" of the description is not " +
                           std::string(member->form) + ".");
    }
    return true;
}

// Whether objects of a class have the attributes that the description names; modules reject
// searches for others. Certificates have serial numbers, keys have types, both have subjects, and
// data objects have a label only.
bool mayHave(CK_ULONG objectClass, const Description& wanted) noexcept {
    const bool isCert = objectClass == CKO_CERTIFICATE;
    const bool isKey = objectClass == CKO_PUBLIC_KEY || objectClass == CKO_PRIVATE_KEY;
    const bool isSecret = objectClass == CKO_SECRET_KEY;
    return (!wanted.serialNumber || isCert) && (!wanted.subject || isCert || isKey) &&
           (!wanted.keyType || isKey || isSecret) && (!wanted.id || isCert || isKey || isSecret);
}

// The DER INTEGER of an unsigned number, which is what CKA_SERIAL_NUMBER holds.
std::vector<std::uint8_t> derInteger(std::span<const std::uint8_t> number) {
    std::vector<std::uint8_t> content(number.begin(), number.end());
    if (content.empty() || (content.front() & 0x80U) != 0) content.insert(content.begin(), 0);
    // Serial numbers have at most 20 octets (RFC 5280 4.1.2.2); the short length form holds 127.
    if (content.size() > 127) return content;
    content.insert(content.begin(), {der::kInteger, static_cast<std::uint8_t>(content.size())});
    return content;
}

}  // namespace

int findObject(Calls& calls, ClsJsonObject& json, LogBase& log) {
    Description wanted;
    if (!calls.ready(log, function::kFindObjectsInit) || !readDescription(calls, json, wanted, log))
        return 0;
    json.root().remove("handle");
    std::vector<std::vector<std::uint8_t>> serials(1);
    if (wanted.serialNumber) serials = {derInteger(*wanted.serialNumber), *wanted.serialNumber};

    for (const Word& word : kClassWords) {
        if (wanted.objectClass ? *wanted.objectClass != word.value : !mayHave(word.value, wanted))
            continue;
        // Modules store the serial number in DER, as the standard says, or bare.
        for (const auto& serial : serials) {
            ObjectQuery query(word.value);
            if (wanted.keyType) query.add(CKA_KEY_TYPE, *wanted.keyType);
            if (wanted.onToken) query.addFlag(CKA_TOKEN, *wanted.onToken);
            if (wanted.label) query.addBytes(CKA_LABEL, *wanted.label);
            if (wanted.id) query.addBytes(CKA_ID, *wanted.id);
            if (wanted.subject) query.addBytes(CKA_SUBJECT, *wanted.subject);
            if (wanted.serialNumber) query.addBytes(CKA_SERIAL_NUMBER, serial);
            std::vector<CK_OBJECT_HANDLE> handles;
            if (!findObjects(calls, query.attributes(), 1, handles, log)) return 0;
            if (handles.empty()) continue;
            json.root().set("handle", handles.front());
            const bool fits = handles.front() <= UINT32_MAX;
            return fits ? static_cast<int>(static_cast<std::uint32_t>(handles.front())) : -1;
        }
    }
    log.LogInfo("No object fits the description.");
    calls.noteFailure(FailureKind::NotFound, "No object fits the description.");
    return 0;
}

bool countObjects(Calls& calls, int& count, LogBase& log) {
    int numFound = 0;
    for (const Word& word : kClassWords) {
        ObjectQuery query(word.value);
        std::vector<CK_OBJECT_HANDLE> handles;
        if (!findObjects(calls, query.attributes(), kMaxObjects, handles, log)) return false;
        numFound += static_cast<int>(handles.size());
    }
    count = numFound;
    return true;
}

}  // namespace mervane::operation
