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
    explicit Table(std::vector<std::string> heading) { m_rows.push_back(std::move(heading)); }
    /// Adds a row of as many cells as the heading has; each is made printable.
    void add(std::vector<std::string> cells);
    void print() const;

  private:
    std::vector<std::vector<std::string>> m_rows;
};

/// Prints "name: value" lines with the values aligned and made printable.
void printFields(const std::vector<std::pair<std::string, std::string>>& fields);

/// Prints the value as indented JSON.
void printJson(const JsonValue& value);

/// Says on standard error that a listing lacks objects; nothing if it lacks none.
void sayLeftOut(int number);

/// A JSON document with one list, {"name":[..]}, printed when it is complete. Records are kept as
/// text, which takes a third of the memory of values.
class JsonList {
  public:
    explicit JsonList(std::string_view name);
    void add(const JsonValue& record);
    /// With a member "leftOut" if objects are missing from the list.
    void print(int numLeftOut);

  private:
    std::string m_text;
    bool m_isEmpty = true;
};

/// A member for printing: the string itself, anything else as JSON; empty if absent or null.
std::string textOf(const JsonValue& object, std::string_view member);
/// The strings of an array member, joined by spaces; empty if it is not an array.
std::string joined(const JsonValue& object, std::string_view member);

}  // namespace mervane::cli

#endif
