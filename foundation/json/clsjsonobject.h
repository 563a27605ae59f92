#ifndef MERVANE_FOUNDATION_JSON_CLSJSONOBJECT_H
#define MERVANE_FOUNDATION_JSON_CLSJSONOBJECT_H

#include <memory>
#include <string>
#include <string_view>

#include "../core/clsbase.h"
#include "value.h"
#include "../text/databuffer.h"
#include "../text/stringbuffer.h"

namespace mervane {

/// A JSON document, or a record found within one.
///
/// Values are addressed by paths: member names joined by dots, array elements as "[n]", and "[i]"
/// for the element whose index is the document's variable I, as in "cards[i].name". The empty path
/// is the document itself. Where an object has two members of one name, the first counts.
///
/// A record returned by FindRecord() shares the text of its document until either is changed, and
/// stays valid when the document is gone. Thread rule: any number of threads may read one
/// document; a thread that changes it (put_I included) must be alone with it.
class ClsJsonObject final : public ClsBase {
  public:
    /// What JsonTypeOf() answers.
    enum Type {
        kAbsent = -1,
        kString = 1,
        kNumber = 2,
        kObject = 3,
        kArray = 4,
        kBool = 5,
        kNull = 6
    };

    /// An empty object, {}.
    ClsJsonObject();

    /// A new empty document that the caller owns, or null when there is no memory.
    static ClsJsonObject* createNewCls() noexcept;

    /// Replaces the content by the document that the UTF-8 text holds (RFC 8259, any value at the
    /// top). On failure one error line gives reason, line and column, and the content stays.
    bool loadJson(const DataBuffer& utf8, LogBase& log);
    bool loadJson(std::string_view utf8, LogBase& log);

    /// Makes it the empty object.
    void clear(LogBase& log);

    /// The document as text, in one line or indented.
    [[nodiscard]] std::string emit(bool indented = false) const;

    /// In the array at `arrayPath`, the first element whose string at `relativePath` equals
    /// `value` (letter case of ASCII counts or not), as a new document that the caller releases;
    /// null when there is none.
    [[nodiscard]] ClsJsonObject* FindRecord(std::string_view arrayPath,
                                            std::string_view relativePath, std::string_view value,
                                            bool caseSensitive) const;

    /// Appends the string at `path` to `out`; false, with `out` untouched, when there is none.
    bool sbOfPathUtf8(std::string_view path, StringBuffer& out, LogBase& log) const;
    /// The boolean at `path`; false when there is none, which is logged.
    bool boolOf(std::string_view path, LogBase& log) const;
    [[nodiscard]] int JsonTypeOf(std::string_view path) const noexcept;
    /// Elements of the array at `path`; 0 when there is none, which is logged.
    int sizeOfArray(std::string_view path, LogBase& log) const;
    [[nodiscard]] int SizeOfArray(std::string_view path) const noexcept;

    [[nodiscard]] int get_I() const noexcept { return m_i; }
    void put_I(int index) noexcept { m_i = index; }

    /// The value at `path`, or null. Valid until the document changes.
    [[nodiscard]] const JsonValue* valueAt(std::string_view path) const noexcept;

    /// The whole document, to be changed in place.
    JsonValue& root();

  private:
    std::shared_ptr<JsonValue> m_root;  // never null; shared with records found in it
    int m_i = 0;
};

}  // namespace mervane

#endif
