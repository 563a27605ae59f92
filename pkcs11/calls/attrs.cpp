// Reading attributes, from modules that may lie.
//
// One C_GetAttributeValue reads one object: each attribute gets room up front, and the answer is
// judged attribute by attribute. The standard has five outcomes for each (PKCS#11 2.40 base,
// C_GetAttributeValue), which return value and length tell apart; next to each, what a module does
// that follows the standard loosely or not at all, and how that is told from the true thing:
//
//   1. sensitive    length -1, CKR_ATTRIBUTE_SENSITIVE for the whole call: absent
//   2. not there    length -1, CKR_ATTRIBUTE_TYPE_INVALID for the whole call: absent
//   3. no room      length -1 or the length needed, CKR_BUFFER_TOO_SMALL: asked again alone
//   4. written      the length written, and CKR_OK or one of the three codes above, which then
//                   concern another attribute: present
//   5. an error     any other code: nothing of the object counts
//
// A code of the whole call does not say which attribute it is about. So length and room decide:
//
//   - A value of bytes without a length is asked for its length alone, whatever the code: if one
//     attribute is too long and another is missing, most modules report the missing one.
//   - The room is preset to a byte that neither DER nor identifiers begin with in a row. What still
//     stands there was not written, whatever the length says. A genuine run of the fill byte
//     survives: it is read again over a different fill.
//   - A module that gives up at an earlier attribute leaves the length at what was offered. With a
//     code other than CKR_OK, a length of exactly the room is asked again.
//   - Numbers and flags have one size. Any other is absent, and is never read.
//   - A module that puts its own pointer or another type into the array has said nothing.
//
// What the next reader would get wrong: a length is checked against the room that was offered,
// never the other way round, and a missing attribute costs its neighbours nothing.

#include "pkcs11/calls/attrs.h"

#include <algorithm>
#include <cstring>

#include "foundation/text/hex.h"

namespace mervane {
namespace {

constexpr std::size_t kMaxValue = std::size_t{1024} * 1024;

// All that long values of one list may take together; far beyond what tokens hold.
constexpr std::size_t kMaxLongTotal = std::size_t{64} * 1024 * 1024;

// What room is preset to, at the first reading and at the second.
constexpr std::uint8_t kUnwritten = 0xFF;
constexpr std::uint8_t kUnwrittenAgain = 0xA5;

// A value of a length that did not fit the common room.
class LongValue final : public NonRefCountedObj {
  public:
    explicit LongValue(std::size_t size) : bytes(size) {}
    std::vector<std::uint8_t> bytes;
};

// With these codes the other attributes of the call are given.
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

// Is the attribute present? Decided here, for each of the ways in which it is asked for.
ObjectReader::State ObjectReader::judge(std::size_t row, const CK_ATTRIBUTE& answer,
                                        std::span<std::uint8_t> room, std::uint8_t fill, CK_RV rv) {
    if (rv != CKR_OK && !isPartial(rv)) return State::Absent;
    if (answer.pValue != room.data() || answer.type != m_rows[row].type) {
        m_record.m_malformed.appendString(toHexNumber(m_rows[row].type));
        return State::Absent;
    }
    const bool isUnavailable = answer.ulValueLen == CK_UNAVAILABLE_INFORMATION;
    if (m_rows[row].kind != AttrKind::Bytes) {
        // A fixed size fits, so that "too small" says nothing about this one.
        if (isUnavailable && rv == CKR_BUFFER_TOO_SMALL) return State::Unsettled;
        if (answer.ulValueLen != room.size()) return State::Absent;
    } else {
        if (isUnavailable) return rv == CKR_OK ? State::Absent : State::TooLong;
        if (answer.ulValueLen > room.size()) return State::TooLong;
        if (answer.ulValueLen == room.size() && rv != CKR_OK) return State::Unsettled;
    }
    if (isUntouched(room, answer.ulValueLen, fill)) return State::Unsettled;
    m_values[row] = room.first(answer.ulValueLen);
    return State::Present;
}

void ObjectReader::settle(std::size_t row, State state) {
    m_present[row] = state == State::Present;
    ++(m_present[row] ? m_record.m_numPresent : m_record.m_numAbsent);
}

bool ObjectReader::read(CK_OBJECT_HANDLE object, LogBase& log) {
    prepare();
    const auto rv = m_calls.ask(log, function::kGetAttributeValue, object, m_attributes.data(),
                                static_cast<CK_ULONG>(m_rows.size()));
    m_record.m_wasPartial = rv && isPartial(*rv);
    if (!rv ||
        (!m_record.m_wasPartial && !m_calls.reportLoss(function::kGetAttributeValue, *rv, log))) {
        log.LogDataUnsigned("objectHandle", object);
        m_calls.leaveOut(object);
        return false;
    }
    m_calls.wasRead(object);
    for (std::size_t i = 0; i < m_rows.size(); ++i) {
        State state = judge(i, m_attributes[i], roomOf(i), kUnwritten, *rv);
        if (state == State::Unsettled) state = readAlone(i, object, log);
        if (state == State::TooLong) state = readLong(i, object, log);
        settle(i, state);
    }
    logMalformed(object, log);
    return m_calls.hasOpenSession();
}

std::optional<CK_RV> ObjectReader::askForOne(CK_OBJECT_HANDLE object, CK_ATTRIBUTE& attribute,
                                             LogBase& log) {
    return m_calls.attempt(log, function::kGetAttributeValue, object, &attribute, CK_ULONG{1});
}

ObjectReader::State ObjectReader::readAlone(std::size_t row, CK_OBJECT_HANDLE object,
                                            LogBase& log) {
    ++m_record.m_numAskedAgain;
    const auto room = roomOf(row);
    preset(room, kUnwrittenAgain);
    CK_ATTRIBUTE& attribute = m_attributes[row];
    attribute = {m_rows[row].type, room.data(), room.size()};
    const auto rv = askForOne(object, attribute, log);
    const State state = rv ? judge(row, attribute, room, kUnwrittenAgain, *rv) : State::Absent;
    return state == State::Unsettled ? State::Absent : state;
}

ObjectReader::State ObjectReader::readLong(std::size_t row, CK_OBJECT_HANDLE object, LogBase& log) {
    ++m_record.m_numAskedAgain;
    CK_ATTRIBUTE attribute = {m_rows[row].type, nullptr, m_attributes[row].ulValueLen};
    if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
        attribute.ulValueLen = 0;
        if (askForOne(object, attribute, log) != CKR_OK) return State::Absent;
    }
    if (attribute.ulValueLen > kMaxValue || m_longTotal + attribute.ulValueLen > kMaxLongTotal) {
        m_record.m_malformed.appendString(toHexNumber(m_rows[row].type));
        return State::Absent;
    }
    m_longTotal += attribute.ulValueLen;
    auto value = std::make_unique<LongValue>(attribute.ulValueLen);
    preset(value->bytes, kUnwritten);
    attribute = {m_rows[row].type, value->bytes.data(), value->bytes.size()};
    const auto rv = askForOne(object, attribute, log);
    // A value of the room's length is what was asked for.
    const bool isGiven =
        rv == CKR_OK && judge(row, attribute, value->bytes, kUnwritten, *rv) == State::Present;
    if (isGiven) m_record.m_longValues.appendObject(std::move(value));
    return isGiven ? State::Present : State::Absent;
}

void ObjectReader::logMalformed(CK_OBJECT_HANDLE object, LogBase& log) const {
    if (m_record.m_malformed.getSize() == 0) return;
    log.LogDataUnsigned("malformedAttributesOfObject", object);
    for (int i = 0; i < m_record.m_malformed.getSize(); ++i) {
        log.LogDataSb("attributeType", *m_record.m_malformed.sbAt(i));
    }
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
