// Reads the input as a module's configuration, and as a discovery document.

#include "locate/configuration.h"
#include "foundation/json/clsjsonobject.h"
#include "fuzz/fuzz.h"
#include "locate/tokens.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string reason;
    const auto text = fuzz::asText(data, size);
    const auto fields = parseConfiguration(text, reason);
    fuzz::require(fields.has_value() == reason.empty());
    ModuleInfo module;
    for (const auto& [name, value] : fields.value_or(ConfigFields())) {
        fuzz::require(!name.empty() && value.find('\n') == std::string::npos);
        module.name = moduleNameOf(value);
        static_cast<void>(isNamed(module, name));
    }
    LogNull log;
    ClsJsonObject document;
    std::vector<LocatedToken> tokens;
    if (document.loadJson(text, log)) addTokens(document.root(), module, tokens);
    removeRepeated(tokens);
    for (const LocatedToken& located : tokens) {
        Pkcs11Uri uri;
        fuzz::require(uri.parse(uriOf(located.token).text(), log) || !located.token.isReadable);
    }
    return 0;
}
