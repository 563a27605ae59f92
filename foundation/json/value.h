#ifndef MERVANE_FOUNDATION_JSON_VALUE_H
#define MERVANE_FOUNDATION_JSON_VALUE_H

#include <array>
#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "compactlist.h"

namespace mervane {

class JsonValue;

/// A member of an object. A template, so that it is completed only when JsonValue is.
template <class Value>
struct BasicJsonMember {
    Value nameValue;  // a string
    Value value;

    [[nodiscard]] std::string_view name() const noexcept { return *nameValue.asString(); }
};
using JsonMember = BasicJsonMember<JsonValue>;

using JsonArray = CompactList<JsonValue>;
using JsonObject = CompactList<JsonMember>;  // in document order

/// One JSON value (RFC 8259) with all that it contains; copied as a whole. It takes 16 bytes, and
/// a block for a text of more than eight bytes and for a list that is not empty.
class JsonValue {
  public:
    JsonValue() noexcept = default;
    // In one place: inlined, the tree's recursion takes a quarter of the library.
    JsonValue(const JsonValue& other);
    JsonValue(JsonValue&& other) noexcept;
    JsonValue& operator=(JsonValue other) noexcept;
    ~JsonValue();

    explicit JsonValue(bool value) noexcept : m_data(value) {}
    explicit JsonValue(std::string_view text);
    explicit JsonValue(const std::string& text) : JsonValue(std::string_view(text)) {}
    explicit JsonValue(const char* text) : JsonValue(std::string_view(text)) {}
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) explicit JsonValue(Number value)
        : JsonValue(number(std::to_string(value))) {}
    explicit JsonValue(JsonArray items) noexcept : m_data(std::move(items)) {}
    explicit JsonValue(JsonObject members) noexcept : m_data(std::move(members)) {}

    /// A number of that text, which has to be one as RFC 8259 section 6 writes it.
    static JsonValue number(std::string_view text);
    static JsonValue array() { return JsonValue(JsonArray()); }
    static JsonValue object() { return JsonValue(JsonObject()); }

    // Nothing when the value is of another type. Text and lists are the value's own, as long as it
    // stands unchanged.
    [[nodiscard]] const bool* asBool() const noexcept { return std::get_if<bool>(&m_data); }
    /// A number as its text, so that none is too large or loses digits.
    [[nodiscard]] std::optional<std::string_view> asNumber() const noexcept;
    [[nodiscard]] std::optional<std::string_view> asString() const noexcept;
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
    enum class Kind { String, Number };
    // Filled up with NUL, and without NUL otherwise.
    template <Kind>
    struct ShortText {
        std::array<char, 8> chars;
    };
    template <Kind>
    struct LongText {
        CompactList<char> chars;
    };

    template <Kind kind>
    void setText(std::string_view text);
    template <Kind kind>
    [[nodiscard]] std::optional<std::string_view> textOf() const noexcept;

    // The order counts: index 0 is null.
    std::variant<std::monostate, bool, ShortText<Kind::Number>, LongText<Kind::Number>,
                 ShortText<Kind::String>, LongText<Kind::String>, JsonArray, JsonObject>
        m_data;
};

}  // namespace mervane

#endif
