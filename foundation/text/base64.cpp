#include "foundation/text/base64.h"

#include <array>

namespace mervane {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNoDigit = 0xFF;

constexpr auto kValues = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(kNoDigit);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        values[static_cast<std::uint8_t>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return values;
}();

}  // namespace

std::string toBase64(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::uint32_t bits = 0;
    int numBits = 0;
    for (const std::uint8_t byte : bytes) {
        bits = bits << 8 | byte;
        for (numBits += 8; numBits >= 6; numBits -= 6) {
            out.push_back(kAlphabet[bits >> (numBits - 6) & 0x3F]);
        }
    }
    if (numBits > 0) out.push_back(kAlphabet[bits << (6 - numBits) & 0x3F]);
    while (out.size() % 4 != 0) out.push_back('=');
    return out;
}

bool appendBase64(std::string_view text, std::vector<std::uint8_t>& out) {
    out.reserve(out.size() + text.size() / 4 * 3 + 3);
    std::uint32_t bits = 0;
    int numBits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::uint8_t value = kValues[static_cast<std::uint8_t>(text[i])];
        if (value == kNoDigit) return text.find_first_not_of('=', i) == std::string_view::npos;
        bits = bits << 6 | value;
        numBits += 6;
        if (numBits >= 8) {
            numBits -= 8;
            out.push_back(static_cast<std::uint8_t>(bits >> numBits));
        }
    }
    return true;
}

}  // namespace mervane
