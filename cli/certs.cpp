// certs and match.
//
// Everything is asked of the module before the first line is printed, so that a failure leaves no
// half-printed list. The output is made one certificate at a time: a hostile one can turn every
// byte into a page of text.

#include <algorithm>
#include <array>
#include <iostream>
#include <span>

#include <mervane/locate/uri.h>

#include "certview.h"
#include "commands.h"
#include "output.h"
#include "token.h"

namespace mervane::cli {
namespace {

// One line of a table.
struct Row {
    ClsCert& cert;
    int index;
    const KeyView& key;
    const TokenInfo& token;
};

struct Column {
    std::string_view heading;
    std::string (*cell)(const Row& row);
};

using Columns = std::span<const Column>;

std::string indexCell(const Row& row) {
    return std::to_string(row.index);
}
std::string certUriCell(const Row& row) {
    return uriOfCert(row.token, row.cert).text();
}
std::string keyUriCell(const Row& row) {
    const auto uri = row.key.link ? uriOfKey(row.token, row.cert) : std::nullopt;
    return uri ? uri->text() : std::string();
}
template <std::string (*text)(ClsCert&)>
std::string certCell(const Row& row) {
    return text(row.cert);
}
template <std::string (*text)(const KeyView&)>
std::string keyCell(const Row& row) {
    return text(row.key);
}
template <void (ClsCert::*reader)(XString&)>
std::string fieldCell(const Row& row) {
    XString text;
    (row.cert.*reader)(text);
    return std::string(text.view());
}

constexpr std::array kWideCerts = {
    Column{"#", indexCell},
    Column{"SUBJECT", certCell<subjectFor>},
    Column{"KEY", certCell<keyFor>},
    Column{"SERIAL", fieldCell<&ClsCert::get_SerialNumber>},
    Column{"NOT AFTER", fieldCell<&ClsCert::get_NotAfter>},
    Column{"ID", fieldCell<&ClsCert::get_CkaId>},
    Column{"LABEL", fieldCell<&ClsCert::get_Label>},
    Column{"URI", certUriCell},
};
constexpr std::array kWideMatch = {
    Column{"#", indexCell},
    Column{"SUBJECT", certCell<subjectFor>},
    Column{"KEY", certCell<keyFor>},
    Column{"ID", fieldCell<&ClsCert::get_CkaId>},
    Column{"PRIVATE KEY", keyCell<privateKeyFor>},
    Column{"FOUND BY", keyCell<foundByFor>},
    Column{"SIGNS", keyCell<signsFor>},
    Column{"URI", certUriCell},
    Column{"KEY URI", keyUriCell},
};
// What people want to know first, within the width of a terminal.
constexpr std::array kNarrow = {
    Column{"WHO", certCell<whoFor>},     Column{"ISSUER", fieldCell<&ClsCert::get_IssuerCN>},
    Column{"USE", certCell<useFor>},     Column{"KEY", certCell<keyFor>},
    Column{"UNTIL", certCell<untilFor>}, Column{"SIGNS", keyCell<signsFor>},
};

// The certificates of the token, and the key of each if they are matched.
class Listing {
  public:
    Listing(ClsPkcs11& p11, const Options& options, bool isMatched)
        : m_p11(p11), m_options(options), m_isMatched(isMatched) {}

    Exit run() {
        m_opened = openToken(m_p11, m_options, m_isMatched ? LoginIf::Needed : LoginIf::Told);
        if (!m_p11.FindAllCerts()) throwLastFailure(m_p11);
        m_numLeftOut = m_p11.get_NumLeftOut();
        for (int i = 0; m_isMatched && i < m_p11.get_NumCerts(); ++i) match(i);
        m_numLeftOut += m_numKeysLeftOut;
        m_options.json ? printJson() : printTable();
        sayLeftOut(m_numLeftOut);
        sayWhatIsUncertain();
        return Exit::Done;
    }

  private:
    void take(int index, ClsCert& cert) {
        if (!m_p11.GetCert(index, cert)) throwLastFailure(m_p11);
    }

    void match(int index) {
        ClsCert cert;
        take(index, cert);
        m_numKeysLeftOut = std::max(m_numKeysLeftOut, linkKey(m_p11, cert, m_options));
        m_keys.push_back(
            keyViewOf(m_p11, cert, m_opened.token, m_opened.isLoggedIn, m_options.explain));
    }

    [[nodiscard]] const KeyView* keyAt(int index) const {
        return m_isMatched ? &m_keys.at(static_cast<std::size_t>(index)) : nullptr;
    }

    void printJson() {
        JsonPrinter document;
        document.member("loggedIn", JsonValue(m_opened.isLoggedIn));
        document.beginList("certs");
        for (int i = 0; i < m_p11.get_NumCerts(); ++i) {
            ClsCert cert;
            take(i, cert);
            document.beginItem();
            printCert(document, cert, {i, m_opened.token, m_options.pem}, keyAt(i));
            document.endItem();
        }
        document.endList();
        if (m_numLeftOut != 0) document.member("leftOut", JsonValue(m_numLeftOut));
        document.finish();
    }

    void printTable() {
        const std::size_t width = m_options.wide ? 0 : terminalWidth();
        const auto columns = width == 0
                                 ? (m_isMatched ? Columns(kWideMatch) : Columns(kWideCerts))
                                 : Columns(kNarrow).first(kNarrow.size() - (m_isMatched ? 0 : 1));
        std::vector<std::string> heading;
        for (const Column& column : columns) heading.emplace_back(column.heading);
        Table table(std::move(heading));
        const KeyView noKey;
        for (int i = 0; i < m_p11.get_NumCerts(); ++i) {
            ClsCert cert;
            take(i, cert);
            const KeyView* const key = keyAt(i);
            std::vector<std::string> cells;
            for (const Column& column : columns)
                cells.push_back(
                    column.cell({cert, i, key == nullptr ? noKey : *key, m_opened.token}));
            table.add(std::move(cells));
        }
        table.print(width);
        for (std::size_t i = 0; i < m_keys.size(); ++i) {
            for (const std::string& line : explanationFor(m_keys[i]))
                std::cout << "certificate " << i << ", " << line << '\n';
        }
    }

    void sayWhatIsUncertain() const {
        const auto number = [this](auto isOne) { return std::ranges::count_if(m_keys, isOne); };
        if (number([](const KeyView& key) { return key.state == KeyView::State::Unknown; }) != 0)
            remark("The user is not logged in, so private keys may be hidden; --login shows them.");
        if (number([](const KeyView& key) { return key.isGuess(); }) != 0)
            remark("Nothing shows that a key marked GUESS belongs to its certificate.");
    }

    ClsPkcs11& m_p11;
    const Options& m_options;
    bool m_isMatched;
    OpenedToken m_opened;
    std::vector<KeyView> m_keys;
    int m_numLeftOut = 0;
    int m_numKeysLeftOut = 0;  // the same ones for every certificate that meets them
};

}  // namespace

Exit runCerts(ClsPkcs11& p11, const Options& options) {
    return Listing(p11, options, false).run();
}

Exit runMatch(ClsPkcs11& p11, const Options& options) {
    return Listing(p11, options, true).run();
}

}  // namespace mervane::cli
