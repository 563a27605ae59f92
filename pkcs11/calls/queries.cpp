// Questions about objects, asked and answered in JSON. Layouts: docs/json.md.

#include <algorithm>
#include <array>

#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "foundation/x509/publickey.h"
#include "pkcs11/calls/attrs.h"
#include "pkcs11/calls/invoke.h"
#include "pkcs11/calls/names.h"
#include "pkcs11/calls/search.h"

namespace mervane {
namespace {

// --- The description that FindObject takes

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
    // What an earlier search left in the document.
    Member{"handle", "a number",
           [](const JsonValue& v, Description&) { return v.asNumber().has_value(); }},
};

bool readDescription(const ClsJsonObject& json, Description& out, LogBase& log) {
    const JsonObject* const members = json.valueAt("")->asObject();
    if (members == nullptr) {
        log.LogError("The description of the object is not a JSON object.");
        return false;
    }
    for (const JsonMember& given : *members) {
        const std::string name(given.name());
        const auto* const member =
            std::ranges::find(kMembers, std::string_view(name), &Member::name);
        if (member == kMembers.end()) {
            log.LogError("The description has an unknown member: \"" + name + "\".");
            return false;
        }
        if (&given.value != json.valueAt("")->find(name)) {
            log.LogError("The description names \"" + name + "\" twice.");
            return false;
        }
        if (!member->read(given.value, out)) {
            log.LogError("The member \"" + name + "\" of the description is not " +
                         std::string(member->form) + ".");
            return false;
        }
    }
    return true;
}

// Whether objects of a class have the attributes that the description names: modules refuse
// searches for others. Serial numbers are of certificates, key types of keys, subjects of both, and
// data objects have a label only.
bool mayHave(CK_ULONG objectClass, const Description& wanted) noexcept {
    const bool isCert = objectClass == CKO_CERTIFICATE;
    const bool isKey = objectClass == CKO_PUBLIC_KEY || objectClass == CKO_PRIVATE_KEY;
    const bool isSecret = objectClass == CKO_SECRET_KEY;
    return (!wanted.serialNumber || isCert) && (!wanted.subject || isCert || isKey) &&
           (!wanted.keyType || isKey || isSecret) && (!wanted.id || isCert || isKey || isSecret);
}

// INTEGER in DER of an unsigned number, as CKA_SERIAL_NUMBER has it.
std::vector<std::uint8_t> derInteger(std::span<const std::uint8_t> number) {
    std::vector<std::uint8_t> content(number.begin(), number.end());
    if (content.empty() || (content.front() & 0x80U) != 0) content.insert(content.begin(), 0);
    // Serial numbers have 20 octets (RFC 5280 4.1.2.2); the short form of the length holds 127.
    if (content.size() > 127) return content;
    content.insert(content.begin(), {der::kInteger, static_cast<std::uint8_t>(content.size())});
    return content;
}

// --- The list that FindAllKeys gives

enum class Form : unsigned char {
    KeyType,
    Text,
    Hex,
    Flag,
    Modulus,
    ModulusBits,
    Curve,
    ValueLength
};

struct KeyColumn {
    AttrRow row;
    Form form;
    std::string_view name;  // of the member; sizes share "keySize"
};

constexpr std::string_view kKeySize = "keySize";

constexpr KeyColumn kKeyTypeColumn = {{CKA_KEY_TYPE, AttrKind::Number}, Form::KeyType, "keyType"};
constexpr KeyColumn kLabelColumn = {{CKA_LABEL, AttrKind::Bytes, 1024}, Form::Text, "label"};
constexpr KeyColumn kIdColumn = {{CKA_ID, AttrKind::Bytes, 1024}, Form::Hex, "id"};
constexpr KeyColumn kModulusColumn = {
    {CKA_MODULUS, AttrKind::Bytes, 2048}, Form::Modulus, kKeySize};
constexpr KeyColumn kModulusBitsColumn = {
    {CKA_MODULUS_BITS, AttrKind::Number}, Form::ModulusBits, kKeySize};
constexpr KeyColumn kCurveColumn = {{CKA_EC_PARAMS, AttrKind::Bytes, 1024}, Form::Curve, kKeySize};
constexpr KeyColumn kValueLenColumn = {
    {CKA_VALUE_LEN, AttrKind::Number}, Form::ValueLength, kKeySize};

constexpr KeyColumn flagColumn(CK_ATTRIBUTE_TYPE type, std::string_view name) {
    return {{type, AttrKind::Flag}, Form::Flag, name};
}

constexpr KeyColumn kSign = flagColumn(CKA_SIGN, "sign");
constexpr KeyColumn kVerify = flagColumn(CKA_VERIFY, "verify");
constexpr KeyColumn kEncrypt = flagColumn(CKA_ENCRYPT, "encrypt");
constexpr KeyColumn kDecrypt = flagColumn(CKA_DECRYPT, "decrypt");
constexpr KeyColumn kWrap = flagColumn(CKA_WRAP, "wrap");
constexpr KeyColumn kUnwrap = flagColumn(CKA_UNWRAP, "unwrap");
constexpr KeyColumn kDerive = flagColumn(CKA_DERIVE, "derive");
constexpr KeyColumn kToken = flagColumn(CKA_TOKEN, "token");
constexpr KeyColumn kPrivate = flagColumn(CKA_PRIVATE, "private");
constexpr KeyColumn kSensitive = flagColumn(CKA_SENSITIVE, "sensitive");
constexpr KeyColumn kExtractable = flagColumn(CKA_EXTRACTABLE, "extractable");
constexpr KeyColumn kAlways = flagColumn(CKA_ALWAYS_AUTHENTICATE, "alwaysAuthenticate");

// What each class of keys has (PKCS#11 2.40 base, 4.8 to 4.10); sizes come first among the values
// so that the members stand in one order.
constexpr std::array kPrivateColumns = {
    kKeyTypeColumn, kModulusColumn, kCurveColumn, kLabelColumn, kIdColumn,  kSign,        kDecrypt,
    kUnwrap,        kDerive,        kToken,       kPrivate,     kSensitive, kExtractable, kAlways};
constexpr std::array kPublicColumns = {kKeyTypeColumn, kModulusColumn, kModulusBitsColumn,
                                       kCurveColumn,   kLabelColumn,   kIdColumn,
                                       kVerify,        kEncrypt,       kWrap,
                                       kDerive,        kToken,         kPrivate};
constexpr std::array kSecretColumns = {kKeyTypeColumn, kValueLenColumn, kLabelColumn, kIdColumn,
                                       kSign,          kVerify,         kEncrypt,     kDecrypt,
                                       kWrap,          kUnwrap,         kDerive,      kToken,
                                       kPrivate,       kSensitive,      kExtractable};

struct KeyClass {
    std::string_view word;
    CK_ULONG objectClass;
    std::span<const KeyColumn> columns;
};

constexpr std::array kKeyClasses = {
    KeyClass{"private", CKO_PRIVATE_KEY, kPrivateColumns},
    KeyClass{"public", CKO_PUBLIC_KEY, kPublicColumns},
    KeyClass{"secret", CKO_SECRET_KEY, kSecretColumns},
};

// What a selector selects; nothing of a kind means all of that kind.
struct Selection {
    std::array<bool, kKeyClasses.size()> classes{};
    bool rsa = false;
    bool ec = false;

    [[nodiscard]] bool hasClass(std::size_t i) const noexcept {
        return classes[i] || std::ranges::none_of(classes, std::identity());
    }
    [[nodiscard]] bool hasType(std::optional<CK_ULONG> keyType) const noexcept {
        return rsa == ec ? !rsa || keyType == CKK_RSA || keyType == CKK_EC
                         : keyType == (rsa ? CKK_RSA : CKK_EC);
    }
};

bool readSelector(std::string_view text, Selection& out, LogBase& log) {
    constexpr std::string_view kSeparators = ", \t\r\n";
    bool all = false;
    for (auto at = text.find_first_not_of(kSeparators); at != std::string_view::npos;) {
        const auto end = std::min(text.find_first_of(kSeparators, at), text.size());
        const std::string_view word = text.substr(at, end - at);
        const auto isWord = [word](const KeyClass& c) { return equalsIgnoreCase(c.word, word); };
        const auto* const keyClass = std::ranges::find_if(kKeyClasses, isWord);
        if (keyClass != kKeyClasses.end()) {
            out.classes[static_cast<std::size_t>(keyClass - kKeyClasses.begin())] = true;
        } else if (equalsIgnoreCase(word, "rsa")) {
            out.rsa = true;
        } else if (equalsIgnoreCase(word, "ec")) {
            out.ec = true;
        } else if (equalsIgnoreCase(word, "all")) {
            all = true;
        } else {
            log.LogError("The key selector has an unknown word: \"" + std::string(word) + "\".");
            return false;
        }
        at = text.find_first_not_of(kSeparators, end);
    }
    if (all) out = Selection();
    return true;
}

std::optional<JsonValue> positive(int size) {
    return size > 0 ? std::optional(JsonValue(size)) : std::nullopt;
}

// The value of a column as JSON; nothing when the object lacks it or it says nothing.
std::optional<JsonValue> columnValue(const ObjectReader& reader, std::size_t row, Form form) {
    const auto bytes = reader.bytes(row);
    if (!bytes) return std::nullopt;
    switch (form) {
        case Form::Text:
            return JsonValue(
                toValidUtf8({reinterpret_cast<const char*>(bytes->data()), bytes->size()}));
        case Form::Hex:
            return JsonValue(toHex(*bytes));
        case Form::Flag:
            return JsonValue(*reader.flag(row));
        case Form::Modulus:
            return positive(mp_int(*bytes).bitCount());
        case Form::Curve: {
            const EcCurve* const curve = findCurve(*bytes);
            return curve == nullptr ? std::nullopt : std::optional(JsonValue(curve->bits));
        }
        default:
            break;
    }
    const auto number = reader.number(row);
    if (!number) return std::nullopt;
    if (form == Form::KeyType) return JsonValue(keyTypeName(*number));
    return JsonValue(form == Form::ValueLength ? *number * 8 : *number);
}

JsonValue keyToJson(const ObjectReader& reader, CK_OBJECT_HANDLE handle, const KeyClass& keyClass) {
    JsonValue key = JsonValue::object();
    key.set("handle", handle);
    key.set("class", keyClass.word);
    for (std::size_t i = 0; i < keyClass.columns.size(); ++i) {
        const KeyColumn& column = keyClass.columns[i];
        auto value = columnValue(reader, i, column.form);
        if (value && key.find(column.name) == nullptr) key.set(column.name, std::move(*value));
    }
    return key;
}

}  // namespace

int ClsPkcs11::findObject(ClsJsonObject& json, LogBase& log) {
    Description wanted;
    if (!ready(log, entry::kFindObjectsInit) || !readDescription(json, wanted, log)) return 0;
    json.root().remove("handle");
    std::vector<std::vector<std::uint8_t>> serials(1);
    if (wanted.serialNumber) serials = {derInteger(*wanted.serialNumber), *wanted.serialNumber};

    for (const Word& word : kClassWords) {
        if (wanted.objectClass ? *wanted.objectClass != word.value : !mayHave(word.value, wanted))
            continue;
        // Modules keep the serial number in DER, as the standard has it, or bare.
        for (const auto& serial : serials) {
            ObjectQuery query(word.value);
            if (wanted.keyType) query.add(CKA_KEY_TYPE, *wanted.keyType);
            if (wanted.onToken) query.addFlag(CKA_TOKEN, *wanted.onToken);
            if (wanted.label) query.addBytes(CKA_LABEL, *wanted.label);
            if (wanted.id) query.addBytes(CKA_ID, *wanted.id);
            if (wanted.subject) query.addBytes(CKA_SUBJECT, *wanted.subject);
            if (wanted.serialNumber) query.addBytes(CKA_SERIAL_NUMBER, serial);
            std::vector<CK_OBJECT_HANDLE> handles;
            if (!findObjects(query.attributes(), 1, handles, log)) return 0;
            if (handles.empty()) continue;
            json.root().set("handle", handles.front());
            const bool fits = handles.front() <= UINT32_MAX;
            return fits ? static_cast<int>(static_cast<std::uint32_t>(handles.front())) : -1;
        }
    }
    log.LogInfo("No object fits the description.");
    return 0;
}

bool ClsPkcs11::findAllKeys(const XString& selector, ClsJsonObject& json, LogBase& log) {
    Selection selection;
    if (!ready(log, entry::kFindObjectsInit) || !readSelector(selector.view(), selection, log)) {
        return false;
    }
    JsonValue list = JsonValue::array();
    for (std::size_t i = 0; i < kKeyClasses.size(); ++i) {
        if (!selection.hasClass(i)) continue;
        if (!listKeys(
                i, [&](std::optional<CK_ULONG> type) { return selection.hasType(type); }, list,
                log)) {
            return false;
        }
    }
    json.root().set("keys", std::move(list));
    return true;
}

template <class HasType>
bool ClsPkcs11::listKeys(std::size_t keyClassIndex, const HasType& hasType, JsonValue& list,
                         LogBase& log) {
    const KeyClass& keyClass = kKeyClasses[keyClassIndex];
    ObjectQuery query(keyClass.objectClass);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!ready(log, entry::kGetAttributeValue) ||
        !findObjects(query.attributes(), kMaxObjects, handles, log)) {
        return false;
    }
    std::vector<AttrRow> rows;
    for (const KeyColumn& column : keyClass.columns) rows.push_back(column.row);
    ObjectReader reader(*this, rows);
    for (const CK_OBJECT_HANDLE handle : handles) {
        if (!reader.read(handle, log)) {
            if (!hasOpenSession()) return false;
            continue;
        }
        if (hasType(reader.number(0))) list.append(keyToJson(reader, handle, keyClass));
    }
    return true;
}

}  // namespace mervane
