// Looks up the input as an ATR in the card database. A card found must have a name and a path.

#include "fuzz/fuzz.h"
#include "pkcs11/clspkcs11.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LogNull log;
    static ClsJsonObject cards;
    static const bool isLoaded = ClsPkcs11::GetCardDataJson(cards, log);
    fuzz::require(isLoaded);
    const std::string atr(fuzz::asText(data, size));
    StringBuffer name;
    bool readOnly = true;
    ExtPtrArraySb paths;
    const bool found = ClsPkcs11::CardDataLookupAtr(cards, atr.c_str(), name, readOnly, paths, log);
    fuzz::require(found ? paths.getSize() > 0 && !name.isEmpty() : paths.getSize() == 0);
    return 0;
}
