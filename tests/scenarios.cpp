#include "tests/scenarios.h"

#include <thread>

namespace mervane::test {
namespace {

// A certificate of the caller's: untouched when the call is false.
template <class Call>
bool givesCert(Call call) {
    ClsCert cert;
    const bool ok = call(cert);
    EXPECT_EQ(ok, cert.getCert() != nullptr);
    return ok;
}

bool wholeSession(Pkcs11& p, ScenarioArgs& a) {
    const bool ok = p.Initialize() && p.OpenSession(-1, true) && p.Login(1, a.userPin) && p.FindAllCerts() &&
                    givesCert([&](ClsCert& c) { return p.GetCert(0, c); }) && p.Logout();
    return p.CloseSession() && ok;
}

bool findRsa(Pkcs11& p, ScenarioArgs& a) {
    const bool found = p.QuickSession(1, a.userPin) && givesCert([&](ClsCert& c) { return p.FindCert(a.privateKey, a.empty, c); });
    EXPECT_TRUE(!found || p.hasOpenSession());
    return found;
}

bool findEc(Pkcs11& p, ScenarioArgs& a) {
    bool isLinked = false;
    const bool found = p.QuickSession(1, a.userPin) && givesCert([&](ClsCert& c) {
                           const bool ok = p.FindCert(a.commonName, a.curve, c);
                           isLinked = ok && p.linkCertToPkcs11Session(c.getCert().get(), false, p.log());
                           return ok;
                       });
    EXPECT_TRUE(!isLinked || p.hasOpenSession());
    return found && isLinked;
}

bool discoverAll(Pkcs11& p, ScenarioArgs& a) { return p.Discover(false, a.report); }

bool askForObjects(Pkcs11& p, ScenarioArgs& a) {
    return p.QuickSession(1, a.userPin) && p.FindObject(a.description) != 0 && p.FindAllKeys(a.privateWord, a.keys);
}

bool administer(Pkcs11& p, ScenarioArgs& a) {
    const bool ok = p.QuickSession(0, a.soPin) && p.InitPin(a.newPin) && p.Logout() && p.SetPin(a.newPin, a.userPin) && p.CloseSession();
    return p.InitToken(1, a.soPin, a.label) && ok;
}

}  // namespace

ScenarioArgs::ScenarioArgs() { description.root().set("id", "65"); }

const std::array<Scenario, 6> kScenarios = {{{"whole session", wholeSession, 1},
                                             {"RSA certificate", findRsa, 1},
                                             {"EC certificate", findEc, 1},
                                             {"discovery", discoverAll, 0},
                                             {"objects and keys", askForObjects, 1},
                                             {"PINs and token", administer, 1}}};

void furnish(fake::World& world, Token token) {
    static const auto crowded = [] {
        std::vector<fake::Object> objects;
        for (CK_OBJECT_HANDLE i = 0; i < 8; ++i) {
            const std::string id(1, static_cast<char>('A' + i));
            objects.push_back(certObject(40 + i, i % 2 == 0 ? "bob" : "alice", id));
            objects.push_back(keyObject(60 + i, i % 2 == 0 ? "p256" : "alice", {.id = id + id, .maySign = i != 1}));
        }
        return objects;
    }();
    const bool isPlain = token == Token::Plain;
    if (token == Token::Crowded && world.slots.size() == 1) {
        world.slots.insert(world.slots.end(), {{.id = 2, .tokenPresent = false}, {.id = 3, .label = "second"}});
    }
    fake::Slot& slot = world.slots.at(0);
    slot.tokenPresent = true;
    slot.objects = {certObject(10, "alice", "a"), certObject(11, "p256", "e"), certObject(12, "bob", "b"),
                    keyObject(20, "alice", {.id = "x", .withSubject = isPlain, .withModulus = token != Token::Sparse}), keyObject(21, "p256", {.id = "e"})};
    if (isPlain) slot.objects.push_back(ecPublicObject(30, "p256", "e", true));
    if (token == Token::Sparse) slot.objects[3].attributes[CKA_ID] = fake::bytesOf("a");
    if (token == Token::Crowded) slot.objects.insert(slot.objects.begin(), crowded.begin(), crowded.end());
    slot.flags = fake::Slot().flags;
    slot.userPin = fake::Slot().userPin;
    slot.soPin = fake::Slot().soPin;
    world.initializedByOthers = token == Token::Sparse;
    world.needsNullArguments = token == Token::Crowded;
    world.answer = nullptr;
    world.lie = nullptr;
}

static std::string journalText(const fake::World& world) {
    std::string out;
    for (const fake::Call& call : world.journal) out += call.function + " " + rvName(call.result) + "\n";
    return out;
}

void expectUnhurt(Pkcs11& p11, const fake::World& world, int asked) {
    std::size_t numBegun = 0;
    std::size_t numRefused = 0;  // since another one was active, which may be ended
    for (const fake::Call& call : world.journal) {
        if (call.function != "C_FindObjectsInit") continue;
        numBegun += call.result == CKR_OK ? 1 : 0;
        numRefused += call.result == CKR_OPERATION_ACTIVE ? 1 : 0;
    }
    EXPECT_GE(world.count("C_FindObjectsFinal"), numBegun);
    EXPECT_LE(world.count("C_FindObjectsFinal"), numBegun + numRefused);
    EXPECT_EQ(world.numOpened - world.numClosed, p11.hasOpenSession() ? 1 : 0) << journalText(world);
    EXPECT_LE(world.count("C_Login"), static_cast<std::size_t>(asked));
    EXPECT_THAT(world.violations, IsEmpty());
    EXPECT_EQ(p11.log().contextDepth(), 0);
    std::thread([&p11] { p11.get_NumCerts(); }).join();  // the lock is free
    const std::string log = p11.log().text() + p11.log().json();
    for (const auto& pin : {fake::Slot().userPin, fake::Slot().soPin, std::string("a-new-user-pin-000000001")}) { EXPECT_EQ(log.find(pin), std::string::npos); }
}

void expectNothingLeft(const fake::World& world) {
    std::size_t numInitialized = 0;
    for (const fake::Call& call : world.journal) numInitialized += call.function == "C_Initialize" && call.result == CKR_OK ? 1 : 0;
    EXPECT_LE(world.count("C_Finalize"), numInitialized);
    EXPECT_THAT(world.sessions, IsEmpty());
    EXPECT_THAT(world.violations, IsEmpty());
}

}  // namespace mervane::test
