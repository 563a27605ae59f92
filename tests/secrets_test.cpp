// No PIN is left behind: after every scenario, once the object is gone, the process's writable memory
// holds no copy of one. The search is for the end of the PIN, since the allocator overwrites the
// beginning of a freed block.

#include <cstdio>
#include <fstream>
#include <random>

#include "tests/scenarios.h"

namespace mervane::test {
namespace {

constexpr unsigned char kMask = 0x5A;

// A 25-byte PIN, made and kept masked, so that the test's own copies are not found.
struct Masked {
    explicit Masked(std::string_view head) {
        std::random_device random;
        for (const char c : head) bytes.push_back(static_cast<unsigned char>(static_cast<unsigned char>(c) ^ kMask));
        while (bytes.size() < 25) bytes.push_back(static_cast<unsigned char>(('a' + random() % 26) ^ kMask));
    }
    void unmaskInto(XString& out) const {
        std::array<char, 64> plain{};
        for (std::size_t i = 0; i < bytes.size(); ++i) plain[i] = static_cast<char>(bytes[i] ^ kMask);
        out.setFromUtf8({plain.data(), bytes.size()});
        wipe(plain.data(), plain.size());
    }
    std::vector<unsigned char> bytes;
};

// How often the last 8 bytes of the PIN occur in this process's writable memory. It is searched in
// place: a buffer would itself hold a copy.
int countCopies(const Masked& pin) {
    std::array<unsigned char, 8> tail{};
    std::copy_n(pin.bytes.end() - 8, 8, tail.begin());
    std::ifstream maps("/proc/self/maps");
    int numCopies = 0;
    std::string line;
    while (std::getline(maps, line)) {
        unsigned long from = 0;
        unsigned long to = 0;
        char access[8] = "";
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, access) != 3 || access[0] != 'r' || access[1] != 'w') continue;
        for (unsigned long at = from; at + tail.size() <= to; ++at) {
            const auto* const memory = reinterpret_cast<const volatile unsigned char*>(at);
            std::size_t k = 0;
            while (k < tail.size() && (memory[k] ^ kMask) == tail[k]) ++k;
            numCopies += k == tail.size() ? 1 : 0;
        }
    }
    return numCopies;
}

TEST(SecretsTest, NoCopyOfAPinStaysInMemory) {
    if (isUnderValgrind()) GTEST_SKIP();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers keep what was freed";
#endif
    FakeModule module("libsecrets.so");
    fake::World& world = module.world();
    world.acceptsAnyPin = true;
    const std::array<Masked, 3> pins{Masked("user-pin-"), Masked("next-pin-"), Masked("chief-pin-")};
    const auto expectCopies = [&](int number, const char* when) {
        for (const Masked& pin : pins) EXPECT_EQ(countCopies(pin), number) << when;
    };
    for (const bool fails : {false, true}) {
        expectCopies(0, "before");
        ScenarioArgs args;
        pins[0].unmaskInto(args.userPin);
        pins[1].unmaskInto(args.newPin);
        pins[2].unmaskInto(args.soPin);
        expectCopies(1, "made");  // the search finds a copy that exists
        for (const Scenario& scenario : kScenarios) {
            furnish(world, Token::Plain);
            for (fake::Object& object : world.slots[0].objects) object.attributes[CKA_ALWAYS_AUTHENTICATE] = fake::bytesOf(true);
            world.answer = [fails](auto& f, auto) { return fails && (f == "C_Login" || f == "C_SetPIN") ? std::optional(CKR_PIN_INCORRECT) : std::nullopt; };
            {
                Pkcs11 p11;
                p11.put_SharedLibPath(XString(module.path()));
                p11.Login(2, args.userPin);  // for keys that want it at each signature
                EXPECT_EQ(scenario.run(p11, args), !fails || scenario.numLogins == 0) << scenario.name;
                p11.put_SigContextPin(args.newPin);
                XString kept;
                p11.get_SigContextPin(kept);
                p11.put_SigContextPin(XString());
                EXPECT_EQ(p11.log().text().find("-pin-"), std::string::npos);
            }
            expectCopies(1, scenario.name);  // the caller's own
        }
    }
    expectCopies(0, "at the end");
    world.answer = nullptr;
}

}  // namespace
}  // namespace mervane::test
