// Sessions, login and locks, where data/transcripts do not reach.

#include <filesystem>
#include <future>

#include "tests/support.h"

namespace mervane::test {
namespace {

using ModuleTest = FakeTest;

TEST_F(ModuleTest, ObjectMadeByTheFactoryWorksAsAnyOther) {
    const std::unique_ptr<ClsPkcs11> object(ClsPkcs11::createNewCls());
    object->put_SharedLibPath(XString(module.path()));
    EXPECT_TRUE(object->Initialize() && !object->cardRequiresPss(object->log()));
    XString path;
    object->get_SharedLibPath(path);
    EXPECT_EQ(path.view(), module.path());
}

TEST_F(ModuleTest, LibraryIsUnmappedWhenAnotherTakesItsPlace) {
    const std::string plain = scratchFolder() + "/libunmapped.so";
    std::filesystem::copy_file(MERVANE_PLAIN_LIBRARY, plain);
    ClsJsonObject json;
    ASSERT_TRUE(quick());  // a module was called before, and has returned
    p11->put_SharedLibPath(plain);
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_THAT(readFile("/proc/self/maps"), HasSubstr(plain));
    p11->put_SharedLibPath(module.path());
    EXPECT_TRUE(p11->Discover(false, json));
    EXPECT_THAT(readFile("/proc/self/maps"), Not(HasSubstr(plain)));
}

TEST_F(ModuleTest, ReportsAreFalse) {
    LogNull log;
    EXPECT_FALSE(p11->noFunc("C_Sign", log));
    EXPECT_EQ(p11->lastFailure().kind, FailureKind::NotSupported);
    EXPECT_THAT(p11->lastFailure().cause, HasSubstr("does not offer C_Sign."));
    EXPECT_FALSE(p11->noFuncs(log) || p11->noSession(log));
}

TEST_F(ModuleTest, ObjectsAreCountedAsFarAsTheyAreSeen) {
    int count = -1;
    EXPECT_FALSE(p11->CountObjects(count));
    EXPECT_EQ(count, -1);
    objects() = objectsOf("cert:alice:a key:alice:a key:p256:b point:p256:b");
    ASSERT_TRUE(quick() && p11->CountObjects(count));
    EXPECT_EQ(count, 4);
    ASSERT_TRUE(p11->Logout() && p11->CountObjects(count));
    EXPECT_EQ(count, 2);
}

TEST_F(ModuleTest, SlotsBeyondTheHundredthAreNotLookedAt) {
    world.slots = {{.id = 500, .tokenPresent = false}};
    for (CK_SLOT_ID id = 1; id <= 130; ++id) world.slots.emplace_back().id = id;
    EXPECT_TRUE(p11->Initialize() && p11->OpenSession(100, false));
    EXPECT_FALSE(p11->OpenSession(101, false));
    EXPECT_THAT(p11->infos(), Contains(HasSubstr("more slots with a token than are looked at")));
}

TEST_F(ModuleTest, SlotsThatWereCountedAndNotGivenAreNone) {
    ASSERT_TRUE(p11->Initialize());
    world.lie = [](fake::Outputs& out) {
        if (out.function == "C_GetSlotList" && out.ids != nullptr) *out.count = 5;
    };
    EXPECT_FALSE(p11->OpenSession(0, false));
    EXPECT_EQ(p11->lastFailure().cause, "Did not find desired slot ID.");
    EXPECT_EQ(world.count("C_OpenSession"), 0U);
    world.lie = nullptr;
    world.answer = [](auto& f, auto) { return f == "C_OpenSession" ? std::optional<CK_RV>(0x30) : std::nullopt; };
    EXPECT_FALSE(p11->OpenSession(1, false));
    EXPECT_EQ(p11->lastFailure().slotId, 1U);
}

TEST_F(ModuleTest, SessionGivenAgainUnderItsHandleIsNotClosed) {
    ASSERT_TRUE(p11->QuickSession(1, XString()));
    const CK_SESSION_HANDLE session = p11->m_hSession;
    world.lie = [&](fake::Outputs& out) {
        if (out.session == nullptr) return;
        world.sessions.erase(*out.session);
        --world.numOpened;
        *out.session = session;
    };
    EXPECT_TRUE(p11->OpenSession(-1, true));
    EXPECT_EQ(world.count("C_CloseSession"), 0U);
    EXPECT_TRUE(p11->FindAllCerts());
}

TEST_F(ModuleTest, OpenSessionIsClosedWhereTheTokenTakesOneAlone) {
    ASSERT_TRUE(quick());
    world.maxSessions = 1;
    EXPECT_TRUE(p11->OpenSession(1, true));
    EXPECT_THAT(p11->infos(), Contains("The token takes no second session: the open one is closed first."));
    world.slots.push_back({.id = 2});
    EXPECT_FALSE(p11->OpenSession(2, true));  // that one is in nobody's way there
    EXPECT_TRUE(p11->hasOpenSession());
}

TEST_F(ModuleTest, LoginStaysWithItsSlot) {
    world.slots.push_back({.id = 2});
    for (const int user : {0, 1}) {
        ASSERT_TRUE(p11->QuickSession(user, user == 0 ? world.slots[0].soPin : world.slots[0].userPin));
        ASSERT_TRUE(p11->OpenSession(1, true));
        EXPECT_TRUE(p11->alreadyLoggedIn(user, p11->log()));
        ASSERT_TRUE(p11->OpenSession(2, true));
        EXPECT_FALSE(p11->m_userLoggedIn || p11->m_soLoggedIn);
    }
}

TEST_F(ModuleTest, NobodyIsLoggedInWithoutASession) {
    p11->m_userLoggedIn = p11->m_soLoggedIn = true;
    EXPECT_FALSE(p11->alreadyLoggedIn(1, p11->log()) || p11->alreadyLoggedIn(0, p11->log()));
}

TEST_F(ModuleTest, PinStaysTheCallersWhateverTheModuleDoesToIt) {
    ASSERT_TRUE(p11->QuickSession(1, XString()));
    world.spoilsPins = true;
    const XString pin(world.slots[0].userPin);
    EXPECT_TRUE(p11->Login(1, pin));
    EXPECT_EQ(pin.view(), world.slots[0].userPin);
}

// Internal methods that other code calls take the lock themselves.
TEST_F(ModuleTest, NoOtherThreadEntersMeanwhile) {
    ASSERT_TRUE(p11->Initialize());
    std::vector<std::future<int>> others;
    world.answer = [&](auto& function, auto) -> std::optional<CK_RV> {
        if (function != "C_OpenSession" && function != "C_Login") return {};
        others.push_back(std::async(std::launch::async, [this] { return p11->get_NumCerts(); }));
        EXPECT_EQ(others.back().wait_for(std::chrono::milliseconds(50)), std::future_status::timeout) << function;
        return {};
    };
    EXPECT_TRUE(p11->openSession(-1, true, p11->log()) && p11->login(1, world.slots[0].userPin.c_str(), p11->log()));
    EXPECT_EQ(others.size(), 2U);
}

}  // namespace
}  // namespace mervane::test
