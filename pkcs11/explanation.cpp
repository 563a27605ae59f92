#include "pkcs11/explanation.h"

#include <array>

namespace mervane {

std::string_view nameOf(KeyObjection objection) noexcept {
    // In the order of the values.
    constexpr std::array<std::string_view, 7> kNames = {
        "attributesUnreadable", "idDiffers",    "subjectDiffers", "modulusDiffers",
        "pointDiffers",         "pointUnknown", "mayNotSign"};
    return kNames.at(static_cast<std::size_t>(objection));
}

JsonValue toJson(const KeyExplanation& explanation) {
    JsonValue out = JsonValue::object();
    out.set("keyBy",
            explanation.keyHandle == 0 ? JsonValue() : JsonValue(nameOf(explanation.facts.rule)));
    out.set("disproved", explanation.facts.isDisproved);
    JsonValue& list = out.set("passedOver", JsonValue::array());
    for (const PassedOverKey& key : explanation.passedOver) {
        JsonValue& item = list.append(JsonValue::object());
        item.set("handle", key.handle);
        item.set("id", key.ckaId);
        JsonValue& because = item.set("because", JsonValue::array());
        for (const KeyObjection objection : key.objections)
            because.append(JsonValue(nameOf(objection)));
    }
    out.set("more", explanation.numMore);
    return out;
}

}  // namespace mervane
