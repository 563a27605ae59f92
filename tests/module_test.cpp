// Loading, the public frame, sessions and login.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support.h"

namespace mervane::test {
namespace {

class ModuleTest : public FakeTest {
  protected:
    void slots(std::initializer_list<CK_SLOT_ID> ids) {
        world.slots.clear();
        for (const CK_SLOT_ID id : ids) world.slots.emplace_back().id = id;
    }
    std::unique_ptr<Pkcs11> make(const std::string& path) const {
        auto made = std::make_unique<Pkcs11>();
        made->put_SharedLibPath(XString(path));
        return made;
    }
};

// --- Loading

TEST_F(ModuleTest, PathThatIsNoModuleIsRefusedWithOneLine) {
    const std::string folder = scratchFolder();
    const std::string fifo = folder + "/fifo.so";
    const std::string text = folder + "/text.so";
    ::mkfifo(fifo.c_str(), 0600);
    std::ofstream(text) << "no library";
    const std::string missing = "The PKCS11 module is missing: the SharedLibPath names no regular file.";
    const std::pair<std::string, std::string> rows[] = {{"", "The SharedLibPath property is not yet set."},
                                                        {folder + "/missing.so", missing},
                                                        {folder, missing},
                                                        {fifo, missing},
                                                        {text, "Failed to load PKCS11 shared library."},
                                                        {MERVANE_PLAIN_LIBRARY, "Function not found"}};
    for (const auto& [path, error] : rows) {
        SCOPED_TRACE(path);
        const auto object = make(path);
        EXPECT_FALSE(object->Initialize() || object->get_LastMethodSuccess());
        EXPECT_THAT(object->errors(), Contains(error));
        EXPECT_LE(object->errors().size(), 2U);  // an empty path is tried both ways
        EXPECT_THAT(object->infos(), ElementsAre("Failed."));
        XString kept;
        object->get_SharedLibPath(kept);
        EXPECT_EQ(kept.view(), path);
        EXPECT_FALSE(object->OpenSession(-1, false));
        EXPECT_THAT(object->errors(), Contains("PKCS11 functions not available"));
    }
}

TEST_F(ModuleTest, SamePathIsLoadedOnceAndAnotherReplacesIt) {
    ASSERT_TRUE(p11->loadPkcs11Dll(false, p11->log()));
    void* const first = p11->m_libHandle;
    forget();
    ASSERT_TRUE(p11->loadPkcs11Dll(false, p11->log()));
    EXPECT_EQ(p11->m_libHandle, first);
    EXPECT_THAT(p11->contexts(), ElementsAre("loadPkcs11Dll_nonWindows"));
    EXPECT_THAT(p11->values(), IsEmpty());

    p11->put_SharedLibPath(XString(""));
    EXPECT_FALSE(p11->loadPkcs11Dll(false, p11->log()));
    EXPECT_THAT(p11->errors(), ElementsAre("The SharedLibPath property is not yet set."));
    EXPECT_EQ(p11->m_libHandle, nullptr);
    EXPECT_TRUE(p11->m_loadedLibPath.isEmpty());
}

TEST_F(ModuleTest, BareFileNameIsTriedSecond) {
    // The name has to exist in the working directory while dlopen looks on its search path.
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(scratchFolder());
    std::ofstream("libz.so.1") << "";
    p11->put_SharedLibPath(XString("/nowhere/libz.so.1"));
    EXPECT_FALSE(p11->loadPkcs11Dll(false, p11->log()));
    EXPECT_THAT(p11->errors(), IsEmpty());
    EXPECT_TRUE(p11->loadPkcs11Dll(true, p11->log()));
    EXPECT_EQ(p11->m_loadedLibPath.view(), "libz.so.1");
    EXPECT_THAT(p11->values(), ElementsAre("sharedLib=/nowhere/libz.so.1", "filename=libz.so.1", "sharedLib=/nowhere/libz.so.1"));
    std::filesystem::current_path(before);
}

TEST_F(ModuleTest, ModuleWhoseCertHandleIsTheKeyHandleIsKnownByItsName) {
    const FakeModule special("my-libkeyfactorpkcs11-2.so");
    p11->put_SharedLibPath(XString(special.path()));
    ASSERT_TRUE(p11->Initialize());
    EXPECT_TRUE(p11->m_certHandleIsKeyHandle);
    EXPECT_THAT(p11->infos(), Contains("Will use the certificate handle as the private key handle..."));
    p11->put_SharedLibPath(XString("/nowhere.so"));
    EXPECT_FALSE(p11->loadPkcs11Dll_2(p11->log()));
    EXPECT_TRUE(p11->m_certHandleIsKeyHandle);  // a failed load leaves it
    p11->put_SharedLibPath(XString(module.path()));
    ClsJsonObject report;
    EXPECT_TRUE(p11->Discover(false, report));  // Initialize would say that it is done
    EXPECT_FALSE(p11->m_certHandleIsKeyHandle);
    EXPECT_EQ(special.world().count("C_Finalize"), 1U);
}

TEST_F(ModuleTest, FunctionListThatCannotBeUsedIsRefused) {
    const std::pair<void (*)(fake::World&), std::string> rows[] = {
        {[](auto& w) { w.nullList = true; }, "C_GetFunctionList gave no function list."},
        {[](auto& w) { w.version.major = 1; }, "The function list is not of a PKCS#11 version 2 or 3 module."},
        {[](auto& w) { w.answer = [](auto&, auto) { return CKR_GENERAL_ERROR; }; }, "C_GetFunctionList failed with CKR_GENERAL_ERROR."},
        {[](auto& w) { w.nullEntries = {"C_Initialize"}; }, "Function not found"},
        {[](auto& w) { w.answer = [](auto&, auto) -> CK_RV { throw 7; }; }, "The module threw an exception."},
    };
    for (const auto& [arrange, error] : rows) {
        arrange(world);
        const auto object = make(module.path());
        EXPECT_FALSE(object->Initialize() || object->m_initialized);
        EXPECT_THAT(object->errors(), Contains(error));
        if (error == "Function not found") {
            EXPECT_THAT(object->values(), testing::IsSupersetOf({std::string("functionName=C_Initialize"), "sharedLibPath=" + module.path()}));
        }
        world.reset();
        EXPECT_TRUE(make(module.path())->Initialize()) << error;
        world.reset();
    }
}

TEST_F(ModuleTest, InitializeTwiceCallsTheModuleOnce) {
    const std::unique_ptr<ClsPkcs11> other(ClsPkcs11::createNewCls());
    EXPECT_FALSE(other->cardRequiresPss(other->log()) || other->Initialize());
    EXPECT_TRUE(p11->Initialize());
    forget();
    EXPECT_TRUE(p11->Initialize());
    EXPECT_THAT(p11->infos(), ElementsAre("Already initialized.", "Success."));
    EXPECT_THAT(world.journal, IsEmpty());
}

TEST_F(ModuleTest, InitializeIsRetriedWithoutArgumentsAndFinalizedByWhomItWasInitialized) {
    world.needsNullArguments = true;
    EXPECT_TRUE(p11->Initialize());
    EXPECT_EQ(world.count("C_Initialize"), 2U);
    p11.reset();
    EXPECT_EQ(world.count("C_Finalize"), 1U);

    world.reset();
    world.initializedByOthers = true;
    p11 = make(module.path());
    EXPECT_TRUE(quick());
    p11.reset();
    EXPECT_EQ(world.count("C_Finalize"), 0U);
}

// --- The frame

TEST_F(ModuleTest, EveryMethodOpensItsContextAndRecordsAsItShould) {
    const std::set<std::string> recordNothing = {"CloseSession", "Login", "Logout", "FindObject"};
    objects() = {certObject(5, "alice", "a")};
    for (const auto& [context, call] : publicCalls()) {
        for (const bool works : {true, false}) {
            const std::string name = context;
            const auto made = make(works ? module.path() : "/nowhere.so");
            Pkcs11& object = *made;
            if (works && name != "Initialize" && name != "QuickSession") object.QuickSession(1, XString());
            if (works && name == "GetCert_pkcs11") object.FindAllCerts();
            object.log().clear();
            const bool ok = call(object);
            ASSERT_FALSE(object.contexts().empty()) << name;
            EXPECT_EQ(object.contexts()[0], name);
            const auto infos = object.infos();
            const bool recorded = !recordNothing.contains(name) && (ok || name != "QuickSession");
            EXPECT_EQ(std::ranges::count(infos, ok ? "Success." : "Failed."), recorded ? 1 : 0) << name << (ok ? " ok" : " failed");
            EXPECT_TRUE(!recorded || object.get_LastMethodSuccess() == ok);
        }
    }
}

TEST_F(ModuleTest, ContextSpecificPinIsKeptAndRecorded) {
    EXPECT_TRUE(p11->Login(2, XString("1234-secret-user-pin-987")));
    EXPECT_THAT(p11->infos(), ElementsAre("This is a context-specific PIN, so we're not actually logging in right now...",
                                          "The context-specific PIN is saved for the time when each signing operation occurs.",
                                          "At that point, the PIN is used within the context of signing.", "Success."));
    XString pin;
    p11->get_SigContextPin(pin);
    EXPECT_EQ(pin.view(), "1234-secret-user-pin-987");
    EXPECT_TRUE(p11->Login(2, XString()));
    p11->get_SigContextPin(pin);
    EXPECT_TRUE(pin.isEmpty() && world.journal.empty());
    EXPECT_FALSE(p11->QuickSession(2, XString("x")));  // these two ask the token
    EXPECT_FALSE(p11->login(2, "x", p11->log()) || p11->m_userLoggedIn);
    EXPECT_EQ(world.count("C_Login"), 2U);
    EXPECT_EQ(world.journal.back().arguments.at(1), 2U);
}

// --- Sessions

TEST_F(ModuleTest, OpenSessionChoosesTheSlot) {
    slots({3, 7});
    world.answer = [this](auto& function, auto index) {
        const bool refused = function == "C_OpenSession" && world.journal[index].arguments[0] == 3;
        return refused ? std::optional(CKR_DEVICE_REMOVED) : std::nullopt;
    };
    EXPECT_TRUE(p11->Initialize() && p11->OpenSession(-1, false));
    EXPECT_EQ(p11->m_slotId, 7U);
    EXPECT_EQ(world.journal.at(2).arguments, (std::vector<CK_ULONG>{1, 100}));  // slots with a token, room for 100
    EXPECT_EQ(world.journal.back().arguments, (std::vector<CK_ULONG>{7, CKF_SERIAL_SESSION}));
    slots({7, 0xFFFFFFFF80000001, 0x80000001});
    EXPECT_TRUE(p11->OpenSession(static_cast<int>(0x80000001), false));
    EXPECT_EQ(p11->m_slotId, 0x80000001U);  // before the one that the sign would make of it
    forget();
    EXPECT_FALSE(p11->OpenSession(5, true));
    EXPECT_THAT(p11->values(), ElementsAre("desiredSlotId=5"));
    EXPECT_THAT(p11->errors(), ElementsAre("Did not find desired slot ID."));
    EXPECT_TRUE(world.count("C_OpenSession") == 0 && p11->hasOpenSession());  // a failed open loses nothing
    EXPECT_EQ(p11->m_slotId, 0x80000001U);
    slots({});
    forget();
    EXPECT_FALSE(p11->OpenSession(-1, true));
    EXPECT_TRUE(p11->errors().empty() && p11->values().empty());
    for (CK_SLOT_ID id = 1; id <= 130; ++id) world.slots.emplace_back().id = id;
    EXPECT_TRUE(p11->OpenSession(100, false));
    EXPECT_FALSE(p11->OpenSession(101, false));
    EXPECT_THAT(p11->infos(), Contains(HasSubstr("more slots with a token than are looked at")));
}

TEST_F(ModuleTest, NewSessionReplacesTheOldAndKeepsALoginOnTheSameToken) {
    slots({1, 2});
    objects() = {certObject(5, "alice", "a")};
    ASSERT_TRUE(quick());
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_TRUE(p11->OpenSession(1, false));
    EXPECT_TRUE(p11->m_userLoggedIn);
    EXPECT_EQ(p11->get_NumCerts(), 0);
    EXPECT_EQ(world.sessions.size(), 1U);
    world.maxSessions = 1;  // room is made first
    EXPECT_TRUE(p11->OpenSession(2, false));
    EXPECT_FALSE(p11->m_userLoggedIn);
    EXPECT_EQ(p11->m_slotId, 2U);
    EXPECT_THAT(p11->values(), Not(Contains(HasSubstr("closeSessionResult"))));
    world.maxSessions = 2;
    world.lie = [](fake::Outputs& out) { out.result = out.function == "C_CloseSession" ? CKR_GENERAL_ERROR : out.result; };
    EXPECT_TRUE(p11->OpenSession(1, false));
    EXPECT_THAT(p11->values(), Contains("closeSessionResult=5"));
    world.lie = nullptr;
    EXPECT_TRUE(p11->CloseSession());
    EXPECT_FALSE(p11->hasOpenSession());
    EXPECT_FALSE(p11->CloseSession());
    EXPECT_THAT(p11->errors(), Contains("No PKCS11 session is open."));
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

TEST_F(ModuleTest, QuickSessionSaysWhereItFailed) {
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"C_Initialize", {"C_Initialize failed with CKR_DEVICE_ERROR.", "Failed to initialize"}},
        {"C_GetSlotList", {"C_GetSlotList failed with CKR_DEVICE_ERROR.", "Failed to get slot IDs", "Failed to open session."}},
        {"C_OpenSession", {"C_OpenSession failed with CKR_DEVICE_ERROR.", "Failed to open session."}},
        {"C_Login", {"C_Login failed with CKR_DEVICE_ERROR.", "Failed to login."}}};
    for (const auto& [function, errors] : rows) {
        world.answer = [&name = function](auto& f, auto) { return f == name ? std::optional<CK_RV>(0x30) : std::nullopt; };
        const auto object = make(module.path());
        EXPECT_FALSE(object->QuickSession(1, XString("4711")));
        EXPECT_EQ(object->errors(), errors);
        EXPECT_EQ(object->hasOpenSession(), function == "C_Login");
    }
    world.answer = nullptr;
    world.journal.clear();
    EXPECT_TRUE(p11->QuickSession(1, XString()));
    EXPECT_THAT(p11->infos(), Contains("PIN is empty, not logging in."));
    EXPECT_TRUE(quick());
    EXPECT_EQ(world.journal[world.journal.size() - 3].arguments.at(1), CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(world.count("C_Login") + world.count("C_Initialize"), 2U);
}

TEST_F(ModuleTest, SessionThatEndsIsGivenUpAndTheWayOnIsSaid) {
    objects() = {certObject(5, "alice", "a"), keyObject(6, "alice", {.id = "a"})};
    for (const CK_RV rv :
         {CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED, CKR_DEVICE_REMOVED, CKR_CRYPTOKI_NOT_INITIALIZED}) {
        ASSERT_TRUE(quick());
        ClsCert cert;
        ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(), cert));
        EXPECT_TRUE(cert.HasPrivateKey());
        world.answer = [rv](auto& f, auto) { return f == "C_GetAttributeValue" ? std::optional(rv) : std::nullopt; };
        forget();
        EXPECT_FALSE(p11->FindAllCerts());
        world.answer = nullptr;
        EXPECT_FALSE(p11->hasOpenSession());
        EXPECT_FALSE(p11->alreadyLoggedIn(1, p11->log()));
        EXPECT_EQ(p11->get_NumCerts(), 0);
        EXPECT_FALSE(cert.HasPrivateKey());
        EXPECT_EQ(p11->m_initialized, rv != CKR_CRYPTOKI_NOT_INITIALIZED);
        EXPECT_THAT(p11->log().lastHint(), HasSubstr(p11->m_initialized ? "OpenSession is next" : "Initialize or QuickSession"));
        world.sessions.clear();  // as it is on such a module
        world.numClosed = world.numOpened;
        world.slots[0].loggedIn.reset();
        world.initialized = rv != CKR_CRYPTOKI_NOT_INITIALIZED;
    }
}

// --- Login

TEST_F(ModuleTest, LoginStateFollowsTheToken) {
    ASSERT_TRUE(p11->Initialize());
    EXPECT_FALSE(p11->Login(1, XString("x")));
    EXPECT_THAT(p11->errors(), ElementsAre("No PKCS11 session is open."));
    ASSERT_TRUE(p11->OpenSession(-1, true));
    const auto whoIsIn = [this](int user) { return p11->alreadyLoggedIn(user, p11->log()); };
    EXPECT_FALSE(whoIsIn(1));
    EXPECT_TRUE(p11->login(1, world.slots[0].userPin.c_str(), p11->log()));
    EXPECT_TRUE(whoIsIn(-5) && !whoIsIn(2) && !whoIsIn(0));
    forget();
    EXPECT_TRUE(p11->Login(1, XString("anything")));  // logged in already: not tried
    EXPECT_EQ(p11->log().text(), wantedLog("login"));
    EXPECT_FALSE(p11->Login(0, XString(world.slots[0].soPin)));
    EXPECT_THAT(p11->errors(), Contains("C_Login failed with CKR_USER_ANOTHER_ALREADY_LOGGED_IN."));
    EXPECT_TRUE(p11->Logout() && !whoIsIn(1));
    EXPECT_TRUE(p11->Login(0, XString(world.slots[0].soPin)) && whoIsIn(0));
    EXPECT_FALSE(p11->Login(-7, XString("x")));
    EXPECT_EQ(world.journal.back().arguments.at(1), static_cast<CK_ULONG>(-7));
}

TEST_F(ModuleTest, WrongPinIsTriedOnceAndTheTokensStateIsSaid) {
    ASSERT_TRUE(p11->QuickSession(1, XString()));
    const char* const hints[] = {"A wrong user PIN has been entered", "One more wrong user PIN locks it.", "The user PIN is locked", "The user PIN is locked"};
    for (const char* const hint : hints) {
        forget();
        EXPECT_FALSE(p11->Login(1, XString("0000")));
        EXPECT_EQ(world.count("C_Login"), 1U);
        EXPECT_THAT(p11->log().lastHint(), HasSubstr(hint));
        EXPECT_THAT(p11->log().lastError(), HasSubstr("C_Login failed with CKR_PIN_"));
    }
    EXPECT_THAT(p11->values(), Contains("userPinLocked=true"));
}

TEST_F(ModuleTest, PinIsHandedOverWholeAndStaysTheCallers) {
    ASSERT_TRUE(p11->QuickSession(1, XString()));
    forget();
    const std::string cut("1234-secret-user-pin-987\0x", 26);
    EXPECT_FALSE(p11->QuickSession(1, XString(cut)) || p11->Login(1, XString(cut)) || p11->SetPin(XString("x"), XString(cut)) || p11->InitPin(XString(cut)) ||
                 p11->InitToken(1, XString(cut), XString("l")) || p11->InitToken(1, XString("x"), XString(cut)));
    EXPECT_EQ(p11->errors(), std::vector<std::string>(6, "A PIN or label with a NUL character in it is refused."));
    EXPECT_THAT(world.journal, IsEmpty());
    world.spoilsPins = true;
    const XString pin(world.slots[0].userPin);
    EXPECT_TRUE(p11->Login(1, pin));
    EXPECT_EQ(pin.view(), world.slots[0].userPin);
}

TEST_F(ModuleTest, EmptyPinIsLeftToTheReadersPinPadWhereItHasOne) {
    ASSERT_TRUE(p11->QuickSession(1, XString()));
    EXPECT_FALSE(p11->Login(1, XString()));
    world.slots[0].flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    EXPECT_TRUE(p11->Login(1, XString()));
    EXPECT_EQ(world.journal.back().arguments, (std::vector<CK_ULONG>{p11->m_hSession, CKU_USER, 0, 0}));
}

TEST_F(ModuleTest, LoginMakesTheNextSelectionReadAgain) {
    objects() = {certObject(5, "alice", "a"), certObject(6, "bob", "b")};
    objects()[1].isPrivate = true;
    ASSERT_TRUE(p11->QuickSession(1, XString()) && p11->FindAllCerts());
    ASSERT_TRUE(p11->Login(1, XString(world.slots[0].userPin)));
    EXPECT_EQ(p11->get_NumCerts(), 1);  // countable until then
    ClsCert cert;
    EXPECT_TRUE(p11->FindCert(XString("CN"), XString("Bob"), cert));
    EXPECT_EQ(p11->get_NumCerts(), 2);
    EXPECT_TRUE(p11->Logout());
    EXPECT_EQ(p11->get_NumCerts(), 0);
}

}  // namespace
}  // namespace mervane::test
