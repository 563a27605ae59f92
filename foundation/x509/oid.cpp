#include "foundation/x509/oid.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <vector>

namespace mervane {
namespace {

constexpr std::size_t kMaxOctets = 128;  // bounds the quadratic work on a single huge arc

// An arc of any size in decimal, digit by digit: those made from UUIDs (ITU-T X.667) need 128 bits.
class DecimalArc {
  public:
    void appendSevenBits(unsigned bits) {
        for (std::uint8_t& digit : m_digits) {
            const unsigned sum = digit * 128U + bits;
            digit = static_cast<std::uint8_t>(sum % 10);
            bits = sum / 10;
        }
        for (; bits != 0; bits /= 10) m_digits.push_back(static_cast<std::uint8_t>(bits % 10));
    }

    // For the first arc only, which is encoded as 80 plus the second when it is 2 (X.690 8.19.4).
    void subtract80() {
        int borrow = 8;
        for (std::size_t i = 1; borrow != 0; ++i) {
            const int digit = m_digits[i] - borrow;
            m_digits[i] = static_cast<std::uint8_t>(digit < 0 ? digit + 10 : digit);
            borrow = digit < 0 ? 1 : 0;
        }
        while (!m_digits.empty() && m_digits.back() == 0) m_digits.pop_back();
    }

    [[nodiscard]] std::string text() const {
        std::string out;
        for (std::size_t i = m_digits.size(); i > 0; --i) {
            out.push_back(static_cast<char>('0' + m_digits[i - 1]));
        }
        return out.empty() ? "0" : out;
    }

  private:
    std::vector<std::uint8_t> m_digits;  // least significant first
};

std::string arcToText(der::Bytes octets, bool isFirst) {
    if (octets.size() < 9) {
        std::uint64_t value = 0;
        for (const std::uint8_t octet : octets) value = value << 7 | (octet & 0x7FU);
        if (!isFirst) return std::to_string(value);
        if (value < 80) return std::to_string(value / 40) + "." + std::to_string(value % 40);
        return "2." + std::to_string(value - 80);
    }
    DecimalArc arc;
    for (const std::uint8_t octet : octets) arc.appendSevenBits(octet & 0x7FU);
    if (!isFirst) return arc.text();
    arc.subtract80();
    return "2." + arc.text();
}

void appendArc(std::string& out, std::uint64_t value) {
    std::array<char, 10> octets{};
    std::size_t at = octets.size();
    octets[--at] = static_cast<char>(value & 0x7FU);
    while ((value >>= 7) != 0) octets[--at] = static_cast<char>(0x80U | (value & 0x7FU));
    out.append(octets.data() + at, octets.size() - at);
}

}  // namespace

std::string oidToText(der::Bytes content) {
    if (content.empty() || content.size() > kMaxOctets || (content.back() & 0x80U) != 0) return {};
    std::string out;
    std::size_t start = 0;
    for (std::size_t i = 0; i < content.size(); ++i) {
        if ((content[i] & 0x80U) != 0) continue;
        if (content[start] == 0x80) return {};  // X.690 8.19.2 forbids padding
        if (start != 0) out.push_back('.');
        out.append(arcToText(content.subspan(start, i + 1 - start), start == 0));
        start = i + 1;
    }
    return out;
}

std::string oidFromText(std::string_view dotted) {
    std::string out;
    std::uint64_t first = 0;
    for (int numArcs = 0;; ++numArcs) {
        std::uint64_t arc = 0;
        const char* const begin = dotted.data();
        const auto [end, error] = std::from_chars(begin, begin + dotted.size(), arc);
        if (error != std::errc()) return {};
        if (numArcs == 0) {
            if (arc > 2) return {};
            first = arc;
        } else if (numArcs == 1) {
            if ((first < 2 && arc > 39) || arc > UINT64_MAX - 80) return {};
            appendArc(out, first * 40 + arc);
        } else {
            appendArc(out, arc);
        }
        dotted.remove_prefix(static_cast<std::size_t>(end - begin));
        if (dotted.empty()) return numArcs == 0 ? std::string() : out;
        if (dotted.front() != '.') return {};
        dotted.remove_prefix(1);
    }
}

}  // namespace mervane
