// discover, keys and find-object.

#include <algorithm>
#include <array>
#include <iostream>

#include <mervane/foundation/text/ascii.h>

#include "commands.h"
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

// A token of the report as ListTokens would give it, to describe its state in the same words.
TokenInfo tokenOf(const JsonValue& token) {
    const std::string flags = " " + joined(token, "flags") + " ";
    const auto has = [&](std::string_view flag) {
        return flags.find(" " + std::string(flag) + " ") != std::string::npos;
    };
    TokenInfo info;
    info.isReadable = true;
    info.isInitialised = has("token-initialized");
    info.isUserPinSet = has("user-pin-initialized");
    info.needsLogin = has("login-required");
    info.userPin = {has("user-pin-count-low"), has("user-pin-final-try"), has("user-pin-locked"),
                    has("user-pin-to-be-changed")};
    return info;
}

void printSlots(const JsonArray& slots, std::size_t width) {
    Table table(width == 0 ? std::vector<std::string>{"SLOT", "STATE", "DESCRIPTION", "TOKEN",
                                                      "MODEL", "SERIAL", "FLAGS"}
                           : std::vector<std::string>{"SLOT", "STATE", "TOKEN", "MODEL", "SERIAL"});
    for (const JsonValue& slot : slots) {
        const JsonValue* const token = slot.find("token");
        const bool isEmpty = joined(slot, "flags").find("token-present") == std::string::npos;
        const std::string state = token != nullptr ? stateFor(tokenOf(*token))
                                  : isEmpty        ? "empty"
                                                   : "cannot be read";
        std::vector<std::string> cells = {textOf(slot, "slotId"), state};
        if (width == 0) cells.push_back(textOf(slot, "description"));
        for (const std::string_view member : {"label", "model", "serialNumber"})
            cells.push_back(token == nullptr ? "-" : textOf(*token, member));
        if (width == 0) cells.push_back(joined(token == nullptr ? slot : *token, "flags"));
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
    printSlots(slots, width);
    for (const JsonValue& slot : slots) printMechanisms(slot, width);
    return status;
}

Exit runKeys(ClsPkcs11& p11, const Options& options) {
    std::string selector;
    for (const std::string& word : options.arguments) selector.append(word).push_back(' ');
    checkSelector(selector);
    openToken(p11, options);
    ClsJsonObject keys;
    if (!p11.FindAllKeys(XString(selector), keys)) throwLastFailure(p11);
    sayLeftOut(p11.get_NumLeftOut());
    if (options.json) {
        printJson(keys.root());
        return Exit::Done;
    }
    Table table({"HANDLE", "CLASS", "TYPE", "SIZE", "ID", "LABEL", "ATTRIBUTES"});
    for (const JsonValue& key : *keys.valueAt("keys")->asArray()) {
        table.add({textOf(key, "handle"), textOf(key, "class"), textOf(key, "keyType"),
                   textOf(key, "keySize"), textOf(key, "id"), textOf(key, "label"), usageOf(key)});
    }
    table.print(options.wide ? 0 : terminalWidth());
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
