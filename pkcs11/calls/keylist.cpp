// FindAllKeys: the keys of the token as a list in JSON. Layout: docs/json.md.

#include <algorithm>
#include <array>
#include <functional>

#include "foundation/text/bytes.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "foundation/x509/publickey.h"
#include "pkcs11/calls/attrs.h"
#include "pkcs11/calls/names.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/calls/search.h"

namespace mervane::operation {
namespace {

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

struct Column {
    AttrRow row;
    Form form;
    std::string_view name;  // of the member; sizes share "keySize"
};

constexpr std::string_view kKeySize = "keySize";

constexpr Column kKeyTypeColumn = {{CKA_KEY_TYPE, AttrKind::Number}, Form::KeyType, "keyType"};
constexpr Column kLabelColumn = {{CKA_LABEL, AttrKind::Bytes, 1024}, Form::Text, "label"};
constexpr Column kIdColumn = {{CKA_ID, AttrKind::Bytes, 1024}, Form::Hex, "id"};
constexpr Column kModulusColumn = {{CKA_MODULUS, AttrKind::Bytes, 2048}, Form::Modulus, kKeySize};
constexpr Column kModulusBitsColumn = {
    {CKA_MODULUS_BITS, AttrKind::Number}, Form::ModulusBits, kKeySize};
constexpr Column kCurveColumn = {{CKA_EC_PARAMS, AttrKind::Bytes, 1024}, Form::Curve, kKeySize};
constexpr Column kValueLenColumn = {{CKA_VALUE_LEN, AttrKind::Number}, Form::ValueLength, kKeySize};

constexpr Column flagColumn(CK_ATTRIBUTE_TYPE type, std::string_view name) {
    return {{type, AttrKind::Flag}, Form::Flag, name};
}

constexpr Column kSign = flagColumn(CKA_SIGN, "sign");
constexpr Column kVerify = flagColumn(CKA_VERIFY, "verify");
constexpr Column kEncrypt = flagColumn(CKA_ENCRYPT, "encrypt");
constexpr Column kDecrypt = flagColumn(CKA_DECRYPT, "decrypt");
constexpr Column kWrap = flagColumn(CKA_WRAP, "wrap");
constexpr Column kUnwrap = flagColumn(CKA_UNWRAP, "unwrap");
constexpr Column kDerive = flagColumn(CKA_DERIVE, "derive");
constexpr Column kToken = flagColumn(CKA_TOKEN, "token");
constexpr Column kPrivate = flagColumn(CKA_PRIVATE, "private");
constexpr Column kSensitive = flagColumn(CKA_SENSITIVE, "sensitive");
constexpr Column kExtractable = flagColumn(CKA_EXTRACTABLE, "extractable");
constexpr Column kAlways = flagColumn(CKA_ALWAYS_AUTHENTICATE, "alwaysAuthenticate");

// What each class of keys has (PKCS#11 2.40 base, 4.8 to 4.10). Sizes follow the type, so that the
// members of every key come in one order.
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

// The key type comes first in every list, and is looked at before anything else.
constexpr std::size_t kKeyTypeRow = 0;
static_assert(kPrivateColumns[kKeyTypeRow].form == Form::KeyType &&
              kPublicColumns[kKeyTypeRow].form == Form::KeyType &&
              kSecretColumns[kKeyTypeRow].form == Form::KeyType);

struct KeyClass {
    std::string_view word;
    CK_ULONG objectClass;
    std::span<const Column> columns;
};

constexpr std::array kKeyClasses = {
    KeyClass{"private", CKO_PRIVATE_KEY, kPrivateColumns},
    KeyClass{"public", CKO_PUBLIC_KEY, kPublicColumns},
    KeyClass{"secret", CKO_SECRET_KEY, kSecretColumns},
};

// What a selector selects. If it names no class, all classes; if no type, all types.
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

bool readSelector(Calls& calls, std::string_view text, Selection& out, LogBase& log) {
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
            return calls.fail(
                log, FailureKind::Argument,
                "The key selector has an unknown word: \"" + std::string(word) + "\".");
        }
        at = text.find_first_not_of(kSeparators, end);
    }
    if (all) out = Selection();
    return true;
}

std::optional<JsonValue> positive(int size) {
    return size > 0 ? std::optional(JsonValue(size)) : std::nullopt;
}

// A column's value as JSON; nothing if the object lacks it or it makes no sense.
std::optional<JsonValue> columnValue(const ObjectReader& reader, std::size_t row, Form form) {
    const auto bytes = reader.bytes(row);
    if (!bytes) return std::nullopt;
    switch (form) {
        case Form::Text:
            return JsonValue(toValidUtf8(asChars(*bytes)));
        case Form::Hex:
            return JsonValue(toHex(*bytes));
        case Form::Flag:
            return JsonValue(*reader.flag(row));
        case Form::Modulus:
            return positive(mp_int(*bytes).bitCount());
        case Form::Curve: {
            const auto curve = findCurve(*bytes);
            return curve ? std::optional(JsonValue(curve->bits)) : std::nullopt;
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
        const Column& column = keyClass.columns[i];
        auto value = columnValue(reader, i, column.form);
        if (value && key.find(column.name) == nullptr) key.set(column.name, std::move(*value));
    }
    return key;
}

// Appends the keys of one class that have a type asked for.
bool listKeys(Calls& calls, const KeyClass& keyClass, const Selection& selection, JsonValue& list,
              LogBase& log) {
    ObjectQuery query(keyClass.objectClass);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!calls.ready(log, function::kGetAttributeValue) ||
        !findObjects(calls, query.attributes(), kMaxObjects, handles, log)) {
        return false;
    }
    std::vector<AttrRow> rows;
    for (const Column& column : keyClass.columns) rows.push_back(column.row);
    ObjectReader reader(calls, rows);
    for (const CK_OBJECT_HANDLE handle : handles) {
        if (!reader.read(handle, log)) {
            if (!calls.hasOpenSession()) return false;
            continue;
        }
        if (selection.hasType(reader.number(kKeyTypeRow)))
            list.append(keyToJson(reader, handle, keyClass));
    }
    return true;
}

}  // namespace

bool findAllKeys(Calls& calls, const XString& selector, ClsJsonObject& json, LogBase& log) {
    Selection selection;
    if (!calls.ready(log, function::kFindObjectsInit) ||
        !readSelector(calls, selector.view(), selection, log)) {
        return false;
    }
    JsonValue list = JsonValue::array();
    for (std::size_t i = 0; i < kKeyClasses.size(); ++i) {
        if (selection.hasClass(i) && !listKeys(calls, kKeyClasses[i], selection, list, log))
            return false;
    }
    json.root().set("keys", std::move(list));
    if (calls.numLeftOut != 0) json.root().set("leftOut", calls.numLeftOut);
    return true;
}

}  // namespace mervane::operation
