#include "foundation/text/hex.h"

namespace mervane {
namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";

constexpr int digitValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string toHex(std::span<const std::uint8_t> bytes) {
    std::string out(bytes.size() * 2, '0');
    std::size_t at = 0;
    for (const std::uint8_t byte : bytes) {
        out[at++] = kDigits[byte >> 4];
        out[at++] = kDigits[byte & 0x0F];
    }
    return out;
}

std::string toHexNumber(std::uint64_t value, int digits) {
    std::string out;
    while (value != 0 || static_cast<int>(out.size()) < digits) {
        out.insert(out.begin(), kDigits[value & 0x0F]);
        value >>= 4;
    }
    return "0x" + out;
}

std::optional<std::vector<std::uint8_t>> fromHex(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digitValue(text[i]);
        const int low = digitValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<std::uint8_t>(high << 4 | low));
    }
    return out;
}

}  // namespace mervane
