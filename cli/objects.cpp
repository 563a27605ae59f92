// discover, keys and find-object.

#include <algorithm>
#include <array>
#include <iostream>
#include <map>

#include <mervane/foundation/text/ascii.h>
#include <mervane/foundation/text/hex.h>
#include <mervane/locate/tokens.h>

#include "commands.h"
#include "locatetoken.h"
#include "output.h"
#include "token.h"
#include "words.h"

namespace mervane::cli {
namespace {

void printModule(const JsonValue& report) {
    printFields(
        {{"Module", textOf(report, "libraryDescription") + " " + textOf(report, "libraryVersion")},
         {"Manufacturer", textOf(report, "manufacturer")},
         {"Cryptoki", textOf(report, "cryptokiVersion")}});
}

// The tokens of the report, by slot.
std::map<std::string, TokenInfo> tokensOf(const JsonValue& report) {
    std::vector<LocatedToken> located;
    addTokens(report, ModuleInfo(), located);
    std::map<std::string, TokenInfo> tokens;
    for (const LocatedToken& one : located)
        tokens.emplace(std::to_string(one.token.slotId), one.token);
    return tokens;
}

// Gives each token of the report its URI.
void addUris(ClsJsonObject& report) {
    const auto tokens = tokensOf(report.root());
    JsonValue slots = JsonValue::array();
    for (const JsonValue& slot : *report.valueAt("slots")->asArray()) {
        JsonValue& copy = slots.append(slot);
        const JsonValue* const token = slot.find("token");
        const auto described = tokens.find(textOf(slot, "slotId"));
        if (token == nullptr || described == tokens.end()) continue;
        copy.set("token", *token).set("uri", uriOf(described->second).text());
    }
    report.root().set("slots", std::move(slots));
}

// The URI of a key in the list of FindAllKeys, by its ID and label; nothing if it has neither.
std::optional<std::string> uriOfKey(const TokenInfo& token, const JsonValue& key) {
    Pkcs11Uri uri = uriOf(token);
    const auto id = fromHex(textOf(key, "id"));
    const std::string label = textOf(key, "label");
    const std::string type = textOf(key, "class");
    if (id && !id->empty()) uri.id.emplace(id->begin(), id->end());
    if (!label.empty()) uri.object = label;
    uri.type = type == "secret" ? "secret-key" : type;
    return uri.id || uri.object ? std::optional(uri.text()) : std::nullopt;
}

void addUris(ClsJsonObject& list, const TokenInfo& token) {
    JsonValue keys = JsonValue::array();
    for (const JsonValue& key : *list.valueAt("keys")->asArray()) {
        const auto uri = uriOfKey(token, key);
        keys.append(key).set("uri", uri ? JsonValue(*uri) : JsonValue());
    }
    list.root().set("keys", std::move(keys));
}

void printSlots(const JsonValue& report, std::size_t width) {
    Table table(width == 0 ? std::vector<std::string>{"SLOT", "STATE", "DESCRIPTION", "TOKEN",
                                                      "MODEL", "SERIAL", "FLAGS", "URI"}
                           : std::vector<std::string>{"SLOT", "STATE", "TOKEN", "MODEL", "SERIAL"});
    const auto tokens = tokensOf(report);
    for (const JsonValue& slot : *report.find("slots")->asArray()) {
        const JsonValue* const token = slot.find("token");
        const auto described = tokens.find(textOf(slot, "slotId"));
        const std::string state = described == tokens.end() ? "empty" : stateFor(described->second);
        std::vector<std::string> cells = {textOf(slot, "slotId"), state};
        if (width == 0) cells.push_back(textOf(slot, "description"));
        for (const std::string_view member : {"label", "model", "serialNumber"})
            cells.push_back(token == nullptr ? "-" : textOf(*token, member));
        if (width == 0) {
            cells.push_back(joined(token == nullptr ? slot : *token, "flags"));
            cells.push_back(token == nullptr ? std::string() : textOf(*token, "uri"));
        }
        table.add(std::move(cells));
    }
    std::cout << '\n';
    table.print(width);
}

void printMechanisms(const JsonValue& slot, std::size_t width) {
    const JsonValue* const token = slot.find("token");
    const JsonValue* const mechanisms = token == nullptr ? nullptr : token->find("mechanisms");
    if (mechanisms == nullptr) return;
    std::cout << "\nMechanisms of slot " << textOf(slot, "slotId") << ":\n";
    Table table({"MECHANISM", "MIN KEY", "MAX KEY", "FLAGS"});
    for (const JsonValue& mechanism : *mechanisms->asArray()) {
        table.add({textOf(mechanism, "name"), textOf(mechanism, "minKeySize"),
                   textOf(mechanism, "maxKeySize"), joined(mechanism, "flags")});
    }
    table.print(width);
}

// The names of the key's attributes that are true.
std::string usageOf(const JsonValue& key) {
    std::string out;
    for (const JsonMember& member : *key.asObject()) {
        if (member.value.asBool() == nullptr || !*member.value.asBool()) continue;
        out.append(out.empty() ? "" : " ").append(member.name());
    }
    return out;
}

void checkSelector(const std::string& selector) {
    constexpr std::array<std::string_view, 6> kWords = {"private", "public", "secret",
                                                        "rsa",     "ec",     "all"};
    for (const std::string& word : wordsOf(selector)) {
        const auto isWord = [&](std::string_view known) { return equalsIgnoreCase(word, known); };
        if (std::ranges::any_of(kWords, isWord)) continue;
        throw CommandError{Exit::Usage,
                           "The selector has an unknown word: \"" + printable(word) + "\"." +
                               nearestHint(word, kWords),
                           "The words are private, public, secret, rsa, ec and all."};
    }
}

}  // namespace

Exit runDiscover(ClsPkcs11& p11, const Options& options) {
    useModule(p11, options);
    const bool skipMechanisms = options.skipMechanisms || (!options.json && !options.mechanisms);
    if (skipMechanisms) p11.put_Options("Pkcs11DiscoverSkipMechanisms");
    ClsJsonObject report;
    if (!p11.Discover(options.tokensOnly, report)) throwLastFailure(p11);
    addUris(report);
    const JsonArray& slots = *report.valueAt("slots")->asArray();
    const Exit status = slots.empty() ? Exit::NoToken : Exit::Done;
    if (slots.empty())
        remark("The module sees no reader. Smart cards need the daemon pcscd to be running.");
    if (options.json) {
        printJson(report.root());
        return status;
    }
    printModule(report.root());
    const std::size_t width = options.wide ? 0 : terminalWidth();
    printSlots(report.root(), width);
    for (const JsonValue& slot : slots) printMechanisms(slot, width);
    return status;
}

Exit runKeys(ClsPkcs11& p11, const Options& options) {
    std::string selector;
    for (const std::string& word : options.arguments) selector.append(word).push_back(' ');
    checkSelector(selector);
    const OpenedToken opened = openToken(p11, options);
    ClsJsonObject keys;
    if (!p11.FindAllKeys(XString(selector), keys)) throwLastFailure(p11);
    addUris(keys, opened.token);
    sayLeftOut(p11.get_NumLeftOut());
    if (options.json) {
        printJson(keys.root());
        return Exit::Done;
    }
    const std::size_t width = options.wide ? 0 : terminalWidth();
    std::vector<std::string> heading = {"HANDLE", "CLASS", "TYPE",      "SIZE",
                                        "ID",     "LABEL", "ATTRIBUTES"};
    if (width == 0) heading.emplace_back("URI");
    Table table(std::move(heading));
    for (const JsonValue& key : *keys.valueAt("keys")->asArray()) {
        std::vector<std::string> cells;
        for (const std::string_view member :
             {"handle", "class", "keyType", "keySize", "id", "label"})
            cells.push_back(textOf(key, member));
        cells.push_back(usageOf(key));
        if (width == 0) cells.push_back(textOf(key, "uri"));
        table.add(std::move(cells));
    }
    table.print(width);
    return Exit::Done;
}

Exit runFindObject(ClsPkcs11& p11, const Options& options) {
    ClsJsonObject description;
    if (!description.loadJson(options.arguments[0], p11.log())) {
        throw CommandError{Exit::Usage, printable(p11.log().firstError()), {}};
    }
    openToken(p11, options);
    const int handle = p11.FindObject(description);
    const JsonValue* const whole = description.valueAt("handle");
    if (handle == 0) {
        if (p11.lastFailure().kind != FailureKind::NotFound) throwLastFailure(p11);
        throw CommandError{Exit::NotFound, "No object matches the description.", {}};
    }
    if (options.json) {
        JsonValue found = JsonValue::object();
        found.set("handle", *whole);
        printJson(found);
    } else {
        std::cout << textOf(description.root(), "handle") << '\n';
    }
    return Exit::Done;
}

}  // namespace mervane::cli
