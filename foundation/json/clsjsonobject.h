#ifndef MERVANE_FOUNDATION_JSON_CLSJSONOBJECT_H
#define MERVANE_FOUNDATION_JSON_CLSJSONOBJECT_H

#include <memory>
#include <string>
#include <string_view>

#include "../core/clsbase.h"
#include "../text/databuffer.h"
#include "../text/stringbuffer.h"
#include "value.h"

namespace mervane {

/// A JSON document, or a record found in one.
///
/// Values are addressed by path: member names joined by dots, array elements as "[n]", or as "[i]"
/// with the index in the property I, as in "cards[i].name". The empty path is the document itself.
/// If an object has two members of one name, the first is used.
///
/// A record returned by FindRecord() shares memory with its document until either changes, and
/// outlives the document. Thread rule: any number of threads may read a document at once; changing
/// it (put_I included) needs exclusive access.
class ClsJsonObject final : public ClsBase {
  public:
    /// The results of JsonTypeOf().
    enum Type {
        kAbsent = -1,
        kString = 1,
        kNumber = 2,
        kObject = 3,
        kArray = 4,
        kBool = 5,
        kNull = 6
    };

    /// Starts as the empty object, {}.
    ClsJsonObject();

    /// A new empty document, owned by the caller; null when memory runs out.
    static ClsJsonObject* createNewCls() noexcept;

    /// @{
    /// Parses UTF-8 text (RFC 8259, any value at the top) and replaces the content with it. On
    /// failure logs one error line with the reason, line and column, and keeps the content.
    bool loadJson(const DataBuffer& utf8, LogBase& log);
    bool loadJson(std::string_view utf8, LogBase& log);
    /// @}

    /// Replaces the content with the empty object.
    void clear(LogBase& log);

    /// The document as JSON text, on one line or indented by two spaces per level.
    [[nodiscard]] std::string emit(bool indented = false) const;

    /// Finds the first element of the array at `arrayPath` whose string at `relativePath` equals
    /// `value`; unless `caseSensitive`, ASCII letter case is ignored. Returns it as a new document
    /// that the caller owns (delete it, or see _clsBaseHolder), or null if there is none.
    [[nodiscard]] ClsJsonObject* FindRecord(std::string_view arrayPath,
                                            std::string_view relativePath, std::string_view value,
                                            bool caseSensitive) const;

    /// Appends the string at `path` to `out`. If there is none, logs that, returns false and leaves
    /// `out` untouched.
    bool sbOfPathUtf8(std::string_view path, StringBuffer& out, LogBase& log) const;
    /// The boolean at `path`. If there is none, logs that and returns false.
    bool boolOf(std::string_view path, LogBase& log) const;
    /// The Type of the value at `path`.
    [[nodiscard]] int JsonTypeOf(std::string_view path) const noexcept;
    /// Number of elements of the array at `path`. If there is none, logs that and returns 0.
    int sizeOfArray(std::string_view path, LogBase& log) const;
    /// As above, without the log.
    [[nodiscard]] int SizeOfArray(std::string_view path) const noexcept;

    /// @{
    /// The index that "[i]" stands for in paths; a negative one matches no element.
    [[nodiscard]] int get_I() const noexcept { return m_i; }
    void put_I(int index) noexcept { m_i = index; }
    /// @}

    /// The value at `path`, or null. The document owns it; valid until the document changes.
    [[nodiscard]] const JsonValue* valueAt(std::string_view path) const noexcept;

    /// The document for changing in place; copies it first if records share it.
    JsonValue& root();

  private:
    std::shared_ptr<JsonValue> m_root;  // never null; may be shared with found records
    int m_i = 0;
};

}  // namespace mervane

#endif
