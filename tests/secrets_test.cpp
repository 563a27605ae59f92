// No PIN is left behind: after every road, and after the object is gone, the process's own writable
// memory holds no copy of one. Searched for is the end of the PIN, since a freed block loses its
// beginning to the allocator's own pointers.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "tests/roads.h"

namespace mervane::test {
namespace {

constexpr unsigned char kMask = 0x5A;

// The PINs stand here masked, so that the test's own copies are not found.
struct Masked {
    explicit Masked(const std::string& text) {
        for (const char c : text) bytes.push_back(static_cast<unsigned char>(static_cast<unsigned char>(c) ^ kMask));
    }
    void unmaskInto(XString& out) const {
        std::array<char, 64> plain{};
        for (std::size_t i = 0; i < bytes.size(); ++i) plain[i] = static_cast<char>(bytes[i] ^ kMask);
        out.setFromUtf8({plain.data(), bytes.size()});
        wipe(plain.data(), plain.size());
    }
    std::vector<unsigned char> bytes;
};

// How often the last 8 bytes of the PIN stand in the writable memory of this process.
int countCopies(const Masked& pin) {
    const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    std::FILE* const maps = std::fopen("/proc/self/maps", "re");
    std::array<unsigned char, 8> tail{};
    std::copy_n(pin.bytes.end() - 8, 8, tail.begin());
    static std::vector<unsigned char> page(1 << 20);
    int numCopies = 0;
    char line[512];
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        unsigned long from = 0;
        unsigned long to = 0;
        char access[8] = "";
        if (std::sscanf(line, "%lx-%lx %4s", &from, &to, access) != 3 || access[0] != 'r' || access[1] != 'w') continue;
        for (unsigned long at = from; at < to; at += page.size() - 8) {
            const ssize_t size = ::pread(memory, page.data(), std::min<unsigned long>(page.size(), to - at), static_cast<off_t>(at));
            for (ssize_t i = 0; i + 8 <= size; ++i) {
                std::size_t k = 0;
                while (k < 8 && (page[static_cast<std::size_t>(i) + k] ^ kMask) == tail[k]) ++k;
                numCopies += k == 8 ? 1 : 0;
            }
        }
    }
    std::fclose(maps);
    ::close(memory);
    return numCopies;
}

TEST(SecretsTest, NoCopyOfAPinStaysInMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers keep what was freed";
#endif
    FakeModule module("libsecrets.so");
    fake::World& world = module.world();
    world.acceptsAnyPin = true;
    // Put together at run time: the compiler does not know them.
    const Masked user(std::string("user-pin-") + std::to_string(::getpid() + 100000000) + "-abcdef");
    const Masked fresh(std::string("next-pin-") + std::to_string(::getpid() + 200000000) + "-ghijkl");
    const Masked officer(std::string("chief-pin-") + std::to_string(::getpid() + 300000000) + "-mnopq");
    {
        XString held;
        user.unmaskInto(held);
        EXPECT_GE(countCopies(user), 1);  // the search finds one that is there
    }
    EXPECT_EQ(countCopies(user), 0);
    for (const bool fails : {false, true}) {
        RoadArgs args;
        user.unmaskInto(args.userPin);
        fresh.unmaskInto(args.newPin);
        officer.unmaskInto(args.soPin);
        for (const Road& road : kRoads) {
            furnish(world, Token::Plain);
            world.answer = [fails](auto& f, auto) { return fails && (f == "C_Login" || f == "C_SetPIN") ? std::optional(CKR_PIN_INCORRECT) : std::nullopt; };
            Pkcs11 p11;
            p11.put_SharedLibPath(XString(module.path()));
            EXPECT_EQ(road.run(p11, args), !fails || road.numLogins == 0) << road.name;
            p11.Login(2, args.userPin);
            p11.put_SigContextPin(args.newPin);
            XString kept;
            p11.get_SigContextPin(kept);
            p11.put_SigContextPin(XString());
            EXPECT_EQ(p11.log().text().find("-pin-"), std::string::npos);
        }
    }
    world.answer = nullptr;
    EXPECT_EQ(countCopies(user), 0);
    EXPECT_EQ(countCopies(fresh), 0);
    EXPECT_EQ(countCopies(officer), 0);
}

}  // namespace
}  // namespace mervane::test
