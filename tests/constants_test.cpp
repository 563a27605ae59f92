// Our constants of PKCS#11 against those of p11-kit's header, as texts: the two cannot be included together by name.

#include <map>
#include <regex>

#include "tests/support.h"

namespace mervane::test {
namespace {

std::map<std::string, unsigned long> constantsIn(const std::string& text, const char* form) {
    std::map<std::string, unsigned long> out;
    const std::regex line(form);
    for (std::sregex_iterator at(text.begin(), text.end(), line), end; at != end; ++at)
        out[(*at)[1]] = std::stoul((*at)[2], nullptr, 0) << ((*at)[3].length() > 0 ? std::stoul((*at)[3]) : 0);
    return out;
}

TEST(ConstantsTest, AreThoseOfTheStandard) {
    auto theirs = constantsIn(readFile(MERVANE_P11_KIT_HEADER), R"(#define\s+(CK\w_\w+)\s+\((0x[0-9a-fA-F]+|\d+)UL(?: << (\d+))?\))");
    theirs["CKR_PIN_TOO_WEAK"] = 0x1B8;  // another number there than in PKCS#11 3.0, section 5.1
    const std::string sources = MERVANE_SOURCE;
    auto ours = constantsIn(readFile(sources + "/pkcs11/calls/cryptoki.h") + readFile(sources + "/pkcs11/calls/rv.h"),
                            R"(inline constexpr CK_\w+ (CK\w_\w+) = (0x\w+|\d+)()?;)");
    EXPECT_GT(ours.size(), 80U);
    for (const auto& [name, value] : ours) EXPECT_EQ(theirs[name], value) << name;
}

}  // namespace
}  // namespace mervane::test
