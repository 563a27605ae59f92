// The choice of a token and of a certificate to sign with, and what is said of the keys that were not taken.

#include <sstream>

#include "foundation/json/writer.h"
#include "locate/uri.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

class SignerTest : public FakeTest {};

SignerQuery queryOf(const std::string& text) {
    SignerQuery query;
    query.at = "2024-01-01T00:00:00Z";
    std::istringstream demands(text);
    for (std::string demand; std::getline(demands, demand, ';');) {
        const std::string name = demand.substr(0, demand.find('='));
        const std::string value = demand.substr(name.size() + 1);
        if (name == "label") {
            query.label = value;
        } else if (name == "id") {
            query.id = value;
        } else if (name == "sha256") {
            query.sha256 = value;
        } else if (name == "at") {
            query.at = value;
        } else {
            query.parts.emplace_back(name, value);
        }
    }
    return query;
}

TEST_F(SignerTest, BestCertificateIsChosenAndTheOthersAreNamed) {
    for (const auto& row : dataRows("find-signer.txt")) {
        SCOPED_TRACE(row[0] + " | " + row[1]);
        objects() = objectsOf(row[0]);
        ASSERT_TRUE(quick());
        ClsCert cert;
        const bool isFound = p11->FindSigner(queryOf(row[1]), cert);
        const auto link = cert.PrivateKeyLink();
        ASSERT_EQ(isFound, link.has_value());
        EXPECT_EQ(isFound ? cn(cert) + " by " + std::string(nameOf(link->facts.rule)) : std::string(nameOf(p11->lastFailure().kind)), row[2]);
        if (isFound) { EXPECT_NE(link->facts.maySign, false); }
        std::string passedOver;
        for (const std::string& line : p11->infos()) {
            if (line.starts_with("Passed over ")) passedOver += line.substr(line.rfind(": ") + 2);
        }
        EXPECT_EQ(passedOver, row[3].empty() ? "" : row[3] + ".");
        p11->log().clear();
    }
}

TEST_F(SignerTest, KeysThatWereNotTakenAreExplained) {
    const std::pair<const char*, const char*> rows[] = {
        {"cert:alice:a key:alice:a key:bob:b:modulus key:alice:a:nosign key:bob::subject",
         R"({"keyBy":"id","disproved":false,"passedOver":[{"handle":3,"id":"62","because":["idDiffers","modulusDiffers"]},)"
         R"({"handle":4,"id":"61","because":["mayNotSign"]},{"handle":5,"id":"","because":["idDiffers","subjectDiffers"]}],"more":0})"},
        {"cert:p256:a key:p521:b:own key:p256:x",
         R"({"keyBy":"guess","disproved":true,"passedOver":[{"handle":3,"id":"78","because":["idDiffers","pointUnknown"]}],"more":0})"},
        {"cert:p256:a key:p256:a:own key:p521:b:own key:p256:a:own",
         R"({"keyBy":"id","disproved":false,"passedOver":[{"handle":3,"id":"62","because":["idDiffers","pointDiffers"]},)"
         R"({"handle":4,"id":"61","because":[]}],"more":0})"},
        {"cert:ed:a key:alice:a", R"({"keyBy":null,"disproved":false,"passedOver":[],"more":0})"},
    };
    for (const auto& [token, wanted] : rows) {
        objects() = objectsOf(token);
        ASSERT_TRUE(quick() && p11->FindAllCerts());
        ClsCert cert;
        KeyExplanation explanation;
        ASSERT_TRUE(p11->GetCert(0, cert) && p11->ExplainPrivateKey(cert, explanation));
        EXPECT_EQ(toJsonText(toJson(explanation), false), wanted) << token;
        EXPECT_FALSE(cert.HasPrivateKey());
    }
    objects().assign(300, keyObject(0, "alice", {.id = "b"}));
    for (std::size_t i = 0; i < objects().size(); ++i) objects()[i].handle = i + 10;
    objects().push_back(certObject(1, "alice", "b"));
    ASSERT_TRUE(quick() && p11->FindAllCerts());
    ClsCert cert;
    KeyExplanation explanation;
    ASSERT_TRUE(p11->GetCert(0, cert) && p11->ExplainPrivateKey(cert, explanation));
    EXPECT_EQ(explanation.passedOver.size() + explanation.numMore, 299U);
    EXPECT_EQ(explanation.passedOver.size(), 100U);
    ClsCert empty;
    EXPECT_FALSE(p11->ExplainPrivateKey(empty, explanation));
    EXPECT_EQ(p11->lastFailure().kind, FailureKind::Argument);
}

TEST_F(SignerTest, OnlyTheTokenThatWasChosenIsOpened) {
    world.slots = {{.id = 1, .label = "one"}, {.id = 2, .label = "two"}, {.id = 3, .label = "two"}, {.id = 4, .label = "new", .flags = 5}};
    world.slots[3].label.append("\0padding", 8);
    p11->put_SharedLibPath(module.path());
    std::vector<TokenInfo> tokens;
    ASSERT_TRUE(p11->ListTokens(tokens));
    ASSERT_EQ(tokens.size(), 4U);
    EXPECT_TRUE(tokens[0].isReadable && tokens[0].isInitialised && tokens[0].isUserPinSet && tokens[0].needsLogin && !tokens[3].isInitialised);
    EXPECT_EQ(tokens[1].label + tokens[1].model + tokens[1].manufacturer + tokens[1].serialNumber, "twoModel FFake maker0002");
    EXPECT_EQ(tokens[3].label, "new");  // some modules end their texts by a NUL
    const std::tuple<TokenChoice, CK_SLOT_ID, FailureKind> rows[] = {
        {{.label = "one"}, 1, FailureKind::None},
        {{.slotId = 4}, 4, FailureKind::None},
        {{.label = "two"}, 0, FailureKind::SeveralTokens},
        {{.slotId = 3, .label = "two"}, 3, FailureKind::None},
        {{.serialNumber = "0002"}, 2, FailureKind::None},
        {{.label = "One"}, 0, FailureKind::NoToken},
        {{.label = "one", .model = "Model G"}, 0, FailureKind::NoToken},
        {{}, 0, FailureKind::SeveralTokens},
    };
    for (const auto& [choice, slot, kind] : rows) {
        TokenInfo token;
        EXPECT_EQ(p11->OpenToken(choice, false), slot != 0);
        EXPECT_EQ(p11->lastFailure().kind, kind) << p11->lastFailure().cause;
        EXPECT_TRUE(slot == 0 || (p11->GetToken(token) && token.slotId == slot && p11->CloseSession()));
        EXPECT_FALSE(p11->hasOpenSession());
    }
    EXPECT_EQ(p11->lastFailure().cause,
              "Several tokens fit: \"one\" (serial number 0001, slot 1), \"two\" (serial number 0002, slot 2), "
              "\"two\" (serial number 0003, slot 3).");
    EXPECT_EQ(p11->lastFailure().hint, "Choose one by label, serial number or slot.");
    EXPECT_FALSE(p11->OpenToken({.slotId = 1, .serialNumber = "s", .manufacturer = "m", .model = "o"}, false));
    EXPECT_EQ(p11->lastFailure().cause, "There is no token with the serial number \"s\" and the manufacturer \"m\" and the model \"o\" in slot 1.");
    ASSERT_TRUE(p11->OpenToken({.slotId = 3}, false));
    EXPECT_THAT(p11->log().text(), AllOf(HasSubstr("label: two"), HasSubstr("serialNumber: 0003")));
}

TEST_F(SignerTest, TokenOfASessionIsToldHoweverItWasOpened) {
    world.slots = {{.id = 3, .label = "three"}};
    TokenInfo token;
    EXPECT_FALSE(p11->GetToken(token));
    ASSERT_TRUE(p11->Initialize() && p11->OpenSession(-1, true));
    ASSERT_TRUE(p11->GetToken(token));
    EXPECT_EQ(token.label, "three");
    forget();
    EXPECT_TRUE(p11->GetToken(token));
    EXPECT_EQ(world.journal.size(), 0U);  // as it was read before
    world.slots = {{.id = 3, .label = "four"}};
    ASSERT_TRUE(p11->OpenSession(3, true) && p11->GetToken(token));
    EXPECT_EQ(token.label, "four");
    world.answer = [](auto& f, auto) { return f == "C_GetTokenInfo" ? std::optional<CK_RV>(0x30) : std::nullopt; };
    ASSERT_TRUE(p11->OpenSession(3, true));
    EXPECT_FALSE(p11->GetToken(token));
    EXPECT_THAT(p11->lastFailure().cause, HasSubstr("cannot be read"));
}

TEST_F(SignerTest, EqualCertificatesAreNamedAsFarAsThereIsRoom) {
    std::string token;
    for (int i = 0; i < 13; ++i) token += "cert:alice:a" + std::to_string(i) + ":from" + std::to_string(20) + " key:alice:a" + std::to_string(i) + " ";
    objects() = objectsOf(token);
    for (fake::Object& object : objects()) {
        // Another serial number each, so that they are not one certificate.
        fake::Bytes& der = object.attributes[CKA_VALUE];
        const fake::Bytes serial = {2, 2, 0x0A, 0x1B};
        const auto at = std::search(der.begin(), der.end(), serial.begin(), serial.end());
        if (at != der.end()) at[3] = static_cast<unsigned char>(object.handle);
    }
    ASSERT_TRUE(quick());
    ClsCert cert;
    EXPECT_FALSE(p11->FindSigner({}, cert));
    const std::string cause = p11->lastFailure().cause;
    EXPECT_EQ(std::ranges::count(cause, ';'), 11);  // ten others, and how many more
    EXPECT_THAT(cause, HasSubstr("; 2 more."));
}

TEST_F(SignerTest, TokenThatCannotBeReadIsNoTokenThatIsNotThere) {
    p11->put_SharedLibPath(module.path());
    world.slots = {{.id = 1, .label = "one"}, {.id = 2, .label = "two"}};
    world.answer = [this](auto& f, auto) { return f == "C_GetTokenInfo" && world.count(f) % 2 == 0 ? std::optional<CK_RV>(0x30) : std::nullopt; };
    EXPECT_FALSE(p11->OpenToken({.label = "two"}, false));
    EXPECT_EQ(p11->lastFailure().cause, "The token in slot 2 cannot be read.");
    EXPECT_EQ(p11->get_NumLeftOut(), 1);
    EXPECT_FALSE(p11->hasOpenSession());
    // Exchanged between the choice and the session: no PIN is to reach it.
    world.answer = [this](auto& f, auto) {
        if (f == "C_OpenSession") world.slots[0].label = "another";
        return std::optional<CK_RV>();
    };
    EXPECT_FALSE(p11->OpenToken({.label = "one"}, false));
    EXPECT_EQ(p11->lastFailure().kind, FailureKind::TokenGone);
    EXPECT_FALSE(p11->hasOpenSession());
}

TEST_F(SignerTest, FailureNamesSlotAndToken) {
    ASSERT_TRUE(quick() && p11->Logout());
    EXPECT_FALSE(p11->Login(1, "wrong"));
    const Failure failure = p11->lastFailure();
    EXPECT_EQ(failure.slotId, 1U);
    world.answer = [](auto& f, auto) { return f == "C_FindObjectsInit" ? std::optional<CK_RV>(0x30) : std::nullopt; };
    EXPECT_FALSE(p11->FindAllCerts());
    EXPECT_EQ(p11->lastFailure().slotId, 1U);
    world.answer = nullptr;
    EXPECT_EQ(failure.tokenLabel + " " + failure.function + " " + failure.rvName(), "fake C_Login CKR_PIN_INCORRECT");
    EXPECT_FALSE(p11->QuickSession(1, "wrong"));
    EXPECT_EQ(p11->log().firstError() + " " + p11->log().lastError() + " " + p11->log().lastHint(),
              "C_Login failed with CKR_PIN_INCORRECT. Failed to login. One more wrong user PIN locks it.");
}

TEST_F(SignerTest, UrisNameCertificateAndKey) {
    objects() = objectsOf("cert:alice:a key:alice:a cert:bob:b");
    ASSERT_TRUE(quick() && p11->FindAllCerts());
    TokenInfo token;
    ClsCert alice;
    ClsCert bob;
    ASSERT_TRUE(p11->GetToken(token) && p11->FindCert("privateKey", "", alice) && p11->GetCert(1, bob));
    const std::string of = "pkcs11:model=Model%20F;manufacturer=Fake%20maker;serial=0001;token=fake;id=";
    EXPECT_THAT(uriOfCert(token, alice).text(), testing::AllOf(testing::StartsWith(of + "a;"), testing::EndsWith("type=cert")));
    ASSERT_TRUE(uriOfKey(token, alice));
    EXPECT_EQ(uriOfKey(token, alice)->text(), of + "a;type=private");
    EXPECT_FALSE(uriOfKey(token, bob));
}

TEST_F(SignerTest, CertificateTellsWhatItIsFor) {
    objects() = objectsOf("cert:alice:a:from20:until21 key:alice:a cert:bob:b");
    ASSERT_TRUE(quick() && p11->FindAllCerts());
    ClsCert cert;
    ASSERT_TRUE(p11->GetCert(0, cert) && !cert.PrivateKeyLink() && !cert.IsCa());
    const auto read = [&cert](void (ClsCert::*reader)(XString&)) {
        XString text("old");
        return (cert.*reader)(text), std::string(text.view());
    };
    EXPECT_EQ(read(&ClsCert::get_IssuerDN) + "|" + read(&ClsCert::get_IssuerCN) + "|" + read(&ClsCert::get_SubjectCN), "C=EX, CN=Test CA|Test CA|Alice");
    EXPECT_EQ(read(&ClsCert::get_SubjectDN) + "|" + read(&ClsCert::get_Label), "C=EX, O=Acme, OU=Sales, CN=Alice, E=alice@example.org|alice");
    EXPECT_EQ(read(&ClsCert::get_SerialNumber) + "|" + std::to_string(read(&ClsCert::get_Sha1Thumbprint).size()), "0A1B|40");
    EXPECT_EQ(read(&ClsCert::get_NotBefore) + "|" + read(&ClsCert::get_NotAfter), "2020-02-03T04:05:06Z|2021-02-03T04:05:06Z");
    EXPECT_EQ(read(&ClsCert::get_CkaId) + "|" + read(&ClsCert::get_Sha256Thumbprint).substr(60, 0), "61|");
    EXPECT_THAT(cert.KeyUsages(), ElementsAre("digitalSignature", "nonRepudiation"));
    EXPECT_THAT(cert.ExtendedKeyUsages(), ElementsAre("clientAuth", "emailProtection"));
    EXPECT_THAT(cert.Policies(), ElementsAre("1.2.3.4", "2.5.29.32.0"));
    EXPECT_EQ(cert.get_KeyType() * 10000 + cert.get_KeyBits(), 12048);
    const std::string pem = cert.ExportPem();
    EXPECT_EQ(pem.find('\n', 28) - 27, 65U);  // 64 characters a line (RFC 7468)
    EXPECT_EQ(cert.ExportDer().size(), cert.getCert()->der().size());
    ASSERT_TRUE(p11->GetCert(1, cert));
    EXPECT_TRUE(cert.IsCa());
    ClsCert empty;
    cert.getCert().reset();
    EXPECT_TRUE(empty.KeyUsages().empty() && empty.ExportDer().empty() && !empty.IsCa() && empty.get_KeyType() == 0);
}

}  // namespace
}  // namespace mervane::test
