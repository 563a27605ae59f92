#include "tests/scenarios.h"

#include <thread>

namespace mervane::test {
namespace {

// The caller's certificate is untouched when the call fails.
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

bool findSigner(Pkcs11& p, ScenarioArgs& a) {
    std::vector<TokenInfo> tokens;
    bool isExplained = false;
    const bool found = p.OpenToken({.slotId = 1}, false) && p.Login(1, a.userPin) && p.ListTokens(tokens) && givesCert([&](ClsCert& c) {
                           KeyExplanation explanation;
                           const bool ok = p.FindSigner(a.signer, c);
                           isExplained = ok && p.ExplainPrivateKey(c, explanation);
                           return ok;
                       });
    return found && isExplained;
}

bool signOnce(Pkcs11& p, ScenarioArgs& a) {
    bool isSigned = false;
    a.signature.clear();
    const bool found = p.QuickSession(1, a.userPin) && givesCert([&](ClsCert& c) {
                           const bool ok = p.FindCert(a.commonName, a.curve, c);
                           isSigned = ok && p.linkCertToPkcs11Session(c.getCert().get(), false, p.log()) && p.SignData(c, a.data, {}, a.signature);
                           EXPECT_NE(isSigned, a.signature.empty());
                           return ok;
                       });
    return found && isSigned;
}

bool discoverAll(Pkcs11& p, ScenarioArgs& a) { return p.Discover(false, a.report); }

bool askForObjects(Pkcs11& p, ScenarioArgs& a) {
    return p.QuickSession(1, a.userPin) && p.FindObject(a.description) != 0 && p.FindAllKeys(a.privateWord, a.keys);
}

bool administer(Pkcs11& p, ScenarioArgs& a) {
    const bool ok = p.QuickSession(0, a.soPin) && p.InitPin(a.newPin) && p.Logout() && p.SetPin(a.newPin, a.userPin) && p.CloseSession();
    return p.InitToken(1, a.soPin, a.label) && ok;
}

std::string journalText(const fake::World& world) {
    std::string out;
    for (const fake::Call& call : world.journal) out += call.function + " " + rvName(call.result) + "\n";
    return out;
}

// `asked`: logins requested so far.
void expectUnhurt(Pkcs11& p11, const fake::World& world, int asked) {
    std::size_t numBegun = 0;
    std::size_t numRefused = 0;  // because another one was active, which may be ended
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

// Once the object is gone.
void expectNothingLeft(const fake::World& world) {
    std::size_t numInitialized = 0;
    for (const fake::Call& call : world.journal) numInitialized += call.function == "C_Initialize" && call.result == CKR_OK ? 1 : 0;
    EXPECT_LE(world.count("C_Finalize"), numInitialized);
    EXPECT_THAT(world.sessions, IsEmpty());
    EXPECT_THAT(world.violations, IsEmpty());
}

}  // namespace

ScenarioArgs::ScenarioArgs() {
    description.root().set("id", "65");
    signer.parts = {{"CN", "Alice"}};
}

const std::array<Scenario, 8> kScenarios = {{{"whole session", wholeSession, 1},
                                             {"RSA certificate", findRsa, 1},
                                             {"EC certificate", findEc, 1},
                                             {"signer", findSigner, 1},
                                             {"signature", signOnce, 1},
                                             {"discovery", discoverAll, 0},
                                             {"objects and keys", askForObjects, 1},
                                             {"PINs and token", administer, 1}}};

void furnish(fake::World& world, Token token) {
    static const std::string certs = "cert:alice:a cert:p256:e cert:bob:b ";
    static const std::string crowd = "cert:bob:A key:p256:AA cert:alice:B key:alice:BB:nosign cert:bob:C key:p256:CC cert:alice:D key:alice:DD ";
    static const std::map<Token, std::vector<fake::Object>> tokens = {
        {Token::Plain, objectsOf(certs + "key:alice:x:subject:modulus key:p256:e point:p256:e:wrapped")},
        {Token::Sparse, objectsOf(certs + "key:alice:a key:p256:e")},
        {Token::Crowded, objectsOf(crowd + "cert:bob:E key:p256:EE cert:alice:F key:alice:FF cert:bob:G key:p256:GG cert:alice:H key:alice:HH " + certs +
                                   "key:alice:x:modulus key:p256:e")}};
    fake::Slot& slot = world.slots.at(0);
    slot = {.id = slot.id, .objects = tokens.at(token), .loggedIn = slot.loggedIn};
    if (token == Token::Crowded && world.slots.size() == 1) {
        world.slots.insert(world.slots.end(), {{.id = 2, .tokenPresent = false}, {.id = 3, .label = "second"}});
    }
    world.initializedByOthers = token == Token::Sparse;
    world.needsNullArguments = token == Token::Crowded;
    world.answer = nullptr;
    world.lie = nullptr;
    world.signer = signedByOpenSsl;
}

bool recovers(const FakeModule& module, const Scenario& scenario, Token token, const std::function<void()>& arrange,
              const std::function<void(bool ok)>& disarm) {
    fake::World& world = module.world();
    world.reset();
    furnish(world, token);
    auto p11 = std::make_unique<Pkcs11>();
    p11->put_SharedLibPath(XString(module.path()));
    ScenarioArgs args;
    arrange();
    disarm(scenario.run(*p11, args));
    expectUnhurt(*p11, world, scenario.numLogins);
    furnish(world, token);
    const auto succeeds = [&] { return scenario.run(*p11, *std::make_unique<ScenarioArgs>()); };
    const bool recovered = succeeds() || succeeds();
    expectUnhurt(*p11, world, 3 * scenario.numLogins);
    p11.reset();
    expectNothingLeft(world);
    return recovered;
}

}  // namespace mervane::test
