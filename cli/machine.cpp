// modules and tokens: what this machine has.

#include <algorithm>
#include <iostream>

#include "askmodules.h"
#include "commands.h"
#include "locatetoken.h"
#include "output.h"
#include "token.h"

namespace mervane::cli {
namespace {

// What becomes of a module when tokens are looked for.
std::string useFor(const ModuleInfo& module) {
    if (!module.remote.empty()) return "runs elsewhere";
    if (!module.obstacle.empty()) return "cannot be loaded: " + module.obstacle;
    if (module.isDisabled) return "switched off for this program";
    if (module.isForwarder) return "shows what others show";
    return module.isTrust ? "CA certificates" : "asked for tokens";
}

JsonValue toJson(const ModuleInfo& module) {
    const auto textOrNull = [](const std::string& text) {
        return text.empty() ? JsonValue() : JsonValue(text);
    };
    JsonValue out = JsonValue::object();
    out.set("name", module.name);
    out.set("path", textOrNull(module.path));
    out.set("origin", nameOf(module.origin));
    out.set("learntFrom", module.learntFrom);
    out.set("priority", module.priority);
    out.set("remote", textOrNull(module.remote));
    out.set("obstacle", textOrNull(module.obstacle));
    out.set("trust", module.isTrust);
    out.set("forwarder", module.isForwarder);
    out.set("disabled", module.isDisabled);
    out.set("usable", module.isUsable());
    return out;
}

JsonValue toJson(const LocatedToken& located) {
    const TokenInfo& token = located.token;
    JsonValue out = JsonValue::object();
    out.set("uri", token.isReadable ? JsonValue(uriOf(token).text()) : JsonValue());
    out.set("label", token.label);
    out.set("serialNumber", token.serialNumber);
    out.set("manufacturer", token.manufacturer);
    out.set("model", token.model);
    out.set("state", stateFor(token));
    out.set("slotId", token.slotId);
    out.set("slotDescription", located.slotDescription);
    JsonValue& module = out.set("module", JsonValue::object());
    module.set("name", located.module.name);
    module.set("path", located.module.path);
    module.set("description", located.libraryDescription);
    module.set("version", located.libraryVersion);
    return out;
}

void printTokens(const std::vector<LocatedToken>& tokens, std::size_t width) {
    Table table(width == 0 ? std::vector<std::string>{"TOKEN", "STATE", "MODULE", "SERIAL", "MODEL",
                                                      "MANUFACTURER", "SLOT", "URI"}
                           : std::vector<std::string>{"TOKEN", "STATE", "MODULE", "SERIAL"});
    for (const LocatedToken& located : tokens) {
        const TokenInfo& token = located.token;
        std::vector<std::string> cells = {token.label, stateFor(token), located.module.name,
                                          token.serialNumber};
        if (width == 0) {
            cells.insert(cells.end(), {token.model, token.manufacturer,
                                       std::to_string(token.slotId), uriOf(token).text()});
        }
        table.add(std::move(cells));
    }
    table.print(width);
}

std::vector<ModuleInfo> modulesToAsk(const Options& options) {
    // The environment's default is for commands that need one token.
    const std::string name = moduleOfLine(options);
    if (!name.empty()) return {moduleNamed(name, options)};
    if (!options.initArgs.empty()) usageError("--init-args needs --module.");
    return usableModules(true);
}

}  // namespace

Exit runModules(ClsPkcs11& p11, const Options& options) {
    std::vector<ModuleInfo> modules;
    std::vector<std::string> complaints;
    if (!listModules(modules, complaints, p11.log())) throw std::bad_alloc();
    if (options.json) {
        JsonPrinter document;
        JsonValue list = JsonValue::array();
        for (const ModuleInfo& module : modules) list.append(toJson(module));
        document.member("modules", list);
        JsonValue said = JsonValue::array();
        for (const std::string& complaint : complaints) said.append(JsonValue(complaint));
        document.member("complaints", said);
        document.finish();
    } else if (!modules.empty()) {
        Table table({"MODULE", "USE", "PATH", "PRIORITY", "LEARNT FROM"});
        for (const ModuleInfo& module : modules)
            table.add({module.name, useFor(module),
                       module.path.empty() ? module.remote : module.path,
                       std::to_string(module.priority), module.learntFrom});
        table.print(options.wide ? 0 : terminalWidth());
    }
    for (const std::string& complaint : complaints) remark(complaint);
    if (modules.empty()) remark("No PKCS#11 module is installed.");
    return modules.empty() ? Exit::NotFound : Exit::Done;
}

Exit runTokens(ClsPkcs11&, const Options& options) {
    const auto answers = askModules(modulesToAsk(options), options.timeout);
    std::vector<LocatedToken> tokens = tokensIn(answers);
    removeRepeated(tokens);
    const Pkcs11Uri wanted = wantedToken(options);
    if (options.uri)
        std::erase_if(tokens, [&](const LocatedToken& located) { return !fits(wanted, located); });
    if (options.json) {
        JsonPrinter document;
        document.beginList("tokens");
        for (const LocatedToken& located : tokens) document.item(toJson(located));
        document.endList();
        document.member("unanswered", unansweredIn(answers));
        document.finish();
    } else if (!tokens.empty()) {
        printTokens(tokens, options.wide ? 0 : terminalWidth());
    }
    bool isAllAsked = true;
    for (const ModuleAnswer& answer : answers) {
        if (answer.hasAnswered()) continue;
        isAllAsked = false;
        remark(lineFor(answer));
        if (!answer.hint.empty()) remark(answer.hint);
    }
    if (!tokens.empty()) return Exit::Done;
    if (isAllAsked) remark("There is no token; mervane-p11 doctor tells what stands in the way.");
    return isAllAsked ? Exit::NoToken : Exit::Module;
}

// For the shells' completions: a name a line, and none that is not one line as it stands.
Exit runComplete(ClsPkcs11& p11, const Options& options) {
    constexpr std::chrono::seconds kWhileSomebodyTypes{2};
    std::vector<std::string> names;
    std::vector<ModuleInfo> modules;
    std::vector<std::string> complaints;
    if (options.arguments[0] == "labels") {
        const auto answers = askModules(modulesToAsk(options), kWhileSomebodyTypes);
        for (const LocatedToken& located : tokensIn(answers)) names.push_back(located.token.label);
    } else if (listModules(modules, complaints, p11.log())) {
        for (const ModuleInfo& module : modules) names.push_back(module.name);
    }
    for (const std::string& name : names) {
        if (!name.empty() && printable(name) == name) std::cout << name << '\n';
    }
    return Exit::Done;
}

}  // namespace mervane::cli
