#include "foundation/json/value.h"

#include <algorithm>

namespace mervane {

const JsonValue* JsonValue::find(std::string_view name) const noexcept {
    const JsonObject* const members = asObject();
    if (members == nullptr) return nullptr;
    const auto at = std::ranges::find(*members, name, &JsonMember::name);
    return at == members->end() ? nullptr : &at->value;
}

JsonValue* JsonValue::find(std::string_view name) noexcept {
    return const_cast<JsonValue*>(std::as_const(*this).find(name));
}

JsonValue& JsonValue::set(std::string_view name, JsonValue value) {
    if (asObject() == nullptr) m_data = JsonObject();
    if (JsonValue* const old = find(name)) return *old = std::move(value);
    auto& members = std::get<JsonObject>(m_data);
    members.push_back({std::string(name), std::move(value)});
    return members.back().value;
}

void JsonValue::remove(std::string_view name) {
    auto* const members = std::get_if<JsonObject>(&m_data);
    if (members != nullptr)
        std::erase_if(*members, [name](const JsonMember& m) { return m.name == name; });
}

JsonValue& JsonValue::append(JsonValue value) {
    if (asArray() == nullptr) m_data = JsonArray();
    auto& items = std::get<JsonArray>(m_data);
    items.push_back(std::move(value));
    return items.back();
}

}  // namespace mervane
