// atr and card-data, which need no module.

#include <filesystem>
#include <iostream>

#include <mervane/foundation/json/writer.h>
#include <mervane/foundation/text/ascii.h>

#include "commands.h"
#include "failure.h"
#include "output.h"
#include "words.h"

namespace mervane::cli {
namespace {

// Accepts an ATR as people paste it: "3B 6D 00", "3b:6d:00", "0x3B6D00"; and X for a digit, as the
// card database writes those that differ from card to card.
std::string cleanedAtr(const std::string& pasted) {
    const auto digits = hexDigits(pasted, "X");
    if (!digits || digits->size() % 2 != 0)
        throw CommandError{
            Exit::Usage, "Not an ATR in hexadecimal: " + printable(trimmed(pasted)) + ".", {}};
    return *digits;
}

}  // namespace

Exit runAtr(ClsPkcs11& p11, const Options& options) {
    std::string pasted;
    // An ATR pasted without quotes arrives as one argument per byte.
    for (const std::string& word : options.arguments) pasted.append(word).push_back(' ');
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb paths;
    if (!ClsPkcs11::CardDataLookupAtr2(cleanedAtr(pasted).c_str(), name, readOnly, paths,
                                       p11.log())) {
        const std::string error = p11.log().firstError();
        throw CommandError{Exit::NotFound,
                           error.empty() ? "No card with this ATR is known." : printable(error),
                           {}};
    }
    JsonValue list = JsonValue::array();
    for (int i = 0; i < paths.getSize(); ++i) {
        JsonValue& path = list.append(JsonValue::object());
        path.set("path", paths.sbAt(i)->view());
        std::error_code error;
        path.set("exists", std::filesystem::is_regular_file(paths.sbAt(i)->view(), error));
    }
    JsonValue document = JsonValue::object();
    document.set("name", name.view());
    document.set("readOnly", readOnly);
    document.set("paths", std::move(list));
    if (options.json) {
        printJson(document);
        return Exit::Done;
    }
    std::vector<std::pair<std::string, std::string>> fields = {
        {"Card", std::string(name.view())}, {"Read-only", readOnly ? "yes" : "no"}};
    for (const JsonValue& path : *document.find("paths")->asArray()) {
        fields.emplace_back(
            "Module",
            textOf(path, "path") + (*path.find("exists")->asBool() ? "" : " (not installed)"));
    }
    printFields(fields);
    return Exit::Done;
}

Exit runCardData(ClsPkcs11& p11, const Options&) {
    ClsJsonObject document;
    if (!ClsPkcs11::GetCardDataJson(document, p11.log()))
        throw CommandError{Exit::Module, p11.log().firstError(), {}};
    printJson(document.root());
    return Exit::Done;
}

}  // namespace mervane::cli
