#include "options.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "failure.h"
#include <mervane/foundation/text/utf8.h>

namespace mervane::cli {
namespace {

// Slot IDs in decimal or, with 0x, in hexadecimal. The library takes 32 bits.
int parseSlot(const std::string& text) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char* const begin = text.data() + (isHex ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, isHex ? 16 : 10);
    // The ID of 32 ones would be taken for -1, which means any slot.
    if (error != std::errc() || stop != end || value == UINT32_MAX) {
        usageError("--slot takes a slot ID below 0xFFFFFFFF.");
    }
    return static_cast<int>(value);
}

std::string pinSource(const std::string& option, const std::string& text) {
    if (text == "-" || text.starts_with("env:") || text.starts_with("file:")) return text;
    usageError(
        option +
        " takes env:NAME, file:PATH or - (prompt). A PIN itself is refused on the command line: "
        "every user of the machine could read it there.");
}

using Setter = void (*)(Options& options, const std::string& value);

struct Option {
    std::string_view name;
    bool takesValue;
    Setter set;
};

constexpr std::array kOptions = {
    Option{"--module", true, [](Options& o, const std::string& v) { o.module = v; }},
    Option{"--slot", true, [](Options& o, const std::string& v) { o.slot = parseSlot(v); }},
    Option{"--token-label", true, [](Options& o, const std::string& v) { o.tokenLabel = v; }},
    Option{"--login", false, [](Options& o, const std::string&) { o.login = true; }},
    Option{"--user", true,
           [](Options& o, const std::string& v) {
               if (v != "user" && v != "so") usageError("--user takes user or so.");
               o.asOfficer = v == "so";
           }},
    Option{"--pin", true,
           [](Options& o, const std::string& v) {
               o.pin = pinSource("--pin", v);
               o.login = true;
           }},
    Option{"--so-pin", true,
           [](Options& o, const std::string& v) { o.soPin = pinSource("--so-pin", v); }},
    Option{"--new-pin", true,
           [](Options& o, const std::string& v) { o.newPin = pinSource("--new-pin", v); }},
    Option{"--out", true, [](Options& o, const std::string& v) { o.out = v; }},
    Option{"--json", false, [](Options& o, const std::string&) { o.json = true; }},
    Option{"--log", false, [](Options& o, const std::string&) { o.log = true; }},
    Option{"--tokens-only", false, [](Options& o, const std::string&) { o.tokensOnly = true; }},
    Option{"--skip-mechanisms", false,
           [](Options& o, const std::string&) { o.skipMechanisms = true; }},
    Option{"--help", false, [](Options& o, const std::string&) { o.help = true; }},
    Option{"--version", false, [](Options& o, const std::string&) { o.version = true; }},
};

const Option* findOption(std::string_view name) {
    for (const Option& option : kOptions) {
        if (option.name == name) return &option;
    }
    return nullptr;
}

}  // namespace

Options parseOptions(std::span<const char* const> words) {
    Options out;
    if (const char* const module = std::getenv("MERVANE_P11_MODULE")) out.module = module;
    bool onlyArguments = false;  // behind "--"
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string word = words[i];
        if (onlyArguments || !word.starts_with("--")) {
            (out.command.empty() ? out.command : out.arguments.emplace_back()) = word;
            continue;
        }
        if (word == "--") {
            onlyArguments = true;
            continue;
        }
        // --name value, or --name=value
        const auto equals = word.find('=');
        const std::string name = word.substr(0, equals);
        const Option* const option = findOption(name);
        std::string shown;
        appendOneLine(shown, name);
        if (option == nullptr) usageError("Unknown option: " + shown);
        if (!option->takesValue) {
            if (equals != std::string::npos) usageError(shown + " takes no value.");
            option->set(out, {});
        } else if (equals != std::string::npos) {
            option->set(out, word.substr(equals + 1));
        } else {
            if (++i == words.size()) usageError(shown + " needs a value.");
            option->set(out, words[i]);
        }
    }
    return out;
}

}  // namespace mervane::cli
