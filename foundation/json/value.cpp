#include "foundation/json/value.h"

#include <algorithm>

namespace mervane {

static_assert(sizeof(JsonValue) == 2 * sizeof(void*));

JsonValue::JsonValue(const JsonValue& other) = default;
JsonValue::JsonValue(JsonValue&& other) noexcept {
    m_data.swap(other.m_data);
}
// `other` holds its own copy, so assigning a part of this value to it is safe.
JsonValue& JsonValue::operator=(JsonValue other) noexcept {
    m_data = std::move(other.m_data);
    return *this;
}
JsonValue::~JsonValue() = default;

template <JsonValue::Kind kind>
void JsonValue::setText(std::string_view text) {
    using Short = ShortText<kind>;
    if (text.size() <= sizeof(Short) && text.find('\0') == std::string_view::npos) {
        std::ranges::copy(text, m_data.emplace<Short>().chars.begin());
    } else {
        m_data.emplace<LongText<kind>>().chars.append(text.data(), text.size());
    }
}

template <JsonValue::Kind kind>
std::optional<std::string_view> JsonValue::textOf() const noexcept {
    if (const auto* const text = std::get_if<ShortText<kind>>(&m_data)) {
        return std::string_view(text->chars.begin(), std::ranges::find(text->chars, '\0'));
    }
    const auto* const text = std::get_if<LongText<kind>>(&m_data);
    if (text == nullptr) return std::nullopt;
    return std::string_view(text->chars.begin(), text->chars.end());
}

JsonValue::JsonValue(std::string_view text) {
    setText<Kind::String>(text);
}

JsonValue JsonValue::number(std::string_view text) {
    JsonValue value;
    value.setText<Kind::Number>(text);
    return value;
}

std::optional<std::string_view> JsonValue::asNumber() const noexcept {
    return textOf<Kind::Number>();
}

std::optional<std::string_view> JsonValue::asString() const noexcept {
    return textOf<Kind::String>();
}

const JsonValue* JsonValue::find(std::string_view name) const noexcept {
    const JsonObject* const members = asObject();
    if (members == nullptr) return nullptr;
    const auto* const at = std::ranges::find_if(
        *members, [name](const JsonMember& member) { return member.name() == name; });
    return at == members->end() ? nullptr : &at->value;
}

JsonValue* JsonValue::find(std::string_view name) noexcept {
    return const_cast<JsonValue*>(std::as_const(*this).find(name));
}

JsonValue& JsonValue::set(std::string_view name, JsonValue value) {
    if (JsonValue* const old = find(name)) return *old = std::move(value);
    JsonMember member{JsonValue(name), std::move(value)};
    if (asObject() == nullptr) m_data = JsonObject();
    return std::get<JsonObject>(m_data).emplace_back(std::move(member)).value;
}

void JsonValue::remove(std::string_view name) {
    auto* const members = std::get_if<JsonObject>(&m_data);
    if (members != nullptr) {
        const std::string wanted(name);  // `name` may point into a member being removed
        members->eraseIf([&wanted](const JsonMember& member) { return member.name() == wanted; });
    }
}

JsonValue& JsonValue::append(JsonValue value) {
    if (asArray() == nullptr) m_data = JsonArray();
    return std::get<JsonArray>(m_data).emplace_back(std::move(value));
}

}  // namespace mervane
