// Parses the input as JSON, writes it and parses that again: both must be equal.

#include "foundation/json/clsjsonobject.h"
#include "fuzz/fuzz.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LogNull log;
    ClsJsonObject json;
    if (!json.loadJson(fuzz::asText(data, size), log)) return 0;
    const std::string text = json.emit(size % 2 == 0);
    ClsJsonObject again;
    fuzz::require(again.loadJson(text, log));
    fuzz::require(again.emit() == json.emit());
    // Pieces of the text serve as paths, which must be harmless whatever they name.
    json.put_I(static_cast<int>(size % 5));
    for (std::size_t at = 0; at < size && at < 64; ++at) {
        const auto path = fuzz::asText(data + at, size - at).substr(0, 16);
        static_cast<void>(json.JsonTypeOf(path));
        const _clsBaseHolder record(json.FindRecord(path, "a", "b", false));
    }
    return 0;
}
