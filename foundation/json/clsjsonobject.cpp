#include "foundation/json/clsjsonobject.h"

#include <algorithm>
#include <charconv>
#include <new>
#include <optional>

#include "foundation/core/lasting.h"
#include "foundation/json/parser.h"
#include "foundation/json/writer.h"

namespace mervane {
namespace {

// Removes "[n]" or "[i]" from the front of `path` and returns the index; "i" is `variable`.
std::optional<std::size_t> takeIndex(std::string_view& path, int variable) noexcept {
    const auto close = path.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    const std::string_view inner = path.substr(1, close - 1);
    path.remove_prefix(close + 1);
    if (inner == "i") {
        return variable < 0 ? std::nullopt : std::optional(static_cast<std::size_t>(variable));
    }
    std::size_t index = 0;
    const auto [end, error] = std::from_chars(inner.data(), inner.data() + inner.size(), index);
    if (error != std::errc() || end != inner.data() + inner.size()) return std::nullopt;
    return index;
}

// Follows `path` from `value`; null if it leads nowhere. Allocates nothing.
const JsonValue* walk(const JsonValue* value, std::string_view path, int variable) noexcept {
    while (value != nullptr && !path.empty()) {
        if (path.front() == '[') {
            const auto index = takeIndex(path, variable);
            const JsonArray* const items = value->asArray();
            const bool found = index && items != nullptr && *index < items->size();
            value = found ? &(*items)[*index] : nullptr;
        } else {
            const std::string_view name = path.substr(0, path.find_first_of(".["));
            path.remove_prefix(name.size());
            value = value->find(name);
        }
        // A dot must be followed by a member name.
        if (path.starts_with('.')) {
            path.remove_prefix(1);
            if (path.empty() || path.front() == '[') return nullptr;
        }
    }
    return value;
}

// The document of an object that is new or was cleared, shared by all of them, so that clearing one
// needs no memory and cannot leave its old content behind. root() copies it before a change.
struct EmptyDocument {
    std::shared_ptr<JsonValue> root = std::make_shared<JsonValue>(JsonValue::object());
};
constinit Lasting<EmptyDocument> emptyDocument;

}  // namespace

ClsJsonObject::ClsJsonObject() : m_root(emptyDocument.get().root) {}

ClsJsonObject* ClsJsonObject::createNewCls() noexcept {
    try {
        return std::make_unique<ClsJsonObject>().release();
    } catch (const std::exception&) {
        return nullptr;
    }
}

bool ClsJsonObject::loadJson(const DataBuffer& utf8, LogBase& log) {
    const auto bytes = utf8.span();
    return loadJson({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, log);
}

bool ClsJsonObject::loadJson(std::string_view utf8, LogBase& log) {
    auto fresh = std::make_shared<JsonValue>();
    JsonError error;
    if (!parseJson(utf8, *fresh, error)) {
        log.LogError("Invalid JSON at line " + std::to_string(error.line) + ", column " +
                     std::to_string(error.column) + ": " + std::string(error.reason) + ".");
        return false;
    }
    m_root = std::move(fresh);
    return true;
}

void ClsJsonObject::clear(LogBase&) {
    m_root = emptyDocument.get().root;
}

std::string ClsJsonObject::emit(bool indented) const {
    return toJsonText(*m_root, indented);
}

const JsonValue* ClsJsonObject::valueAt(std::string_view path) const noexcept {
    return walk(m_root.get(), path, m_i);
}

JsonValue& ClsJsonObject::root() {
    if (m_root.use_count() != 1) m_root = std::make_shared<JsonValue>(*m_root);
    return *m_root;
}

ClsJsonObject* ClsJsonObject::FindRecord(std::string_view arrayPath, std::string_view relativePath,
                                         std::string_view value, bool caseSensitive) const {
    const JsonValue* const list = valueAt(arrayPath);
    if (list == nullptr || list->asArray() == nullptr) return nullptr;
    const auto matches = [&](const JsonValue& record) {
        const JsonValue* const found = walk(&record, relativePath, m_i);
        const auto text = found == nullptr ? std::nullopt : found->asString();
        if (!text) return false;
        return caseSensitive ? *text == value : equalsIgnoreCase(*text, value);
    };
    const JsonArray& records = *list->asArray();
    const auto* const at = std::ranges::find_if(records, matches);
    if (at == records.end()) return nullptr;
    auto record = std::make_unique<ClsJsonObject>();
    // Aliases the document's ownership; root() copies before anything changes.
    record->m_root = std::shared_ptr<JsonValue>(m_root, const_cast<JsonValue*>(&*at));
    return record.release();
}

bool ClsJsonObject::sbOfPathUtf8(std::string_view path, StringBuffer& out, LogBase& log) const {
    const JsonValue* const value = valueAt(path);
    if (value == nullptr || !value->asString()) {
        log.LogData("missingJsonString", path);
        return false;
    }
    out.append(*value->asString());
    return true;
}

bool ClsJsonObject::boolOf(std::string_view path, LogBase& log) const {
    const JsonValue* const value = valueAt(path);
    if (value == nullptr || value->asBool() == nullptr) {
        log.LogData("missingJsonBool", path);
        return false;
    }
    return *value->asBool();
}

int ClsJsonObject::JsonTypeOf(std::string_view path) const noexcept {
    const JsonValue* const value = valueAt(path);
    if (value == nullptr) return kAbsent;
    if (value->asString()) return kString;
    if (value->asNumber()) return kNumber;
    if (value->asObject() != nullptr) return kObject;
    if (value->asArray() != nullptr) return kArray;
    return value->isNull() ? kNull : kBool;
}

int ClsJsonObject::sizeOfArray(std::string_view path, LogBase& log) const {
    if (JsonTypeOf(path) != kArray) log.LogData("missingJsonArray", path);
    return SizeOfArray(path);
}

int ClsJsonObject::SizeOfArray(std::string_view path) const noexcept {
    const JsonValue* const value = valueAt(path);
    if (value == nullptr || value->asArray() == nullptr) return 0;
    return static_cast<int>(value->asArray()->size());
}

}  // namespace mervane
