// readers, atr and card-data, which need no module.

#include "cards.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include <mervane/foundation/text/ascii.h>

#include "commands.h"
#include "failure.h"
#include "output.h"
#include "words.h"

namespace mervane::cli {
namespace {

constexpr const char* kNoDriver = "no Linux module is known";

// Accepts an ATR as people paste it: "3B 6D 00", "3b:6d:00", "0x3B6D00"; and X for a digit, as the
// card database writes those that differ from card to card.
std::string cleanedAtr(const std::string& pasted) {
    const auto digits = hexDigits(pasted, "X");
    if (!digits || digits->size() % 2 != 0)
        throw CommandError{
            Exit::Usage, "Not an ATR in hexadecimal: " + printable(trimmed(pasted)) + ".", {}};
    return *digits;
}

CardInfo cardWith(ClsPkcs11& p11, const std::string& atr) {
    CardInfo card;
    if (!findCardInfo(atr, card, p11.log()))
        throw CommandError{Exit::Module, printable(p11.log().firstError()), {}};
    return card;
}

CardInfo cardIn(ClsPkcs11& p11, const CardReader& reader) {
    return reader.atr.empty() ? CardInfo() : cardWith(p11, reader.atr);
}

std::string driverFor(const CardInfo& card) {
    if (card.paths.empty()) return kNoDriver;
    const bool isAny = std::ranges::any_of(card.paths, isInstalled);
    return card.driver + (isAny ? "" : " (not installed)");
}

std::string cardFor(const CardReader& reader, const CardInfo& card) {
    switch (reader.card) {
        case CardReader::Card::None:
            return "none";
        case CardReader::Card::Mute:
            return "does not answer";
        case CardReader::Card::Present:
            return card.isKnown ? card.name : "unknown";
        default:
            return "the reader does not say";
    }
}

// Null for a card that is not known.
JsonValue toJson(const CardInfo& card) {
    if (!card.isKnown) return {};
    JsonValue out = JsonValue::object();
    out.set("name", card.name);
    out.set("readOnly", card.isReadOnly);
    out.set("driver", card.driver.empty() ? JsonValue() : JsonValue(card.driver));
    JsonValue& paths = out.set("paths", JsonValue::array());
    for (const std::string& path : card.paths) {
        JsonValue& entry = paths.append(JsonValue::object());
        entry.set("path", path);
        entry.set("exists", isInstalled(path));
    }
    return out;
}

JsonValue toJson(ClsPkcs11& p11, const CardReader& reader) {
    JsonValue out = JsonValue::object();
    out.set("name", reader.name);
    out.set("card", nameOf(reader.card));
    out.set("atr", reader.atr.empty() ? JsonValue() : JsonValue(reader.atr));
    out.set("inUse", reader.isInUse);
    out.set("known", toJson(cardIn(p11, reader)));
    return out;
}

ReaderList readersNow(ClsPkcs11& p11) {
    ReaderList list;
    if (!listReaders(list, p11.log())) throw std::bad_alloc();
    return list;
}

// A card, and where it was seen.
struct SeenCard {
    std::string reader{};  // empty if the ATR was given
    std::string atr;
    CardInfo info{};
};

SeenCard cardWithAtr(ClsPkcs11& p11, const Options& options) {
    std::string pasted;
    // An ATR pasted without quotes arrives as one argument per byte.
    for (const std::string& word : options.arguments) pasted.append(word).push_back(' ');
    SeenCard card{.atr = cleanedAtr(pasted)};
    card.info = cardWith(p11, card.atr);
    if (!card.info.isKnown)
        throw CommandError{Exit::NotFound, "No card with this ATR is known.",
                           "OpenSC's module (opensc-pkcs11) serves many cards; try that."};
    return card;
}

std::vector<SeenCard> cardsInReaders(ClsPkcs11& p11) {
    const ReaderList list = readersNow(p11);
    if (list.state != PcscState::Ready)
        throw CommandError{list.state == PcscState::Failed ? Exit::Module : Exit::NoToken,
                           whyNoReaders(list), readersHint(list)};
    std::vector<SeenCard> cards;
    for (const CardReader& reader : list.readers) {
        if (reader.atr.empty()) continue;
        cards.push_back({reader.name, reader.atr, cardWith(p11, reader.atr)});
    }
    if (cards.empty())
        throw CommandError{Exit::NoToken, "No reader holds a card that answers.",
                           "mervane-p11 readers tells what each reader sees."};
    return cards;
}

void printCard(const SeenCard& card) {
    std::vector<std::pair<std::string, std::string>> fields;
    if (!card.reader.empty()) {
        fields.emplace_back("Reader", card.reader);
        fields.emplace_back("ATR", card.atr);
    }
    fields.emplace_back("Card", card.info.isKnown ? card.info.name : "unknown");
    if (card.info.isKnown) fields.emplace_back("Read-only", card.info.isReadOnly ? "yes" : "no");
    for (const std::string& path : card.info.paths)
        fields.emplace_back("Module", path + (isInstalled(path) ? "" : " (not installed)"));
    if (card.info.paths.empty()) {
        if (card.info.isKnown) fields.emplace_back("Module", kNoDriver);
        fields.emplace_back("Try",
                            "OpenSC's module (package opensc-pkcs11), which serves many cards");
    }
    printFields(fields);
}

}  // namespace

bool isInstalled(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

std::string whyNoReaders(const ReaderList& list) {
    switch (list.state) {
        case PcscState::NoLibrary:
            return "The PC/SC library cannot be loaded (" + printable(list.reason) + ").";
        case PcscState::NoDaemon:
            return "The PC/SC daemon is not running.";
        case PcscState::NoReader:
            return "There is no card reader.";
        default:
            return "The readers cannot be listed (" + printable(list.reason) + ").";
    }
}

std::string readersHint(const ReaderList& list) {
    switch (list.state) {
        case PcscState::NoLibrary:
            return "Install the packages libpcsclite1 and pcscd.";
        case PcscState::NoDaemon:
            return "Install the package pcscd, or start it: systemctl start pcscd.socket.";
        case PcscState::NoReader:
            return "Is it plugged in? USB readers need the package libccid.";
        default:
            return "Restart the daemon: systemctl restart pcscd.";
    }
}

Exit runReaders(ClsPkcs11& p11, const Options& options) {
    const ReaderList list = readersNow(p11);
    if (options.json) {
        JsonValue document = JsonValue::object();
        document.set("pcsc", nameOf(list.state));
        document.set("reason", list.reason.empty() ? JsonValue() : JsonValue(list.reason));
        JsonValue& readers = document.set("readers", JsonValue::array());
        for (const CardReader& reader : list.readers) readers.append(toJson(p11, reader));
        printJson(document);
    } else if (!list.readers.empty()) {
        Table table({"READER", "CARD", "ATR", "DRIVER"});
        for (const CardReader& reader : list.readers) {
            const auto card = cardIn(p11, reader);
            table.add({reader.name, cardFor(reader, card), reader.atr,
                       card.isKnown ? driverFor(card) : std::string()});
        }
        table.print(options.wide ? 0 : terminalWidth());
    }
    if (list.state == PcscState::Ready) return Exit::Done;
    remark(whyNoReaders(list) + " " + readersHint(list));
    return list.state == PcscState::Failed ? Exit::Module : Exit::NoToken;
}

Exit runAtr(ClsPkcs11& p11, const Options& options) {
    std::vector<SeenCard> cards =
        options.arguments.empty() ? cardsInReaders(p11) : std::vector{cardWithAtr(p11, options)};
    if (options.json && !options.arguments.empty()) {
        printJson(toJson(cards.front().info));
        return Exit::Done;
    }
    if (options.json) {
        JsonPrinter document;
        document.beginList("cards");
        for (const SeenCard& card : cards) {
            JsonValue item = JsonValue::object();
            item.set("reader", card.reader);
            item.set("atr", card.atr);
            item.set("known", toJson(card.info));
            document.item(item);
        }
        document.endList();
        document.finish();
    } else {
        for (const SeenCard& card : cards) printCard(card);
    }
    const bool isAnyKnown =
        std::ranges::any_of(cards, [](const SeenCard& card) { return card.info.isKnown; });
    return isAnyKnown ? Exit::Done : Exit::NotFound;
}

Exit runCardData(ClsPkcs11& p11, const Options&) {
    ClsJsonObject document;
    if (!ClsPkcs11::GetCardDataJson(document, p11.log()))
        throw CommandError{Exit::Module, p11.log().firstError(), {}};
    printJson(document.root());
    return Exit::Done;
}

}  // namespace mervane::cli
