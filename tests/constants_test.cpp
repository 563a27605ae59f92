// Our constants of PKCS#11 against those of p11-kit's header, as texts: the two cannot be included together by name.

#include <map>
#include <optional>
#include <sstream>

#include "tests/support.h"

namespace mervane::test {
namespace {

// "0x12;", "(18UL)" or "(1UL << 4)"; nothing for another form.
std::optional<unsigned long> valueOf(const std::string& text) {
    const auto first = text.find_first_of("0123456789");
    if (first > 1 || first == std::string::npos) return std::nullopt;
    const auto shift = text.find("<< ");
    return std::stoul(text.substr(first), nullptr, 0) << (shift == std::string::npos ? 0 : std::stoul(text.substr(shift + 3)));
}

// The numbers of lines that begin with `start`, by the last word before `separator`.
std::map<std::string, unsigned long> constantsIn(const std::string& text, const std::string& start, const std::string& separator) {
    std::map<std::string, unsigned long> out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto end = line.find(separator, start.size());
        if (!line.starts_with(start) || end == std::string::npos) continue;
        const std::string before = line.substr(0, line.find_last_not_of(" \t", end - 1) + 1);
        const auto value = valueOf(line.substr(line.find_first_not_of(" \t=", end)));
        if (value && before.substr(before.find_last_of(" \t") + 1, 3) != "CK_") out[before.substr(before.find_last_of(" \t") + 1)] = *value;
    }
    return out;
}

TEST(ConstantsTest, AreThoseOfTheStandard) {
    auto theirs = constantsIn(readFile(MERVANE_P11_KIT_HEADER), "#define CK", "(");
    theirs.merge(constantsIn(readFile(MERVANE_P11_KIT_HEADER), "#define CKG", " 0x"));
    theirs["CKR_PIN_TOO_WEAK"] = 0x1B8;  // another number there than in PKCS#11 3.0, section 5.1
    const std::string sources = MERVANE_SOURCE;
    auto ours = constantsIn(readFile(sources + "/pkcs11/calls/cryptoki.h") + readFile(sources + "/pkcs11/calls/rv.h"), "inline constexpr CK_", "=");
    EXPECT_GT(ours.size(), 80U);
    EXPECT_EQ(CK_UNAVAILABLE_INFORMATION, ~0UL);
    EXPECT_EQ(CK_EFFECTIVELY_INFINITE, 0U);
    for (const auto& [name, value] : ours) EXPECT_EQ(theirs[name], value) << name;
}

}  // namespace
}  // namespace mervane::test
