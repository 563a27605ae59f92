#ifndef MERVANE_CLI_OUTPUT_H
#define MERVANE_CLI_OUTPUT_H

#include <string>
#include <string_view>
#include <vector>

#include <mervane/foundation/json/value.h>

namespace mervane::cli {

/// Text for people: one line, without characters that a terminal would obey.
std::string printable(std::string_view text);

/// Prints rows under a heading, the columns aligned by what they take on a terminal.
class Table {
  public:
    explicit Table(std::vector<std::string> heading) { m_rows.push_back(std::move(heading)); }
    void add(std::vector<std::string> cells);
    void print() const;

  private:
    std::vector<std::vector<std::string>> m_rows;
};

/// Prints "name: value" lines with the values aligned.
void printFields(const std::vector<std::pair<std::string, std::string>>& fields);

void printJson(const JsonValue& value);

/// A document of one list, {"name":[..]}, printed when it is whole. Its records are kept as text,
/// which takes a third of the room.
class JsonList {
  public:
    explicit JsonList(std::string_view name);
    void add(const JsonValue& record);
    void print();

  private:
    std::string m_text;
    bool m_isEmpty = true;
};

// Readers for printing: the text of a member, its number as written, empty when absent or null.
std::string textOf(const JsonValue& object, std::string_view member);
/// The strings of an array member, joined by blanks.
std::string joined(const JsonValue& object, std::string_view member);

}  // namespace mervane::cli

#endif
