// Key caches, and every rule that finds the private key of a certificate.

#include "foundation/x509/sessionanchor.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

const std::string kLooking = "Looking for a matching RSA private key...";
const std::string kById = "Found matching PKCS11 RSA private key by ID.";
const std::string kBySubject = "Found matching PKCS11 RSA private key by Subject DER.";
const std::string kByModulus = "Found matching PKCS11 RSA private key by modulus.";
const std::string kEcMatch = "Found matching PKCS11 ECDSA private key.";
const std::string kEcFirst = "Using first PKCS11 ECDSA private key";
const std::string kNoRsa = "No matching RSA private key found.";
std::string noSign(const std::string& by) { return "Found matching PKCS11 RSA private key by " + by + ", but it does not have the CKA_SIGN attribute."; }

class KeysTest : public FakeTest {
  protected:
    // Handle of the key found for the token's first certificate.
    CK_OBJECT_HANDLE link(bool quickMatch = true) {
        ClsCert cert;
        EXPECT_TRUE(p11->FindAllCerts() && p11->GetCert(0, cert));
        forget();
        m_linked = p11->linkCertToPkcs11Session(cert.getCert().get(), quickMatch, p11->log());
        const auto made = cert.getCert()->pkcs11Link();
        EXPECT_EQ(m_linked, made.has_value());
        signatureSize = made ? made->expectedSignatureSize : 0;
        return made ? made->keyHandle : 0;
    }
    // Handles of the keys found for all certificates of the token, each of which has one.
    std::vector<CK_OBJECT_HANDLE> linkAll() {
        std::vector<CK_OBJECT_HANDLE> keys;
        EXPECT_TRUE(quick() && p11->FindAllCerts());
        for (int i = 0; i < p11->get_NumCerts(); ++i) {
            ClsCert cert;
            EXPECT_TRUE(p11->GetCert(i, cert) && p11->linkCertToPkcs11Session(cert.getCert().get(), true, p11->log()));
            keys.push_back(cert.getCert()->pkcs11Link().value().keyHandle);
        }
        return keys;
    }
    // The info lines about keys, without the one that begins the search.
    std::vector<std::string> how() const {
        auto out = p11->infos();
        std::erase(out, kLooking);
        return out;
    }
    int signatureSize = 0;
    bool m_linked = false;
};

TEST_F(KeysTest, RsaKeyIsFoundByEachRuleInTurn) {
    const fake::Object alice = certObject(10, "alice", "a");
    const fake::Object other = certObject(11, "bob", "b");
    const KeyTraits full{.id = "x", .withSubject = true, .withModulus = true};
    fake::Object unsaid = keyObject(20, "alice", {.id = "a"});
    unsaid.attributes.erase(CKA_SIGN);
    const struct {
        std::string what;
        std::vector<fake::Object> objects;
        CK_OBJECT_HANDLE key;
        std::vector<std::string> lines;
        bool isRetried = false;
    } rows[] = {
        {"by ID", {alice, other, keyObject(20, "bob", {.id = "b"}), keyObject(21, "alice", {.id = "a"})}, 21, {kById}},
        {"first of two by ID", {alice, keyObject(20, "alice", {.id = "a"}), keyObject(21, "alice", {.id = "a"})}, 20, {kById}},
        {"later one that may sign",
         {alice, keyObject(20, "alice", {.id = "a", .maySign = false}), keyObject(21, "alice", {.id = "a"})},
         21,
         {noSign("ID"), kById}},
        {"by subject in the retry",
         {alice, other, keyObject(20, "bob", full), keyObject(21, "alice", {.id = "x", .withSubject = true})},
         21,
         {kBySubject},
         true},
        {"by modulus", {alice, other, keyObject(21, "alice", {.id = "x", .withModulus = true})}, 21, {kByModulus}, true},
        {"by modulus with a zero byte",
         {alice, other, keyObject(21, "alice", {.id = "x", .withModulus = true, .modulusWithZero = true})},
         21,
         {kByModulus},
         true},
        {"the first of both forms of the modulus",
         {alice, other, keyObject(20, "alice", {.id = "x", .withModulus = true, .modulusWithZero = true}),
          keyObject(21, "alice", {.id = "y", .withModulus = true})},
         20,
         {kByModulus},
         true},
        {"none may sign",
         {alice, other, keyObject(20, "alice", {.id = "a", .maySign = false, .withSubject = true, .withModulus = true})},
         0,
         {noSign("ID"), noSign("Subject DER"), noSign("modulus"), kNoRsa},
         true},
        {"the first of both forms, the other way round",
         {alice, other, keyObject(20, "alice", {.id = "x", .withModulus = true}),
          keyObject(21, "alice", {.id = "y", .withModulus = true, .modulusWithZero = true})},
         20,
         {kByModulus},
         true},
        {"not said that it may sign", {alice, other, unsaid}, 0, {noSign("ID"), kNoRsa}, true},
        {"two possible keys", {alice, keyObject(20, "bob", {.id = "b"}), keyObject(21, "bob", {.id = "b"})}, 0, {kNoRsa}, true},
        {"only possible key", {alice, keyObject(20, "bob", {.id = "b", .maySign = false})}, 20, {"Using only possible private key"}},
        {"two certificates", {alice, other, keyObject(20, "bob", {.id = "b"})}, 0, {kNoRsa}, true},
        {"no IDs at all", {certObject(10, "alice", ""), other, keyObject(20, "bob", {.id = ""})}, 0, {kNoRsa}, true},
        {"no keys", {alice}, 0, {kNoRsa}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        objects() = row.objects;
        ASSERT_TRUE(quick());
        EXPECT_EQ(link(), row.key);
        EXPECT_EQ(how(), row.lines);
        EXPECT_THAT(p11->values(),
                    testing::IsSupersetOf({std::string("expectedSignatureSize=256"), std::string("hasPrivateKey=") + (row.key != 0 ? "true" : "false")}));
        EXPECT_EQ(p11->infos().at(0), kLooking);
        const auto contexts = p11->contexts();
        EXPECT_EQ(std::ranges::count(contexts, "retry_subjectDer_modulus"), row.isRetried ? 1 : 0);
        if (row.what == "by modulus") { EXPECT_EQ(p11->log().text(), wantedLog("link-rsa")); }
        if (row.key == 0) { EXPECT_THAT(p11->errors(), ElementsAre("No matching private key found on the HSM.")); }
    }
}

TEST_F(KeysTest, ThoroughFillReadsSubjectAndModulusAtOnce) {
    objects() = {certObject(10, "alice", "a"), certObject(11, "bob", "b"), keyObject(20, "alice", {.id = "x", .withSubject = true, .withModulus = true})};
    ASSERT_TRUE(quick());
    EXPECT_EQ(link(false), 20U);
    EXPECT_THAT(how(), ElementsAre(kBySubject));
    EXPECT_TRUE(p11->m_rsaKeysHaveSubject && p11->m_rsaKeysHaveModulus);
    EXPECT_THAT(p11->contexts(), Not(Contains("retry_subjectDer_modulus")));
    objects()[2].attributes[CKA_SUBJECT].clear();
    objects()[2].attributes[CKA_MODULUS].clear();
    ASSERT_TRUE(quick());
    EXPECT_EQ(link(false), 0U);  // all was read: no retry
    EXPECT_THAT(p11->contexts(), Not(Contains("retry_subjectDer_modulus")));
    p11->clearPrivateKeyCaches();
    EXPECT_FALSE(p11->m_rsaKeysLoaded || p11->m_ecdsaKeysLoaded);
    EXPECT_EQ(p11->m_rsaPrivKeys.getSize() + p11->m_ecdsaPrivKeys.getSize(), 0);
    EXPECT_TRUE(p11->m_rsaKeysHaveSubject && p11->m_rsaKeysHaveModulus);  // until the next fill
    EXPECT_TRUE(p11->cacheRsaPrivateKeys(false, false, p11->log()));
    EXPECT_FALSE(p11->m_rsaKeysHaveSubject || p11->m_rsaKeysHaveModulus);
}

TEST_F(KeysTest, EcKeyIsFoundByIdByPointOrFirst) {
    const fake::Object p256 = certObject(10, "p256", "a");
    const fake::Object p521 = certObject(10, "p521", "a");
    fake::Object ownPoint = keyObject(22, "p256", {.id = "z"});
    ownPoint.attributes[CKA_EC_POINT] = ecPublicObject(0, "p256", "", true).attributes[CKA_EC_POINT];
    const auto other = keyObject(20, "bp384", {.id = "o"});
    const struct {
        std::string what;
        std::vector<fake::Object> objects;
        bool quickMatch;
        CK_OBJECT_HANDLE key;
        std::vector<std::string> lines;
        int signatureSize;
    } rows[] = {
        {"by ID", {p256, other, keyObject(21, "p256", {.id = "a"})}, true, 21, {kEcMatch}, 64},
        {"by ID though it may not sign", {p256, other, keyObject(21, "p256", {.id = "a", .maySign = false})}, true, 21, {kEcMatch}, 64},
        {"by raw point", {p256, other, keyObject(21, "p256", {.id = "x"}), ecPublicObject(30, "p256", "x", false)}, false, 21, {kEcMatch}, 64},
        {"by wrapped point", {p521, other, keyObject(21, "p521", {.id = "x"}), ecPublicObject(30, "p521", "x", true)}, false, 21, {kEcMatch}, 132},
        {"by the point of the private key", {p256, other, ownPoint}, false, 22, {kEcMatch}, 64},
        {"a quick match reads no points", {p256, other, keyObject(21, "p256", {.id = "x"}), ecPublicObject(30, "p256", "x", false)}, true, 20, {kEcFirst}, 64},
        {"first of several", {p256, other, keyObject(21, "p521", {.id = "q"})}, false, 20, {kEcFirst}, 64},
        {"no EC key", {p256, keyObject(20, "alice", {.id = "a"})}, true, 0, {}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        objects() = row.objects;
        ASSERT_TRUE(quick());
        EXPECT_EQ(link(row.quickMatch), row.key);
        EXPECT_EQ(how(), row.lines);
        EXPECT_EQ(signatureSize, row.signatureSize);
        EXPECT_EQ(p11->errors().at(0), "Certificate key type is ECDSA.");
        if (row.what == "by raw point") { EXPECT_EQ(p11->log().text(), wantedLog("link-ec")); }
        if (row.key == 0) { EXPECT_THAT(p11->errors(), ElementsAre("Certificate key type is ECDSA.", "No matching private key found on the HSM.")); }
    }
    // Points are added to a cache that was filled without.
    objects() = rows[2].objects;
    ASSERT_TRUE(quick());
    EXPECT_EQ(link(true), 20U);
    EXPECT_EQ(link(false), 21U);
}

TEST_F(KeysTest, ExpectedSignatureSizeFollowsTheKey) {
    const std::tuple<const char*, int, int> rows[] = {{"alice", 1, 256}, {"rsa2047", 1, 256}, {"p256", 3, 64},    {"p521", 3, 132},
                                                      {"bp384", 3, 96},  {"p224", 0, 0},      {"explicit", 0, 0}, {"ed", 0, 0}};
    ASSERT_TRUE(quick());
    for (const auto& [cert, wantedType, wantedSize] : rows) {
        int type = -1;
        int size = -1;
        EXPECT_EQ(p11->findPrivKeyHandle(*loadCert(cert), true, type, size, p11->log()), 0U);
        EXPECT_EQ(type, wantedType) << cert;
        EXPECT_EQ(size, wantedSize) << cert;
    }
    forget();
    EXPECT_FALSE(p11->linkCertToPkcs11Session(nullptr, true, p11->log()));  // logs its context alone
    EXPECT_THAT(p11->contexts(), ElementsAre("linkCertToPkcs11Session"));
    EXPECT_TRUE(p11->errors().empty() && p11->values().empty());
}

TEST_F(KeysTest, ModuleOfOneHandleNeedsNoSearch) {
    const FakeModule special("libkeyfactorpkcs11.so");
    special.world().slots[0].objects = {certObject(77, "ed", "a"), certObject(78, "p256", "b")};
    p11->put_SharedLibPath(XString(special.path()));
    ClsCert cert;
    ASSERT_TRUE(p11->QuickSession(1, XString()) && p11->FindCert(XString("CN"), XString("Curve 256"), cert));
    EXPECT_TRUE(p11->linkCertToPkcs11Session(cert.getCert().get(), true, p11->log()));
    EXPECT_EQ(cert.getCert()->pkcs11Link()->keyHandle, 78U);
    EXPECT_THAT(p11->log().text(), testing::EndsWith(wantedLog("link-one-handle")));
    EXPECT_EQ(cert.getCert()->pkcs11Link()->expectedSignatureSize, 64);
    EXPECT_THAT(p11->infos(), Contains("Using certificate's PKCS11 handle as the private key handle..."));
    // No key type is refused here.
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(), cert));
    EXPECT_EQ(cert.getCert()->pkcs11Link()->keyHandle, 77U);
    EXPECT_THAT(p11->values(), Contains("certKeyType=0"));
    EXPECT_FALSE(p11->m_rsaKeysLoaded || p11->m_ecdsaKeysLoaded);
    p11.reset();
    EXPECT_THAT(special.world().violations, IsEmpty());
}

TEST_F(KeysTest, CertificateWithAMalformedSubjectIsStillMatchedByItsModulus) {
    fake::Object broken = certObject(10, "alice", "a");
    fake::Bytes& der = broken.attributes[CKA_VALUE];
    const std::string acme = "Acme";  // its length, one octet before it, is made one too large
    *(std::search(der.begin(), der.end(), acme.begin(), acme.end()) - 1) += 1;
    objects() = {broken, certObject(11, "bob", "b"), keyObject(20, "alice", {.id = "x", .withSubject = true, .withModulus = true})};
    ASSERT_TRUE(quick());
    EXPECT_EQ(link(), 20U);
    EXPECT_THAT(p11->errors(), Contains("Unable to get cert SubjectDN DER."));
    EXPECT_THAT(how(), ElementsAre(kByModulus));
}

TEST_F(KeysTest, FailureToReadKeysEndsTheSearchInItsOwnWay) {
    objects() = {certObject(10, "alice", "a"), certObject(11, "bob", "q"), keyObject(20, "bob", {.id = "b"})};
    ASSERT_TRUE(quick());
    int numLeft = 0;
    world.answer = [&](auto& f, auto) { return f == "C_FindObjectsInit" && --numLeft == 0 ? std::optional(CKR_GENERAL_ERROR) : std::nullopt; };
    numLeft = 2;  // the first is the certificates', the second the quick fill, the third the retry
    EXPECT_EQ(link(), 0U);
    EXPECT_THAT(how(), IsEmpty());
    numLeft = 3;
    EXPECT_EQ(link(), 0U);
    EXPECT_EQ(how().back(), kNoRsa);
    objects() = {certObject(10, "p256", "a"), keyObject(20, "p256", {.id = "a"})};
    ASSERT_TRUE(quick());
    numLeft = 2;
    EXPECT_EQ(link(), 0U);
    EXPECT_THAT(how(), IsEmpty());
}

TEST_F(KeysTest, ThousandsOfKeysThatMayNotSignAreNotAllNamed) {
    objects() = {certObject(10, "alice", "a")};
    for (CK_OBJECT_HANDLE i = 0; i < 3000; ++i) objects().push_back(keyObject(100 + i, "alice", {.id = i % 2 == 0 ? "a" : "x", .maySign = i == 2998}));
    ASSERT_TRUE(quick());
    EXPECT_EQ(link(), 100U + 2998U);
    EXPECT_EQ(how().size(), 101U);
    EXPECT_EQ(how().back(), kById);
}

TEST_F(KeysTest, OneCallReadsOneObject) {
    constexpr CK_ULONG kNum = 50;
    for (CK_ULONG i = 0; i < kNum; ++i) {
        const std::string id = "id" + std::to_string(i);
        objects().push_back(certObject(100 + i, i % 2 == 0 ? "alice" : "bob", id));
        objects().push_back(keyObject(200 + i, i % 2 == 0 ? "alice" : "bob", {.id = id}));
        if (i % 3 == 0) objects().back().attributes.erase(CKA_ALWAYS_AUTHENTICATE);  // lacking one costs no call
    }
    const auto keys = linkAll();
    ASSERT_EQ(keys.size(), kNum);
    for (CK_ULONG i = 0; i < kNum; ++i) EXPECT_EQ(keys[i], 200 + i);
    EXPECT_EQ(world.count("C_GetAttributeValue"), 2 * kNum);
    EXPECT_EQ(world.count("C_FindObjects"), 4U);
    EXPECT_LE(world.journal.size(), 2 * kNum + 14);
}

TEST_F(KeysTest, KeysThatCannotBeReadAreAskedForOnce) {
    for (CK_OBJECT_HANDLE i = 0; i < 20; ++i) {
        objects().push_back(certObject(100 + i, "alice", "a"));
        objects().push_back(keyObject(200 + i, "alice", {.id = "a"}));
    }
    ASSERT_TRUE(quick());
    world.answer = [this](auto& f, auto i) {
        return f == "C_GetAttributeValue" && world.journal[i].arguments[1] >= 200 ? std::optional(CKR_GENERAL_ERROR) : std::nullopt;
    };
    ClsCert cert;
    EXPECT_FALSE(p11->FindCert(XString("privateKey"), XString(), cert));
    EXPECT_EQ(world.count("C_GetAttributeValue"), 40U);
}

TEST_F(KeysTest, MatchingBySubjectOrModulusReadsEachKeyTwiceAtMost) {
    constexpr CK_ULONG kNum = 40;
    for (CK_ULONG i = 0; i < kNum; ++i) {
        const char* const cert = i % 2 == 0 ? "alice" : "bob";
        objects().push_back(certObject(100 + i, cert, ""));
        objects().push_back(keyObject(200 + i, cert, {.id = "k", .withSubject = i % 2 == 0, .withModulus = true}));
    }
    EXPECT_EQ(linkAll().size(), kNum);
    EXPECT_EQ(world.count("C_GetAttributeValue"), 3 * kNum);
    EXPECT_LE(world.journal.size(), 3 * kNum + 20);
}

// Modules that do not do as the standard has it with a missing attribute, or with one that is too long.
TEST_F(KeysTest, ModuleThatGivesUpAtAMissingAttributeIsAskedOneByOne) {
    objects() = {certObject(10, "alice", "a"), certObject(11, "bob", "b"), keyObject(20, "alice", {.id = "a"})};
    objects()[0].attributes[CKA_VALUE].resize(20000);
    ASSERT_TRUE(quick());
    world.lie = [](fake::Outputs& out) {
        if (out.function != "C_GetAttributeValue" || out.room == 1) return;
        for (CK_ULONG i = 0; i < out.room; ++i) {  // untouched: as before the call
            CK_ATTRIBUTE& a = out.attributes[i];
            const bool isNumber = a.type == CKA_CERTIFICATE_TYPE;
            const bool isFlag = a.type == CKA_SIGN || a.type == CKA_ALWAYS_AUTHENTICATE;
            a.ulValueLen = isFlag ? 1 : isNumber ? sizeof(CK_ULONG) : a.type == CKA_VALUE ? 8192 : 1024;
            std::memset(a.pValue, isFlag || isNumber ? 0xFF : 0, a.ulValueLen);
        }
        out.result = CKR_ATTRIBUTE_TYPE_INVALID;
    };
    EXPECT_EQ(link(), 20U);
    EXPECT_THAT(how(), ElementsAre(kById));
    EXPECT_EQ(p11->get_NumCerts(), 2);
}

}  // namespace
}  // namespace mervane::test
