#ifndef MERVANE_PKCS11_CALLS_ATTRS_H
#define MERVANE_PKCS11_CALLS_ATTRS_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "foundation/x509/der.h"
#include "pkcs11/calls/calls.h"
#include "pkcs11/records.h"

namespace mervane {

enum class AttrKind : unsigned char { Bytes, Number, Flag };

/// An attribute to read, with the room that a value of bytes is offered in the first call.
struct AttrRow {
    CK_ATTRIBUTE_TYPE type;
    AttrKind kind;
    std::size_t room = 0;
};

/// Reads the same attributes of one object after another, each object in one C_GetAttributeValue
/// if everything fits. An attribute that the object lacks, keeps secret, or that the module lies
/// about is absent; it never costs the others. A value may be at most 1 MiB long, and all values
/// beyond the common room 64 MiB together. attrs.cpp tells how the truth is told from a lie.
class ObjectReader {
  public:
    /// `rows` is kept by reference; at most 16.
    ObjectReader(Calls& calls, std::span<const AttrRow> rows);

    /// False, with an error line, if the object cannot be read at all.
    [[nodiscard]] bool read(CK_OBJECT_HANDLE object, LogBase& log);

    // The value of a row of the object read last; nothing if absent. Bytes are valid until the next
    // read.
    [[nodiscard]] std::optional<der::Bytes> bytes(std::size_t row) const;
    [[nodiscard]] std::optional<CK_ULONG> number(std::size_t row) const;
    [[nodiscard]] std::optional<bool> flag(std::size_t row) const;

    /// The bytes of a row; empty if absent.
    [[nodiscard]] der::Bytes bytesOrNone(std::size_t row) const {
        return bytes(row).value_or(der::Bytes());
    }

  private:
    static constexpr std::size_t kMaxRows = 16;

    enum class State : unsigned char {
        Absent,
        Present,
        Unsettled,  // to be asked for again, alone
        TooLong,    // to be asked for with room of its own length
    };

    void prepare();
    [[nodiscard]] State judge(std::size_t row, const CK_ATTRIBUTE& answer,
                              std::span<std::uint8_t> room, std::uint8_t fill, CK_RV rv);
    [[nodiscard]] State readAlone(std::size_t row, CK_OBJECT_HANDLE object, LogBase& log);
    [[nodiscard]] State readLong(std::size_t row, CK_OBJECT_HANDLE object, LogBase& log);
    [[nodiscard]] std::optional<CK_RV> askForOne(CK_OBJECT_HANDLE object, CK_ATTRIBUTE& attribute,
                                                 LogBase& log);
    [[nodiscard]] std::span<std::uint8_t> roomOf(std::size_t row) noexcept;
    void settle(std::size_t row, State state);
    void logMalformed(CK_OBJECT_HANDLE object, LogBase& log) const;

    Calls& m_calls;
    std::span<const AttrRow> m_rows;
    Pkcs11_Attributes m_record;
    std::vector<std::uint8_t> m_room;              // of all rows of bytes, one after the other
    std::array<std::size_t, kMaxRows> m_roomAt{};  // where a row's bytes begin in m_room
    std::array<CK_ATTRIBUTE, kMaxRows> m_attributes{};
    std::array<der::Bytes, kMaxRows> m_values{};  // of the rows present
    std::array<bool, kMaxRows> m_present{};
    std::size_t m_longTotal = 0;  // bytes of values beyond the common room, in all objects read
};

}  // namespace mervane

#endif
