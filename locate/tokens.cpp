// The tokens of many modules, from the discovery document of each, whoever asked for it.

#include "locate/tokens.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <tuple>

#include "foundation/core/guarded.h"
#include "foundation/text/utf8.h"
#include "pkcs11/calls/names.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

std::string textAt(const JsonValue& object, std::string_view member) {
    const JsonValue* const value = object.find(member);
    const auto text = value == nullptr ? std::nullopt : value->asString();
    return std::string(text.value_or(std::string_view()));
}

std::optional<CK_ULONG> numberAt(const JsonValue& object, std::string_view member) {
    const JsonValue* const value = object.find(member);
    const auto text = value == nullptr ? std::nullopt : value->asNumber();
    if (!text) return std::nullopt;
    CK_ULONG number = 0;
    const char* const end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

const JsonArray* flagNamesOf(const JsonValue& object) {
    const JsonValue* const flags = object.find("flags");
    return flags == nullptr ? nullptr : flags->asArray();
}

// A slot whose flags are unknown may hold a token.
bool isEmpty(const JsonValue& slot) {
    const JsonArray* const names = flagNamesOf(slot);
    return names != nullptr && std::ranges::none_of(*names, [](const JsonValue& name) {
               return name.asString() == "token-present";
           });
}

CK_FLAGS flagsOf(const JsonValue& token) {
    const JsonArray* const names = flagNamesOf(token);
    CK_FLAGS bits = 0;
    if (names == nullptr) return bits;
    for (const JsonValue& name : *names) bits |= tokenFlagNamed(name.asString().value_or(""));
    return bits;
}

void describe(const JsonValue& json, TokenInfo& token) {
    token.isReadable = true;
    token.label = textAt(json, "label");
    token.serialNumber = textAt(json, "serialNumber");
    token.manufacturer = textAt(json, "manufacturer");
    token.model = textAt(json, "model");
    token.setFlags(flagsOf(json));
    const JsonValue* const pin = json.find("pin");
    if (pin == nullptr) return;
    token.minPinLength = numberAt(*pin, "min");
    token.maxPinLength = numberAt(*pin, "max");
}

bool isOrAny(const Pkcs11Uri::Value& wanted, const std::string& value) {
    return !wanted || *wanted == value;
}

// A token is the same if the four that name it in a URI are; without a serial number, nobody knows.
bool isSame(const LocatedToken& a, const LocatedToken& b) {
    const auto name = [](const TokenInfo& token) {
        return std::tie(token.serialNumber, token.label, token.manufacturer, token.model);
    };
    return a.token.isReadable && b.token.isReadable && !a.token.serialNumber.empty() &&
           name(a.token) == name(b.token) && a.module.path != b.module.path;
}

void ask(const ModuleInfo& module, std::vector<LocatedToken>& tokens,
         std::vector<std::string>& failures) {
    ClsPkcs11 p11;
    ClsJsonObject discovery;
    p11.put_SharedLibPath(XString(module.path));
    p11.put_InitArgs(XString(module.initArgs));
    p11.put_Options("Pkcs11DiscoverSkipMechanisms");
    if (p11.Discover(true, discovery)) {
        addTokens(discovery.root(), module, tokens);
        return;
    }
    std::string line = module.name + ": ";
    appendOneLine(line, p11.lastFailure().cause);
    failures.push_back(std::move(line));
}

}  // namespace

LocatedToken::LocatedToken() = default;
LocatedToken::LocatedToken(const LocatedToken& other) = default;
LocatedToken::LocatedToken(LocatedToken&& other) noexcept = default;
LocatedToken& LocatedToken::operator=(const LocatedToken& other) = default;
LocatedToken& LocatedToken::operator=(LocatedToken&& other) noexcept = default;
LocatedToken::~LocatedToken() = default;

void addTokens(const JsonValue& discovery, const ModuleInfo& module,
               std::vector<LocatedToken>& tokens) {
    const JsonValue* const slots = discovery.find("slots");
    const JsonArray* const list = slots == nullptr ? nullptr : slots->asArray();
    if (list == nullptr) return;
    for (const JsonValue& slot : *list) {
        const auto slotId = numberAt(slot, "slotId");
        if (!slotId || isEmpty(slot)) continue;
        LocatedToken& located = tokens.emplace_back();
        located.module = module;
        located.libraryManufacturer = textAt(discovery, "manufacturer");
        located.libraryDescription = textAt(discovery, "libraryDescription");
        located.libraryVersion = textAt(discovery, "libraryVersion");
        located.slotManufacturer = textAt(slot, "manufacturer");
        located.slotDescription = textAt(slot, "description");
        located.token.slotId = *slotId;
        const JsonValue* const token = slot.find("token");
        if (token != nullptr) describe(*token, located.token);
    }
}

bool fits(const Pkcs11Uri& uri, const LocatedToken& located) {
    const TokenInfo& token = located.token;
    const bool isModule = (!uri.modulePath || *uri.modulePath == located.module.path) &&
                          (!uri.moduleName || isNamed(located.module, *uri.moduleName));
    return isModule && token.isReadable && isOrAny(uri.token, token.label) &&
           isOrAny(uri.serial, token.serialNumber) &&
           isOrAny(uri.manufacturer, token.manufacturer) && isOrAny(uri.model, token.model) &&
           isOrAny(uri.slotId, std::to_string(token.slotId)) &&
           isOrAny(uri.slotDescription, located.slotDescription) &&
           isOrAny(uri.slotManufacturer, located.slotManufacturer) &&
           isOrAny(uri.libraryDescription, located.libraryDescription) &&
           isOrAny(uri.libraryManufacturer, located.libraryManufacturer) &&
           isOrAny(uri.libraryVersion, located.libraryVersion);
}

void removeRepeated(std::vector<LocatedToken>& tokens) {
    std::vector<LocatedToken> kept;
    for (LocatedToken& token : tokens) {
        const auto isListed = [&](const LocatedToken& other) { return isSame(token, other); };
        if (std::ranges::none_of(kept, isListed)) kept.push_back(std::move(token));
    }
    tokens.swap(kept);
}

bool listAllTokens(const std::vector<ModuleInfo>& modules, std::vector<LocatedToken>& tokens,
                   std::vector<std::string>& failures, LogBase& log) {
    const LogContextExitor context(log, "listAllTokens");
    return guarded(log, [&] {
        std::vector<LocatedToken> found;
        std::vector<std::string> failed;
        for (const bool isTrust : {false, true}) {
            for (const ModuleInfo& module : modules) {
                if (module.isUsable() && module.isTrust == isTrust) ask(module, found, failed);
            }
        }
        removeRepeated(found);
        tokens.swap(found);
        failures.swap(failed);
        return true;
    });
}

}  // namespace mervane
