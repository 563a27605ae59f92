#include "foundation/json/writer.h"

#include "foundation/text/jsonstring.h"

namespace mervane {
namespace {

class Writer {
  public:
    Writer(std::string& out, bool indented, std::size_t depth)
        : m_out(out), m_depth(depth), m_indented(indented) {}

    void write(const JsonValue& value) {
        if (const bool* const flag = value.asBool()) {
            m_out.append(*flag ? "true" : "false");
        } else if (const auto number = value.asNumber()) {
            m_out.append(*number);
        } else if (const auto text = value.asString()) {
            appendJsonString(m_out, *text);
        } else if (const JsonArray* const items = value.asArray()) {
            list('[', ']', *items, [this](const JsonValue& item) { write(item); });
        } else if (const JsonObject* const members = value.asObject()) {
            list('{', '}', *members, [this](const JsonMember& member) {
                appendJsonString(m_out, member.name());
                m_out.append(m_indented ? ": " : ":");
                write(member.value);
            });
        } else {
            m_out.append("null");
        }
    }

  private:
    template <class List, class WriteItem>
    void list(char open, char close, const List& items, const WriteItem& writeItem) {
        m_out.push_back(open);
        ++m_depth;
        bool first = true;
        for (const auto& item : items) {
            if (!first) m_out.push_back(',');
            first = false;
            newLine();
            writeItem(item);
        }
        --m_depth;
        if (!items.empty()) newLine();
        m_out.push_back(close);
    }

    void newLine() {
        if (m_indented) m_out.append("\n").append(m_depth * 2, ' ');
    }

    std::string& m_out;
    std::size_t m_depth;
    bool m_indented;
};

}  // namespace

void appendJsonText(std::string& out, const JsonValue& value, bool indented, std::size_t depth) {
    Writer(out, indented, depth).write(value);
}

std::string toJsonText(const JsonValue& value, bool indented) {
    std::string out;
    appendJsonText(out, value, indented);
    return out;
}

}  // namespace mervane
