#include "pkcs11/calls/attrs.h"

#include <algorithm>
#include <cstring>

#include "foundation/text/hex.h"

namespace mervane {
namespace {

constexpr std::size_t kMaxValue = std::size_t{1024} * 1024;

// All that long values of one list may take together; far beyond what tokens hold.
constexpr std::size_t kMaxLongTotal = std::size_t{64} * 1024 * 1024;

// What room is preset to, so that a value which the module claims and did not write is told from
// one that it wrote. Should a value really be all of that, the second reading finds it over
// another.
constexpr std::uint8_t kUnwritten = 0xFF;
constexpr std::uint8_t kUnwrittenAgain = 0xA5;

// A value of a length that did not fit the common room.
class LongValue final : public NonRefCountedObj {
  public:
    explicit LongValue(std::size_t size) : bytes(size) {}
    std::vector<std::uint8_t> bytes;
};

// PKCS#11 2.40 base, C_GetAttributeValue: with these the other attributes of the call are given.
bool isPartial(CK_RV rv) noexcept {
    return rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_ATTRIBUTE_SENSITIVE ||
           rv == CKR_BUFFER_TOO_SMALL;
}

// The part of a room that is preset: enough for no DER and no identifier to begin like it.
std::span<std::uint8_t> startOf(std::span<std::uint8_t> room) noexcept {
    return room.first(std::min<std::size_t>(room.size(), 64));
}

void preset(std::span<std::uint8_t> room, std::uint8_t value) noexcept {
    std::ranges::fill(startOf(room), value);
}

// Whether a value of that length was not written into the room that was preset.
bool isUntouched(std::span<std::uint8_t> room, std::size_t length, std::uint8_t value) noexcept {
    const auto given = startOf(room.first(length));
    return length != 0 &&
           std::ranges::all_of(given, [value](std::uint8_t b) { return b == value; });
}

}  // namespace

void Pkcs11_Attributes::clearPkcs11Attrs() noexcept {
    m_longValues.removeAllObjects();
    m_malformed.removeAllSbs();
    m_numAsked = m_numPresent = m_numAbsent = m_numAskedAgain = 0;
    m_wasPartial = false;
}

ObjectReader::ObjectReader(Calls& calls, std::span<const AttrRow> rows)
    : m_calls(calls), m_rows(rows.first(std::min(rows.size(), kMaxRows))) {
    std::size_t size = 0;
    for (std::size_t i = 0; i < m_rows.size(); ++i) {
        m_roomAt[i] = size;
        if (m_rows[i].kind == AttrKind::Bytes) size += m_rows[i].room;
    }
    m_room.resize(size);
}

std::span<std::uint8_t> ObjectReader::roomOf(std::size_t row) noexcept {
    switch (m_rows[row].kind) {
        case AttrKind::Number:
            return std::span(m_record.m_fixed).subspan(row * sizeof(CK_ULONG), sizeof(CK_ULONG));
        case AttrKind::Flag:
            return std::span(m_record.m_fixed).subspan(row * sizeof(CK_ULONG), sizeof(CK_BBOOL));
        default:
            return std::span(m_room).subspan(m_roomAt[row], m_rows[row].room);
    }
}

void ObjectReader::prepare() {
    m_record.clearPkcs11Attrs();
    m_record.m_numAsked = static_cast<std::uint32_t>(m_rows.size());
    m_record.m_fixed.fill(kUnwritten);
    for (std::size_t i = 0; i < m_rows.size(); ++i) {
        const auto room = roomOf(i);
        if (m_rows[i].kind == AttrKind::Bytes) preset(room, kUnwritten);
        m_attributes[i] = {m_rows[i].type, room.data(), room.size()};
    }
    m_present.fill(false);
}

ObjectReader::State ObjectReader::judge(std::size_t row, CK_RV rv) {
    const CK_ATTRIBUTE& given = m_attributes[row];
    const auto room = roomOf(row);
    if (given.pValue != room.data() || given.type != m_rows[row].type) {
        m_record.m_malformed.appendString(toHexNumber(m_rows[row].type));
        return State::Absent;
    }
    const bool isUnavailable = given.ulValueLen == CK_UNAVAILABLE_INFORMATION;
    if (m_rows[row].kind != AttrKind::Bytes) {
        // A fixed size fits, so that "too small" says nothing about this one.
        if (isUnavailable && rv == CKR_BUFFER_TOO_SMALL) return State::AskAgain;
        if (given.ulValueLen != room.size()) return State::Absent;
    } else {
        if (isUnavailable) return rv == CKR_BUFFER_TOO_SMALL ? State::TooLong : State::Absent;
        if (given.ulValueLen > room.size()) return State::TooLong;
        // A module that gave up at an earlier attribute has not touched this one.
        if (given.ulValueLen == room.size() && rv != CKR_OK) return State::AskAgain;
    }
    if (isUntouched(room, given.ulValueLen, kUnwritten)) return State::AskAgain;
    m_values[row] = room.first(given.ulValueLen);
    return State::Present;
}

void ObjectReader::settle(std::size_t row, State state) {
    m_present[row] = state == State::Present;
    ++(m_present[row] ? m_record.m_numPresent : m_record.m_numAbsent);
}

bool ObjectReader::read(CK_OBJECT_HANDLE object, LogBase& log) {
    prepare();
    const auto rv = m_calls.ask(log, entry::kGetAttributeValue, object, m_attributes.data(),
                                static_cast<CK_ULONG>(m_rows.size()));
    m_record.m_wasPartial = rv && isPartial(*rv);
    if (!rv || (!m_record.m_wasPartial && !m_calls.report(entry::kGetAttributeValue, *rv, log))) {
        log.LogDataUnsigned("objectHandle", object);
        return false;
    }
    // Judged all before any is asked for again, which changes the array.
    std::array<State, kMaxRows> states{};
    for (std::size_t i = 0; i < m_rows.size(); ++i) states[i] = judge(i, *rv);
    for (std::size_t i = 0; i < m_rows.size(); ++i) {
        if (states[i] == State::AskAgain) states[i] = readAlone(i, object, log);
        if (states[i] == State::TooLong) states[i] = readLong(i, object, log);
        settle(i, states[i]);
    }
    if (m_record.m_malformed.getSize() != 0) {
        log.LogDataUnsigned("malformedAttributesOfObject", object);
        for (int i = 0; i < m_record.m_malformed.getSize(); ++i) {
            log.LogDataSb("attributeType", *m_record.m_malformed.sbAt(i));
        }
    }
    return m_calls.hasOpenSession();
}

ObjectReader::State ObjectReader::readAlone(std::size_t row, CK_OBJECT_HANDLE object,
                                            LogBase& log) {
    ++m_record.m_numAskedAgain;
    const auto room = roomOf(row);
    preset(room, kUnwrittenAgain);
    CK_ATTRIBUTE& attribute = m_attributes[row];
    attribute = {m_rows[row].type, room.data(), room.size()};
    const auto rv =
        m_calls.attempt(log, entry::kGetAttributeValue, object, &attribute, CK_ULONG{1});
    if (rv == CKR_BUFFER_TOO_SMALL && m_rows[row].kind == AttrKind::Bytes) return State::TooLong;
    if (rv != CKR_OK || attribute.ulValueLen > room.size()) return State::Absent;
    const bool isFixed = m_rows[row].kind != AttrKind::Bytes;
    if (isFixed && attribute.ulValueLen != room.size()) return State::Absent;
    if (isUntouched(room, attribute.ulValueLen, kUnwrittenAgain)) return State::Absent;
    m_values[row] = room.first(attribute.ulValueLen);
    return State::Present;
}

ObjectReader::State ObjectReader::readLong(std::size_t row, CK_OBJECT_HANDLE object, LogBase& log) {
    ++m_record.m_numAskedAgain;
    CK_ATTRIBUTE attribute = {m_rows[row].type, nullptr, m_attributes[row].ulValueLen};
    if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
        attribute.ulValueLen = 0;
        const auto rv =
            m_calls.attempt(log, entry::kGetAttributeValue, object, &attribute, CK_ULONG{1});
        if (rv != CKR_OK) return State::Absent;
    }
    if (attribute.ulValueLen > kMaxValue || m_longTotal + attribute.ulValueLen > kMaxLongTotal) {
        m_record.m_malformed.appendString(toHexNumber(m_rows[row].type));
        return State::Absent;
    }
    m_longTotal += attribute.ulValueLen;
    auto value = std::make_unique<LongValue>(attribute.ulValueLen);
    preset(value->bytes, kUnwritten);
    attribute = {m_rows[row].type, value->bytes.data(), value->bytes.size()};
    const auto rv =
        m_calls.attempt(log, entry::kGetAttributeValue, object, &attribute, CK_ULONG{1});
    if (rv != CKR_OK || attribute.ulValueLen > value->bytes.size() ||
        isUntouched(value->bytes, attribute.ulValueLen, kUnwritten)) {
        return State::Absent;
    }
    m_values[row] = der::Bytes(value->bytes).first(attribute.ulValueLen);
    m_record.m_longValues.appendObject(std::move(value));
    return State::Present;
}

std::optional<der::Bytes> ObjectReader::bytes(std::size_t row) const {
    return m_present[row] ? std::optional(m_values[row]) : std::nullopt;
}

std::optional<CK_ULONG> ObjectReader::number(std::size_t row) const {
    if (!m_present[row]) return std::nullopt;
    CK_ULONG value = 0;
    std::memcpy(&value, m_values[row].data(), sizeof value);
    return value == CK_UNAVAILABLE_INFORMATION ? std::nullopt : std::optional(value);
}

std::optional<bool> ObjectReader::flag(std::size_t row) const {
    // CK_TRUE is 1, but any value other than CK_FALSE is meant as true where it occurs.
    return m_present[row] ? std::optional(m_values[row][0] != CK_FALSE) : std::nullopt;
}

}  // namespace mervane
