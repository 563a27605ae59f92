// discover, keys and find-object.

#include <iostream>

#include "commands.h"
#include "output.h"
#include "token.h"

namespace mervane::cli {
namespace {

void printModule(const JsonValue& report) {
    printFields(
        {{"Module", textOf(report, "libraryDescription") + " " + textOf(report, "libraryVersion")},
         {"Manufacturer", textOf(report, "manufacturer")},
         {"Cryptoki", textOf(report, "cryptokiVersion")}});
}

void printSlots(const JsonArray& slots) {
    Table table({"SLOT", "DESCRIPTION", "TOKEN", "MODEL", "SERIAL", "FLAGS"});
    for (const JsonValue& slot : slots) {
        const JsonValue* const token = slot.find("token");
        const JsonValue& described = token == nullptr ? slot : *token;
        table.add({textOf(slot, "slotId"), textOf(slot, "description"),
                   token == nullptr ? "-" : textOf(*token, "label"),
                   token == nullptr ? "" : textOf(*token, "model"),
                   token == nullptr ? "" : textOf(*token, "serialNumber"),
                   joined(described, "flags")});
    }
    std::cout << '\n';
    table.print();
}

void printMechanisms(const JsonValue& slot) {
    const JsonValue* const token = slot.find("token");
    const JsonValue* const mechanisms = token == nullptr ? nullptr : token->find("mechanisms");
    if (mechanisms == nullptr) return;
    std::cout << "\nMechanisms of slot " << textOf(slot, "slotId") << ":\n";
    Table table({"MECHANISM", "MIN KEY", "MAX KEY", "FLAGS"});
    for (const JsonValue& mechanism : *mechanisms->asArray()) {
        table.add({textOf(mechanism, "name"), textOf(mechanism, "minKeySize"),
                   textOf(mechanism, "maxKeySize"), joined(mechanism, "flags")});
    }
    table.print();
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

}  // namespace

Exit runDiscover(ClsPkcs11& p11, const Options& options) {
    useModule(p11, options);
    if (options.skipMechanisms) p11.put_Options("Pkcs11DiscoverSkipMechanisms");
    ClsJsonObject report;
    if (!p11.Discover(options.tokensOnly, report)) throwLastError(p11);
    if (options.json) {
        printJson(report.root());
        return Exit::Done;
    }
    printModule(report.root());
    const JsonArray& slots = *report.valueAt("slots")->asArray();
    printSlots(slots);
    for (const JsonValue& slot : slots) printMechanisms(slot);
    return Exit::Done;
}

Exit runKeys(ClsPkcs11& p11, const Options& options) {
    openToken(p11, options, false);
    std::string selector;
    for (const std::string& word : options.arguments) selector.append(word).push_back(' ');
    ClsJsonObject keys;
    if (!p11.FindAllKeys(XString(selector), keys)) throwLastError(p11);
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
    table.print();
    return Exit::Done;
}

Exit runFindObject(ClsPkcs11& p11, const Options& options) {
    ClsJsonObject description;
    if (!description.loadJson(options.arguments[0], p11.log())) {
        throw CommandError{Exit::Usage, p11.log().lastError(), {}};
    }
    openToken(p11, options, false);
    const int handle = p11.FindObject(description);
    const JsonValue* const whole = description.valueAt("handle");
    if (handle == 0) {
        if (p11.lastFailure().kind != FailureKind::NotFound) throwLastError(p11);
        if (options.json) std::cout << "{\"handle\": 0}\n";
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
