// A module whose answers (return values, counts, lengths, handles and bytes) are drawn from the input,
// in one of the scenarios, which must then succeed without faults.

#include <algorithm>
#include <stdexcept>

#include "fuzz/fuzz.h"
#include "tests/scenarios.h"

using namespace mervane;
using namespace mervane::test;

namespace {

// The bytes of the input, then zeros.
class Stream {
  public:
    Stream(const std::uint8_t* data, std::size_t size) : m_rest(data, size) {}
    unsigned next() {
        if (m_rest.empty()) return 0;
        const unsigned byte = m_rest.front();
        m_rest = m_rest.subspan(1);
        return byte;
    }

  private:
    std::span<const std::uint8_t> m_rest;
};

CK_ULONG number(Stream& in) {
    constexpr CK_ULONG kNumbers[] = {0, 1, 3, 8, 64, 1023, 1024, 8192, 1048576, 1048577, CK_ULONG{1} << 40, ~CK_ULONG{0} / 2, ~CK_ULONG{0}};
    const unsigned choice = in.next();
    return choice < 128 ? choice : kNumbers[choice % std::size(kNumbers)];
}

void lie(Stream& in, fake::World& world, fake::Outputs& out) {
    const unsigned what = in.next();
    if (what < 96) return;  // often enough the truth to get further
    if (out.count != nullptr && (what & 1U) != 0) *out.count = number(in);
    for (CK_ULONG i = 0; out.ids != nullptr && i < std::min<CK_ULONG>(out.room, 8) && (what & 2U) != 0; ++i) out.ids[i] = number(in);
    for (CK_ULONG i = 0; out.attributes != nullptr && i < out.room; ++i) {
        CK_ATTRIBUTE& attribute = out.attributes[i];
        const unsigned how = in.next();
        const bool hasBytes = attribute.pValue != nullptr && attribute.ulValueLen != CK_UNAVAILABLE_INFORMATION && attribute.ulValueLen <= 8192;
        if (hasBytes && (how & 1U) != 0) {
            for (CK_ULONG k = 0; k < std::min<CK_ULONG>(attribute.ulValueLen, 16); ++k)
                static_cast<unsigned char*>(attribute.pValue)[k] = static_cast<unsigned char>(in.next());
        }
        if ((how & 6U) == 6) attribute.ulValueLen = number(in);
        if (how > 250) attribute.pValue = nullptr;
    }
    if (out.session != nullptr && (what & 4U) != 0) {
        // The module now has a session that nobody can close.
        world.loseSession(*out.session);
        *out.session = 0;
    }
    if (out.tokenInfo != nullptr) out.tokenInfo->flags = number(in);
    if (out.tokenInfo != nullptr) std::fill_n(out.tokenInfo->label, 32, static_cast<unsigned char>(in.next()));
    if (out.slotInfo != nullptr) out.slotInfo->flags |= number(in);
    constexpr CK_RV kPartial[] = {CKR_OK, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_SENSITIVE, CKR_BUFFER_TOO_SMALL};
    if (out.attributes != nullptr && (what & 8U) != 0) out.result = kPartial[in.next() % 4];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FakeModule module("libfake.so");
    fake::World& world = module.world();
    Stream in(data, size);
    const Scenario& scenario = kScenarios.at(in.next() % kScenarios.size());
    const auto token = static_cast<Token>(in.next() % 3);
    const auto arrange = [&] {
        world.answer = [&in](auto&, auto) -> std::optional<CK_RV> {
            const unsigned choice = in.next();
            if (choice == 255) throw std::runtime_error("x");
            return choice >= 240 ? std::optional(number(in)) : std::nullopt;
        };
        world.lie = [&](fake::Outputs& out) { lie(in, world, out); };
    };
    EXPECT_TRUE(recovers(module, scenario, token, arrange));
    fuzz::require(!testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed());
    return 0;
}
