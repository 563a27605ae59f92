#ifndef MERVANE_FOUNDATION_JSON_VALUE_H
#define MERVANE_FOUNDATION_JSON_VALUE_H

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace mervane {

class JsonValue;

/// A member of an object. A template, so that it is completed only when JsonValue is.
template <class Value>
struct BasicJsonMember {
    std::string name;
    Value value;
};
using JsonMember = BasicJsonMember<JsonValue>;

/// A number as its text, so that none is too large or loses digits.
struct JsonNumber {
    std::string text;
};

using JsonArray = std::vector<JsonValue>;
using JsonObject = std::vector<JsonMember>;  // in document order

/// One JSON value (RFC 8259) with all that it contains; copied as a whole.
class JsonValue {
  public:
    JsonValue() noexcept = default;
    explicit JsonValue(bool value) noexcept : m_data(value) {}
    explicit JsonValue(std::string text) noexcept : m_data(std::move(text)) {}
    explicit JsonValue(std::string_view text) : m_data(std::string(text)) {}
    explicit JsonValue(const char* text) : m_data(std::string(text)) {}
    explicit JsonValue(JsonNumber number) noexcept : m_data(std::move(number)) {}
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) explicit JsonValue(Number value)
        : m_data(JsonNumber{std::to_string(value)}) {}
    explicit JsonValue(JsonArray items) noexcept : m_data(std::move(items)) {}
    explicit JsonValue(JsonObject members) noexcept : m_data(std::move(members)) {}

    static JsonValue array() { return JsonValue(JsonArray()); }
    static JsonValue object() { return JsonValue(JsonObject()); }

    // Null when the value is of another type.
    [[nodiscard]] const bool* asBool() const noexcept { return std::get_if<bool>(&m_data); }
    [[nodiscard]] const JsonNumber* asNumber() const noexcept {
        return std::get_if<JsonNumber>(&m_data);
    }
    [[nodiscard]] const std::string* asString() const noexcept {
        return std::get_if<std::string>(&m_data);
    }
    [[nodiscard]] const JsonArray* asArray() const noexcept {
        return std::get_if<JsonArray>(&m_data);
    }
    [[nodiscard]] const JsonObject* asObject() const noexcept {
        return std::get_if<JsonObject>(&m_data);
    }
    [[nodiscard]] bool isNull() const noexcept { return m_data.index() == 0; }

    /// The first member of that name, or null; of an object.
    [[nodiscard]] const JsonValue* find(std::string_view name) const noexcept;
    [[nodiscard]] JsonValue* find(std::string_view name) noexcept;

    /// Adds a member at the end, or replaces the first of that name; makes any other value an
    /// object first.
    JsonValue& set(std::string_view name, JsonValue value);
    template <class T>
    requires(!std::same_as<std::remove_cvref_t<T>, JsonValue>) JsonValue& set(std::string_view name,
                                                                              T&& value) {
        return set(name, JsonValue(std::forward<T>(value)));
    }

    /// Removes all members of that name.
    void remove(std::string_view name);

    /// Adds an element at the end; makes any other value an array first.
    JsonValue& append(JsonValue value);

  private:
    // The order counts: index 0 is null.
    std::variant<std::monostate, bool, JsonNumber, std::string, JsonArray, JsonObject> m_data;
};

}  // namespace mervane

#endif
