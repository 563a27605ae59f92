// Whatever a module answers, the application comes to no harm: six scenarios with every return value at
// every call, lies of all kinds, tokens that come and go, and memory that runs out.

#include <stdexcept>

#include "tests/allocations.h"
#include "tests/scenarios.h"

namespace mervane::test {
namespace {

class FaultsTest : public testing::TestWithParam<std::tuple<std::size_t, Token>> {
  protected:
    // Runs the scenario with faults, then without.
    void runWith(const std::function<void()>& arrange, const std::string& what, std::size_t number, bool mustRecover = true) {
        if (HasFailure()) return;
        const auto disarm = [this](bool ok) {
            numAllocationsLeft = allocations::left.exchange(-1);
            EXPECT_TRUE(ok || numAllocationsLeft <= 0);
        };
        const bool recovered = recovers(module, m_scenario, m_token, arrange, disarm);
        EXPECT_TRUE(recovered || !mustRecover);
        ++numRuns;
        ASSERT_FALSE(HasFailure()) << m_scenario.name << ": " << what << " " << number;
    }
    // The same with one call of the scenario answered by `answer`.
    void runWithAnswer(const std::function<CK_RV()>& answer, const std::string& what, std::size_t at) {
        runWith([&] { world.answer = [=](auto&, auto index) { return index == at ? std::optional(answer()) : std::nullopt; }; }, what, at);
    }
    // The number of calls in the scenario without faults.
    std::size_t traceLength() {
        std::size_t length = 0;
        EXPECT_TRUE(recovers(
            module, m_scenario, m_token, [] {}, [&](bool ok) { length = ok ? world.journal.size() : 0; }));
        EXPECT_GT(length, 0U);
        return length;
    }
    void SetUp() override {
        if (isUnderValgrind() && m_token == Token::Crowded) GTEST_SKIP();  // the other two take its ways, in less time
    }
    void TearDown() override { RecordProperty("runs", static_cast<int>(numRuns)); }

    const Scenario& m_scenario = kScenarios.at(std::get<0>(GetParam()));
    const Token m_token = std::get<1>(GetParam());
    const FakeModule module{"libfake.so"};
    fake::World& world = module.world();
    std::size_t numRuns = 0;
    long numAllocationsLeft = 0;  // at the end of the scenario; above 0, none failed
};

TEST_P(FaultsTest, EveryReturnValueAtEveryCall) {
    std::vector<CK_RV> codes = {CKR_DEVICE_REMOVED};
    if (!isUnderValgrind()) codes = {0x80000001, ~CK_RV{0}};
    for (CK_RV rv = 0; rv < 0x300 && !isUnderValgrind(); ++rv) {
        if (rvName(rv).starts_with("CKR_")) codes.push_back(rv);
    }
    const std::size_t length = traceLength();
    for (std::size_t at = 0; at < length; ++at) {
        for (const CK_RV rv : codes) runWithAnswer([rv] { return rv; }, rvName(rv), at);
        runWithAnswer([]() -> CK_RV { throw 7; }, "int", at);
        runWithAnswer([]() -> CK_RV { throw std::runtime_error("x"); }, "exception", at);
    }
}

template <class Change>
void changeAll(fake::Outputs& out, Change change) {
    for (CK_ULONG i = 0; i < out.room; ++i) change(out.attributes[i]);
}

void setLengths(fake::Outputs& out, CK_ULONG length, CK_RV rv) {
    changeAll(out, [length](auto& a) { a.ulValueLen = length; });
    out.result = rv;
}

void spoil(CK_ATTRIBUTE& attribute) {
    const bool isWritten = attribute.pValue != nullptr && attribute.ulValueLen < 9000;
    if (isWritten) std::memset(attribute.pValue, 0x30 + static_cast<int>(attribute.type % 7), attribute.ulValueLen);
}

void setHandles(fake::Outputs& out, CK_ULONG first, CK_ULONG step) {
    for (CK_ULONG i = 0; i < out.room; ++i) out.ids[i] = first + i * step;
    *out.count = out.room;
}

template <std::size_t N>
void fill(unsigned char (&field)[N], std::string_view pattern) {
    for (std::size_t i = 0; i < N; ++i) field[i] = static_cast<unsigned char>(pattern[i % pattern.size()]);
}

void setTexts(fake::Outputs& out, std::string_view pattern) {
    if (out.info != nullptr) fill(out.info->manufacturerID, pattern), fill(out.info->libraryDescription, pattern);
    if (out.slotInfo != nullptr) fill(out.slotInfo->slotDescription, pattern);
    if (out.tokenInfo != nullptr) fill(out.tokenInfo->label, pattern), fill(out.tokenInfo->serialNumber, pattern);
}

unsigned char strayValue[16];

bool hasAttributes(const fake::Outputs& out) { return out.attributes != nullptr; }
bool hasList(const fake::Outputs& out) { return out.ids != nullptr && out.room > 0; }
bool hasCount(const fake::Outputs& out) { return out.count != nullptr; }
bool isFind(const fake::Outputs& out) { return out.function == "C_FindObjects" && out.room > 0; }
bool hasTexts(const fake::Outputs& out) { return out.info != nullptr || out.slotInfo != nullptr || out.tokenInfo != nullptr; }

const struct Lie {
    const char* what;
    bool (*concerns)(const fake::Outputs& out);
    void (*tell)(fake::Outputs& out);
} kLies[] = {
    {"count beyond the room", hasCount, [](auto& out) { *out.count = out.room + 5; }},
    {"huge count", hasCount, [](auto& out) { *out.count = ~CK_ULONG{0} / 2; }},
    {"count of zero", hasCount, [](auto& out) { *out.count = 0; }},
    {"count not written", hasCount, [](auto& out) { *out.count = out.room; }},
    {"one more than before", hasCount, [](auto& out) { *out.count += 1; }},
    {"list not written", hasList, [](auto& out) { std::fill_n(out.ids, out.room, 0); }},
    {"lengths of -1 with CKR_OK", hasAttributes, [](auto& out) { setLengths(out, CK_UNAVAILABLE_INFORMATION, CKR_OK); }},
    {"lengths of 0", hasAttributes, [](auto& out) { setLengths(out, 0, CKR_OK); }},
    {"lengths of 3", hasAttributes, [](auto& out) { setLengths(out, 3, CKR_OK); }},
    {"huge lengths", hasAttributes, [](auto& out) { setLengths(out, CK_ULONG{1} << 60, CKR_OK); }},
    {"huge lengths, too small", hasAttributes, [](auto& out) { setLengths(out, CK_ULONG{1} << 40, CKR_BUFFER_TOO_SMALL); }},
    {"lengths of a megabyte", hasAttributes, [](auto& out) { setLengths(out, 1048576, CKR_BUFFER_TOO_SMALL); }},
    {"all too small", hasAttributes, [](auto& out) { setLengths(out, CK_UNAVAILABLE_INFORMATION, CKR_BUFFER_TOO_SMALL); }},
    {"lengths of the room", hasAttributes, [](auto& out) { setLengths(out, 8192, CKR_OK); }},
    {"no attribute type", hasAttributes, [](auto& out) { setLengths(out, CK_UNAVAILABLE_INFORMATION, CKR_ATTRIBUTE_TYPE_INVALID); }},
    {"values of its own", hasAttributes, [](auto& out) { changeAll(out, [](auto& a) { a.pValue = strayValue; }); }},
    {"null values", hasAttributes, [](auto& out) { changeAll(out, [](auto& a) { a.pValue = nullptr; }); }},
    {"other types", hasAttributes, [](auto& out) { changeAll(out, [](auto& a) { a.type += 1; }); }},
    {"values of garbage", hasAttributes, [](auto& out) { changeAll(out, spoil); }},
    {"endless handles", isFind, [](auto& out) { setHandles(out, static_cast<CK_ULONG>(out.index) * 1000, 1); }},
    {"repeated handles", isFind, [](auto& out) { setHandles(out, 1, 0); }},
    {"handles of zero", isFind, [](auto& out) { setHandles(out, 0, 0); }},
    {"falling handles", isFind, [](auto& out) { std::reverse(out.ids, out.ids + *out.count); }},
    {"signature of zeros", [](auto& out) { return out.signature != nullptr; }, [](auto& out) { std::memset(out.signature, 0, *out.count); }},
    {"session of zero", [](auto& out) { return out.session != nullptr; }, [](auto& out) { *out.session = 0; }},
    {"texts of NUL", hasTexts, [](auto& out) { setTexts(out, std::string_view("\0", 1)); }},
    {"texts without padding", hasTexts, [](auto& out) { setTexts(out, "abcdefgh"); }},
    {"texts of control characters", hasTexts, [](auto& out) { setTexts(out, "\x1B[2J\r\n"); }},
    {"texts of invalid UTF-8", hasTexts, [](auto& out) { setTexts(out, "\xFF\xC0\xED\xA0\x80"); }},
    {"all flags of slots", [](auto& out) { return out.slotInfo != nullptr; }, [](auto& out) { out.slotInfo->flags = ~CK_FLAGS{0}; }},
    {"all flags of tokens", [](auto& out) { return out.tokenInfo != nullptr; }, [](auto& out) { out.tokenInfo->flags = ~CK_FLAGS{0}; }},
};

TEST_P(FaultsTest, EveryLieFirstMiddleLastAndAlways) {
    for (const Lie& row : kLies) {
        // A module that gives session 0 has one open that nobody can close.
        const bool leaves = std::string(row.what) == "session of zero";
        std::size_t numTold = 0;
        const auto tellAt = [&](long wanted) {
            const auto arrange = [&] {
                numTold = 0;
                world.lie = [&](fake::Outputs& out) {
                    if (!row.concerns(out)) return;
                    const bool tells = wanted < 0 || static_cast<std::size_t>(wanted) == numTold;
                    ++numTold;
                    if (tells) row.tell(out);
                    if (tells && leaves) world.numClosed += 1, world.sessions.erase(world.lastSession);
                };
            };
            runWith(arrange, row.what, static_cast<std::size_t>(wanted + 1));
        };
        tellAt(0);
        const auto last = static_cast<long>(numTold);
        for (const long at : {last / 2, last - 1, -1L}) {
            if (last > 0) tellAt(at);
        }
    }
}

TEST_P(FaultsTest, NullEntriesEachAndAll) {
    traceLength();
    const std::set<std::string> all = world.functionNames;
    for (const std::string& name : all) runWith([&] { world.nullEntries = {name}; }, name, 0, false);
    runWith([&] { world.nullEntries = all; }, "all", 0, false);
}

TEST_P(FaultsTest, TokenRemovedAtEveryPointAndPutBack) {
    if (isUnderValgrind()) GTEST_SKIP();
    const std::size_t length = traceLength();
    for (std::size_t at = 0; at < 2 * length; ++at) {
        const auto answer = [=, this](auto&, auto index) -> std::optional<CK_RV> {
            if (index == at / 2) world.removeTokens();
            if (at % 2 == 1 && index == at / 2 + 2) world.slots[0].tokenPresent = true;
            return {};
        };
        runWith([&] { world.answer = answer; }, "removed", at / 2);
    }
}

TEST_P(FaultsTest, ObjectsVanishBetweenFindAndRead) {
    const auto answer = [this](auto& f, auto) -> std::optional<CK_RV> {
        if (f == "C_GetAttributeValue") world.slots[0].objects.clear();
        return {};
    };
    runWith([&] { world.answer = answer; }, "vanish", 0);
}

TEST_P(FaultsTest, EveryAllocationFailsOnceAndFromThereOn) {
    if (isUnderValgrind()) GTEST_SKIP();
    allocations::insideModule = &world.inside;
    for (const bool onwards : {false, true}) {
        allocations::failsOnwards = onwards;
        numAllocationsLeft = 0;
        for (long at = 0; numAllocationsLeft <= 0 && !HasFailure(); ++at) {
            runWith([at] { allocations::left = at; }, onwards ? "allocations from" : "allocation", static_cast<std::size_t>(at));
        }
    }
    allocations::insideModule = nullptr;
}

// A module may run the application's event loop, from which the object is called again.
TEST_P(FaultsTest, ObjectIsCalledAgainFromWithinEachCall) {
    if (isUnderValgrind()) GTEST_SKIP();
    const FakeModule other("libother.so");
    ScenarioArgs args;
    ClsCert cert;
    const std::function<void(Pkcs11&)> inner[] = {
        [&](auto& p) { p.OpenSession(-1, true); },
        [&](auto& p) { p.CloseSession(); },
        [&](auto& p) { p.Logout(); },
        [&](auto& p) { p.FindAllCerts(); },
        [&](auto& p) { p.FindCert(args.privateKey, args.empty, cert); },
        [&](auto& p) { p.FindAllKeys(args.empty, args.keys); },
        [&](auto& p) { p.Discover(true, args.report); },
        [&](auto& p) { p.put_SharedLibPath(XString(other.path())), p.Discover(true, args.report); },
    };
    const std::size_t length = traceLength();
    for (const auto& call : inner) {
        for (std::size_t at = 0; at < length && !HasFailure(); ++at) {
            world.reset();
            furnish(world, m_token);
            auto p11 = std::make_unique<Pkcs11>();
            p11->put_SharedLibPath(XString(module.path()));
            world.callBack = [&](std::size_t index) {
                if (index == at) call(*p11);
            };
            m_scenario.run(*p11, args);
            world.callBack = nullptr;
            EXPECT_EQ(p11->log().contextDepth(), 0);
            p11.reset();
            EXPECT_EQ(world.sessions.size() + other.world().sessions.size(), 0U) << &call - inner << " at " << at;
            ++numRuns;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultsTest,
                         testing::Combine(testing::Range(std::size_t{0}, kScenarios.size()), testing::Values(Token::Plain, Token::Sparse, Token::Crowded)));

}  // namespace
}  // namespace mervane::test
