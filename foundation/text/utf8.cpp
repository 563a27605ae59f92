#include "foundation/text/utf8.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "foundation/text/codepoint.h"

namespace mervane {
namespace {

struct Range {
    std::uint32_t first;
    std::uint32_t last;
};

// Blocks whose characters are East Asian Wide (Unicode Standard Annex 11) or emoji.
constexpr std::array kWide = {
    Range{0x1100, 0x115F},   Range{0x2E80, 0x303E},   Range{0x3041, 0x33FF},
    Range{0x3400, 0x4DBF},   Range{0x4E00, 0x9FFF},   Range{0xA000, 0xA4CF},
    Range{0xA960, 0xA97F},   Range{0xAC00, 0xD7A3},   Range{0xF900, 0xFAFF},
    Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},   Range{0xFFE0, 0xFFE6},
    Range{0x1F300, 0x1F64F}, Range{0x1F680, 0x1F6FF}, Range{0x1F900, 0x1F9FF},
    Range{0x20000, 0x3FFFD},
};

// The common combining marks, joiners and variation selectors, which take no column.
constexpr std::array kZeroWidth = {
    Range{0x0300, 0x036F}, Range{0x0483, 0x0489}, Range{0x0591, 0x05BD}, Range{0x064B, 0x065F},
    Range{0x0E31, 0x0E31}, Range{0x0E34, 0x0E3A}, Range{0x0E47, 0x0E4E}, Range{0x1AB0, 0x1AFF},
    Range{0x1DC0, 0x1DFF}, Range{0x200B, 0x200D}, Range{0x20D0, 0x20FF}, Range{0xFE00, 0xFE0F},
    Range{0xFE20, 0xFE2F},
};

// Characters that would break or reorder a line, or stand in it unseen: controls, marks of
// direction, line separators, zero-width spaces and tags.
constexpr std::array kUnprintable = {
    Range{0x00, 0x1F},     Range{0x7F, 0x9F},     Range{0x061C, 0x061C},   Range{0x180E, 0x180E},
    Range{0x200B, 0x200B}, Range{0x200E, 0x200F}, Range{0x2028, 0x202E},   Range{0x2060, 0x2069},
    Range{0xFEFF, 0xFEFF}, Range{0xFFF9, 0xFFFB}, Range{0xE0000, 0xE007F},
};

template <std::size_t N>
constexpr bool inAny(const std::array<Range, N>& ranges, std::uint32_t c) noexcept {
    return std::ranges::any_of(ranges, [c](Range r) { return c >= r.first && c <= r.last; });
}

void appendEscape(std::string& out, std::uint32_t c) {
    std::array<char, 16> room{};
    const int size = std::snprintf(room.data(), room.size(), c > 0xFF ? "\\u{%x}" : "\\x%02x", c);
    out.append(room.data(), static_cast<std::size_t>(size));
}

}  // namespace

std::uint32_t takeCodePoint(std::string_view& text, bool& ok) noexcept {
    const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byteAt(0);
    std::size_t length = 1;
    std::uint32_t value = lead;
    std::uint32_t smallest = 0;  // below it the form is overlong
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, value = lead & 0x1FU, smallest = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, value = lead & 0x0FU, smallest = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, value = lead & 0x07U, smallest = 0x10000;
    } else if (lead >= 0x80) {
        length = 0;
    }
    ok = length != 0 && text.size() >= length;
    for (std::size_t i = 1; ok && i < length; ++i) {
        ok = (byteAt(i) & 0xC0U) == 0x80;
        value = value << 6 | (byteAt(i) & 0x3FU);
    }
    ok = ok && value >= smallest && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
    text.remove_prefix(ok ? length : 1);
    return ok ? value : kReplacementChar;
}

void appendUtf8(std::string& out, std::uint32_t c) {
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = kReplacementChar;
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
        return;
    }
    const int followers = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    constexpr std::array<std::uint32_t, 4> kLead = {0, 0xC0, 0xE0, 0xF0};
    out.push_back(
        static_cast<char>(kLead[static_cast<std::size_t>(followers)] | c >> (6 * followers)));
    for (int i = followers - 1; i >= 0; --i) {
        out.push_back(static_cast<char>(0x80U | (c >> (6 * i) & 0x3FU)));
    }
}

bool isUnprintable(std::uint32_t codePoint) noexcept {
    return inAny(kUnprintable, codePoint);
}

bool isValidUtf8(std::string_view text) noexcept {
    bool ok = true;
    while (ok && !text.empty()) takeCodePoint(text, ok);
    return ok;
}

std::string toValidUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool ok = true;
    while (!text.empty()) appendUtf8(out, takeCodePoint(text, ok));
    return out;
}

void appendOneLine(std::string& out, std::string_view text) {
    while (!text.empty()) {
        const auto* const plain =
            std::ranges::find_if(text, [](char c) { return c < 0x20 || c > 0x7E; });
        const auto numPlain = static_cast<std::size_t>(plain - text.begin());
        out.append(text.substr(0, numPlain));
        text.remove_prefix(numPlain);
        if (text.empty()) return;
        bool ok = true;
        const std::uint32_t c = takeCodePoint(text, ok);
        if (isUnprintable(c)) {
            appendEscape(out, c);
        } else {
            appendUtf8(out, c);
        }
    }
}

std::size_t displayWidth(std::string_view text) noexcept {
    std::size_t width = 0;
    bool ok = true;
    while (!text.empty()) {
        const std::uint32_t c = takeCodePoint(text, ok);
        if (!inAny(kZeroWidth, c)) width += inAny(kWide, c) ? 2 : 1;
    }
    return width;
}

}  // namespace mervane
