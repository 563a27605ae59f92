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

/// A member of an object. A template because it contains a JsonValue, which is incomplete here.
template <class Value>
struct BasicJsonMember {
    Value nameValue;  ///< always a string, so short names need no allocation
    Value value;      ///< what the name stands for

    /// Valid until the member changes.
    [[nodiscard]] std::string_view name() const noexcept { return *nameValue.asString(); }
};
using JsonMember = BasicJsonMember<JsonValue>;  ///< a name and its value

using JsonArray = CompactList<JsonValue>;    ///< the elements of an array
using JsonObject = CompactList<JsonMember>;  ///< the members of an object, in document order

/// One JSON value (RFC 8259) and everything in it; copies are deep.
///
/// A value takes 16 bytes: a tag and either up to eight characters or one pointer. Strings and
/// numbers longer than eight bytes, and lists that are not empty, take one heap block each. That
/// bounds the memory of a hostile document by a small multiple of its text.
///
/// Numbers are kept as their text: nothing is rounded or overflows, and what was read is written
/// back unchanged. Objects are lists in document order, searched from the front.
class JsonValue {
  public:
    /// The value null.
    JsonValue() noexcept = default;
    /// @{
    /// Deep copies.
    // Not inline: expanded at every use, the recursion over the tree adds 20 KiB to the library.
    JsonValue(const JsonValue& other);
    JsonValue(JsonValue&& other) noexcept;
    JsonValue& operator=(JsonValue other) noexcept;
    /// @}
    ~JsonValue();

    /// @{
    /// A value of the type that JSON has for the argument's.
    explicit JsonValue(bool value) noexcept : m_data(value) {}
    explicit JsonValue(std::string_view text);
    explicit JsonValue(const std::string& text) : JsonValue(std::string_view(text)) {}
    explicit JsonValue(const char* text) : JsonValue(std::string_view(text)) {}
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) explicit JsonValue(Number value)
        : JsonValue(number(std::to_string(value))) {}
    explicit JsonValue(JsonArray items) noexcept : m_data(std::move(items)) {}
    explicit JsonValue(JsonObject members) noexcept : m_data(std::move(members)) {}
    /// @}

    /// A number from its text, which must conform to RFC 8259 section 6; not checked.
    static JsonValue number(std::string_view text);
    /// @{
    /// The empty array, and the empty object.
    static JsonValue array() { return JsonValue(JsonArray()); }
    static JsonValue object() { return JsonValue(JsonObject()); }
    /// @}

    /// @{
    /// The value, if it is of that type; else null or nullopt. What is returned belongs to the
    /// value and is valid until it changes or moves. A number is as it was written; a string is
    /// unescaped UTF-8 and may contain NUL.
    [[nodiscard]] const bool* asBool() const noexcept { return std::get_if<bool>(&m_data); }
    [[nodiscard]] std::optional<std::string_view> asNumber() const noexcept;
    [[nodiscard]] std::optional<std::string_view> asString() const noexcept;
    [[nodiscard]] const JsonArray* asArray() const noexcept {
        return std::get_if<JsonArray>(&m_data);
    }
    [[nodiscard]] const JsonObject* asObject() const noexcept {
        return std::get_if<JsonObject>(&m_data);
    }
    [[nodiscard]] bool isNull() const noexcept { return m_data.index() == 0; }
    /// @}

    /// @{
    /// The first member of that name; null if there is none or the value is not an object.
    [[nodiscard]] const JsonValue* find(std::string_view name) const noexcept;
    [[nodiscard]] JsonValue* find(std::string_view name) noexcept;
    /// @}

    /// @{
    /// Replaces the first member of that name, or adds one at the end, and returns its value. A
    /// value that is not an object becomes an empty one first.
    JsonValue& set(std::string_view name, JsonValue value);
    template <class T>
    requires(!std::same_as<std::remove_cvref_t<T>, JsonValue>) JsonValue& set(std::string_view name,
                                                                              T&& value) {
        return set(name, JsonValue(std::forward<T>(value)));
    }
    /// @}

    /// Removes all members of that name; does nothing if the value is not an object.
    void remove(std::string_view name);

    /// Adds an element at the end and returns it. A value that is not an array becomes an empty one
    /// first.
    JsonValue& append(JsonValue value);

  private:
    enum class Kind { String, Number };
    // Padded with NULs; texts that contain NUL are stored as LongText.
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

    // isNull() relies on index 0.
    std::variant<std::monostate, bool, ShortText<Kind::Number>, LongText<Kind::Number>,
                 ShortText<Kind::String>, LongText<Kind::String>, JsonArray, JsonObject>
        m_data;
};

}  // namespace mervane

#endif
