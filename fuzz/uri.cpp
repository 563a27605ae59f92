// Reads the input as a PKCS #11 URI, writes it and reads that again: both must be equal. And uses it on a token.

#include "foundation/json/clsjsonobject.h"
#include "fuzz/fuzz.h"
#include "locate/tokens.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LogNull log;
    Pkcs11Uri uri;
    LocatedToken token;
    if (!uri.parse(fuzz::asText(data, size), log)) return 0;
    Pkcs11Uri again;
    fuzz::require(again.parse(uri.text(), log));
    fuzz::require(again.text() == uri.text());
    static_cast<void>(uri.tokenChoice());
    fuzz::require(!fits(uri, token));  // it is not readable
    token.token.isReadable = true;
    token.token.label = uri.token.value_or("");
    static_cast<void>(fits(uri, token));
    return 0;
}
