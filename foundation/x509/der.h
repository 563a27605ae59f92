#ifndef MERVANE_FOUNDATION_X509_DER_H
#define MERVANE_FOUNDATION_X509_DER_H

#include <bit>
#include <climits>
#include <cstdint>
#include <optional>
#include <span>

/// Reading DER (X.690) from hostile bytes.
///
/// Nothing is copied or allocated: a Cursor walks over bytes that the caller keeps alive, and hands
/// out views of them. Every length is checked against what is left before it is used.
///
///     der::Cursor fields(sequenceContent);
///     const auto oid = fields.read(der::kOid);  // nullopt if the next element is no OID
///     const auto value = oid ? fields.readAny() : std::nullopt;
///
/// A constructed element is not checked inside until a cursor is put on its content. Tags are one
/// octet; lengths below 4 GiB.
namespace mervane::der {

/// A view; whoever made it keeps the memory.
using Bytes = std::span<const std::uint8_t>;

/// @{
/// Identifier octets (X.690 8.1.2) of the types that certificates use.
inline constexpr std::uint8_t kBoolean = 0x01;
inline constexpr std::uint8_t kInteger = 0x02;
inline constexpr std::uint8_t kBitString = 0x03;
inline constexpr std::uint8_t kOctetString = 0x04;
inline constexpr std::uint8_t kOid = 0x06;
inline constexpr std::uint8_t kUtf8String = 0x0C;
inline constexpr std::uint8_t kNumericString = 0x12;
inline constexpr std::uint8_t kPrintableString = 0x13;
inline constexpr std::uint8_t kTeletexString = 0x14;
inline constexpr std::uint8_t kIa5String = 0x16;
inline constexpr std::uint8_t kUtcTime = 0x17;
inline constexpr std::uint8_t kGeneralizedTime = 0x18;
inline constexpr std::uint8_t kVisibleString = 0x1A;
inline constexpr std::uint8_t kUniversalString = 0x1C;
inline constexpr std::uint8_t kBmpString = 0x1E;
inline constexpr std::uint8_t kSequence = 0x30;
inline constexpr std::uint8_t kSet = 0x31;
/// @}

/// @{
/// Identifier octet of the context-specific tag [n], primitive and constructed; n < 31.
constexpr std::uint8_t context(unsigned n) noexcept {
    return static_cast<std::uint8_t>(0x80U | n);
}
constexpr std::uint8_t contextConstructed(unsigned n) noexcept {
    return static_cast<std::uint8_t>(0xA0U | n);
}
/// @}

/// One element.
struct Element {
    std::uint8_t tag = 0;  ///< identifier octet
    Bytes content;         ///< without identifier and length
    Bytes whole;           ///< identifier, length and content octets
};

/// Reads one element after another. Only moves forward; a failed read does not move it.
///
/// Only definite lengths are accepted (X.690 10.1). A length in more octets than needed is not DER
/// but accepted, since such certificates are in use. Tags above 30, which take more than one octet,
/// do not occur in certificates and are refused.
class Cursor {
  public:
    /// Before the first element of `bytes`.
    constexpr explicit Cursor(Bytes bytes) noexcept : m_rest(bytes) {}

    /// Whether nothing is left to read.
    [[nodiscard]] constexpr bool atEnd() const noexcept { return m_rest.empty(); }
    /// Whether the next element has this tag; it may still be malformed.
    [[nodiscard]] constexpr bool nextIs(std::uint8_t tag) const noexcept {
        return !m_rest.empty() && m_rest.front() == tag;
    }

    /// Reads the next element, of any type; nullopt at the end or if it is malformed.
    constexpr std::optional<Element> readAny() noexcept {
        if (m_rest.size() < 2 || (m_rest[0] & 0x1FU) == 0x1F) return std::nullopt;
        std::size_t headSize = 2;
        std::size_t size = m_rest[1];
        if (size >= 0x80) {
            const std::size_t numOctets = size & 0x7FU;  // 0: indefinite form
            if (numOctets == 0 || numOctets > m_rest.size() - 2) return std::nullopt;
            headSize += numOctets;
            size = 0;
            for (const std::uint8_t octet : m_rest.subspan(2, numOctets)) {
                if (size > kMaxSize) return std::nullopt;
                size = size << 8 | octet;
            }
        }
        if (size > m_rest.size() - headSize) return std::nullopt;
        const Element element{m_rest[0], m_rest.subspan(headSize, size),
                              m_rest.first(headSize + size)};
        m_rest = m_rest.subspan(headSize + size);
        return element;
    }

    /// Reads the next element if it has this tag; nullopt otherwise.
    constexpr std::optional<Element> read(std::uint8_t tag) noexcept {
        return nextIs(tag) ? readAny() : std::nullopt;
    }

    /// Skips the next element if it has this tag. False only if it does and is malformed.
    [[nodiscard]] constexpr bool skipOptional(std::uint8_t tag) noexcept {
        return !nextIs(tag) || readAny().has_value();
    }

  private:
    // Above any buffer read here; keeps the shift above from overflowing.
    static constexpr std::size_t kMaxSize = 0xFFFFFFFFU;

    Bytes m_rest;
};

/// A cursor over the content of the first element of `bytes`; nullopt unless it has this tag.
constexpr std::optional<Cursor> enter(Bytes bytes, std::uint8_t tag) noexcept {
    const auto element = Cursor(bytes).read(tag);
    return element ? std::optional(Cursor(element->content)) : std::nullopt;
}

/// The octets of a BIT STRING, given its content; nullopt if the number of bits is not a multiple
/// of eight (X.690 8.6.2: the first octet counts the unused bits).
constexpr std::optional<Bytes> wholeOctets(Bytes bitString) noexcept {
    if (bitString.empty() || bitString[0] != 0) return std::nullopt;
    return bitString.subspan(1);
}

/// A non-negative INTEGER's content without leading zeros; zero has none.
constexpr Bytes magnitude(Bytes integer) noexcept {
    while (!integer.empty() && integer.front() == 0) integer = integer.subspan(1);
    return integer;
}

/// The size in bits of a non-negative INTEGER's content; INT_MAX if it is beyond that.
constexpr int bitCount(Bytes integer) noexcept {
    const Bytes octets = magnitude(integer);
    if (octets.empty()) return 0;
    if (octets.size() > INT_MAX / 8) return INT_MAX;
    return static_cast<int>((octets.size() - 1) * 8) + std::bit_width(octets.front());
}

}  // namespace mervane::der

#endif
