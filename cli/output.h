#ifndef MERVANE_CLI_OUTPUT_H
#define MERVANE_CLI_OUTPUT_H

#include <string>
#include <string_view>
#include <vector>

#include <mervane/foundation/json/value.h>

namespace mervane::cli {

// Everything that commands print goes through here, because most of it comes from a token or a
// module and neither is trusted: a label may contain escape sequences, line breaks or text that
// runs from right to left. Tables and fields make every cell printable(); JSON is escaped by the
// library. Text put into a message or written to std::cout directly needs printable() at the call.

/// `text` as one line without characters that would control a terminal.
std::string printable(std::string_view text);

/// Rows under a heading, with columns aligned by their width on a terminal.
class Table {
  public:
    static constexpr std::size_t kMaxCell = 4096;  ///< bytes of a cell as given; the rest is cut

    explicit Table(std::vector<std::string> heading) { m_rows.push_back(std::move(heading)); }
    /// Adds a row of as many cells as the heading has; each is made printable.
    void add(std::vector<std::string> cells);
    /// With `width` columns at most: the widest cells are cut, which "…" shows. 0: no bound.
    void print(std::size_t width = 0) const;

  private:
    std::vector<std::vector<std::string>> m_rows;
};

/// Columns of the terminal on standard output; 0 if that is not a terminal.
std::size_t terminalWidth() noexcept;

/// Prints "name: value" lines with the values aligned and made printable.
void printFields(const std::vector<std::pair<std::string, std::string>>& fields);

/// Prints the members of a JSON object, and before them "schema", as a document.
void printJson(const JsonValue& object);

/// A line on standard error about what was done. None are printed after silenceRemarks(), where
/// standard error is to be one document; what they say is in the JSON as well.
void remark(const std::string& sentence);
void silenceRemarks() noexcept;

/// Remarks that a listing lacks objects; nothing if it lacks none.
void sayLeftOut(int number);

/// A JSON document, {"schema":1,..}, printed as it is made. One value is in memory at a time, so
/// that the texts into which hostile certificates expand do not add up.
class JsonPrinter {
  public:
    JsonPrinter();
    JsonPrinter(const JsonPrinter&) = delete;
    JsonPrinter& operator=(const JsonPrinter&) = delete;
    ~JsonPrinter() = default;

    /// Whether a document was begun in this process: anything printed after that is part of it.
    static bool wasBegun() noexcept { return s_wasBegun; }

    /// Ends the document. One that is not ended is invalid JSON, so nobody takes it for the whole.
    void finish();
    void member(std::string_view name, const JsonValue& value);
    /// A string; printed in pieces, whatever its length.
    void text(std::string_view name, std::string_view value);
    void beginList(std::string_view name) { begin(name, '['); }
    void endList() { end(']'); }
    /// A value in a list.
    void item(const JsonValue& value) { member({}, value); }
    /// An object in a list.
    void beginItem() { begin({}, '{'); }
    void endItem() { end('}'); }

  private:
    void begin(std::string_view name, char bracket);
    void end(char bracket);
    void startValue(std::string_view name);

    static inline bool s_wasBegun = false;

    std::size_t m_depth = 1;
    bool m_isFirst = true;  // of the object or list that is open
};

/// A member for printing: the string itself, anything else as JSON; empty if absent or null.
std::string textOf(const JsonValue& object, std::string_view member);
/// The strings of an array member, joined by spaces; empty if it is not an array.
std::string joined(const JsonValue& object, std::string_view member);
std::string joined(const std::vector<std::string>& words);

}  // namespace mervane::cli

#endif
