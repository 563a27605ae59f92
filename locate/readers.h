#ifndef MERVANE_LOCATE_READERS_H
#define MERVANE_LOCATE_READERS_H

#include <string>
#include <string_view>
#include <vector>

#include "../foundation/log/logbase.h"

namespace mervane {

/// How far the search for card readers got.
enum class PcscState : unsigned char {
    Ready,      ///< there are readers
    NoLibrary,  ///< libpcsclite is not installed
    NoDaemon,   ///< pcscd is not running
    NoReader,
    Failed,  ///< for another reason
};

/// The state's name in JSON: ready, noLibrary, noDaemon, noReader, failed.
std::string_view nameOf(PcscState state) noexcept;

/// A card reader, and the card in it.
struct CardReader {
    /// What is in a reader.
    enum class Card : unsigned char {
        None,
        Mute,     ///< it does not answer: wrong way round, damaged, or no smart card
        Present,  ///< `atr` is what it answered
        Unknown,  ///< the reader does not say
    };

    std::string name;           ///< the daemon's, valid UTF-8
    Card card = Card::Unknown;  ///< what is in it
    std::string atr;            ///< upper-case hexadecimal
    bool isInUse = false;       ///< some program works with the card
};

/// The card's state in JSON: none, mute, present, unknown.
std::string_view nameOf(CardReader::Card card) noexcept;

/// What PC/SC shows.
struct ReaderList {
    PcscState state = PcscState::Failed;  ///< how far the search got
    std::string reason;               ///< of a state other than Ready, in a few words; may be empty
    std::vector<CardReader> readers;  ///< in the daemon's order
};

/// Lists the card readers of this machine. The card is not connected to, so no other program is
/// disturbed: the daemon knows its answer to reset. libpcsclite is loaded at the first call and
/// stays loaded. False, with a line in the log, only when there is no memory. Any thread; waits as
/// long as the daemon takes.
bool listReaders(ReaderList& list, LogBase& log);

/// What the card database knows of a card.
struct CardInfo {
    // Not inline: expanded at every use, they would bloat a program.
    /// @{
    /// Empty by default; copies are complete.
    CardInfo();
    CardInfo(const CardInfo& other);
    CardInfo(CardInfo&& other) noexcept;
    CardInfo& operator=(const CardInfo& other);
    CardInfo& operator=(CardInfo&& other) noexcept;
    ~CardInfo();
    /// @}

    bool isKnown = false;            ///< false: all below is empty
    std::string name;                ///< for people
    bool isReadOnly = false;         ///< nothing can be written to it
    std::string driver;              ///< its name
    std::vector<std::string> paths;  ///< of its module on Linux, best first; may be empty
};

/// Looks a card up by its ATR (hexadecimal, any case); `card` says whether it is known. False, with
/// a line in the log, when the card database could not be read. Unlike
/// ClsPkcs11::CardDataLookupAtr, knows a card for which no Linux module is known.
bool findCardInfo(std::string_view atr, CardInfo& card, LogBase& log);

}  // namespace mervane

#endif
