// The certificate cache, its enumeration, and every rule of FindCert.

#include "tests/support.h"

namespace mervane::test {
namespace {

class CertsTest : public FakeTest {
  protected:
    // "alice, bob" or the error, from one FindCert.
    std::string find(const std::string& part, const std::string& value) {
        ClsCert cert;
        const bool found = p11->FindCert(XString(part), XString(value), cert);
        EXPECT_EQ(found, cert.getCert() != nullptr);
        return found ? cn(cert) : p11->errors().back();
    }
    void tokenOf(const std::vector<const char*>& certs) {
        objects().clear();
        CK_OBJECT_HANDLE handle = 10;
        for (const char* const name : certs) {
            objects().push_back(certObject(handle++, name, name));
            objects().push_back(keyObject(handle++, name, {.id = name}));
        }
        ASSERT_TRUE(quick());
    }
};

TEST_F(CertsTest, CacheIsEnumeratedInTheOrderOfTheToken) {
    ClsCert cert;
    EXPECT_TRUE(p11->get_NumCerts() == 0 && !p11->GetCert(0, cert));
    tokenOf({"bob", "alice", "p256"});
    ASSERT_TRUE(p11->FindAllCerts());
    ASSERT_EQ(p11->get_NumCerts(), 3);
    for (const auto& [index, name] : {std::pair{0, "Bob"}, {1, "Alice"}, {2, "Curve 256"}}) {
        EXPECT_TRUE(p11->GetCert(index, cert));
        EXPECT_EQ(cn(cert), name);
        EXPECT_EQ(cert.getCert()->tokenInfo().handle, 10U + 2U * static_cast<unsigned>(index));
    }
    EXPECT_FALSE(p11->GetCert(-1, cert) || p11->GetCert(3, cert));
    EXPECT_EQ(cn(cert), "Curve 256");  // untouched
    EXPECT_EQ(p11->errors(), std::vector<std::string>(3, "Error loading certificate object from DER."));
    p11->m_certs.appendObject(std::make_unique<CertificateHolder>(nullptr));
    EXPECT_FALSE(p11->GetCert(3, cert));
    EXPECT_EQ(p11->errors().back(), "Internal error getting cert.");
    EXPECT_EQ(find("CN", "nobody"), "Not found.");
    p11->clearCertCache(p11->log());
    EXPECT_EQ(p11->get_NumCerts(), 0);
}

TEST_F(CertsTest, LinksOfWhatWasHandedOutLastAsLongAsTheSession) {
    tokenOf({"alice"});
    ClsCert cert;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(), cert) && p11->FindAllCerts());
    EXPECT_TRUE(cert.HasPrivateKey());  // read again since
    ASSERT_TRUE(p11->CloseSession());
    EXPECT_FALSE(cert.HasPrivateKey());
    ASSERT_TRUE(quick() && p11->FindCert(XString("privateKey"), XString(), cert));
    p11->clearCertCache(p11->log());
    EXPECT_THAT(p11->contexts(), Contains("clearPkcs11CertCache"));
    EXPECT_TRUE(p11->get_NumCerts() == 0 && !cert.HasPrivateKey());
    EXPECT_EQ(cn(cert), "Alice");
}

TEST_F(CertsTest, ObjectsThatAreNoCertificatesArePassedOver) {
    tokenOf({"alice"});
    fake::Object broken = certObject(40, "bob", "x");
    broken.attributes[CKA_VALUE] = fake::bytesOf("no DER");
    fake::Object other = certObject(41, "bob", "y");
    other.attributes[CKA_CERTIFICATE_TYPE] = fake::bytesOf(CK_ULONG{1});
    fake::Object secret = certObject(42, "bob", "z");
    secret.sensitive.insert(CKA_VALUE);
    fake::Object padded = certObject(43, "bob", "");
    padded.attributes[CKA_VALUE].resize(padded.attributes[CKA_VALUE].size() + 100);
    fake::Object large = certObject(44, "p256", "w");
    large.attributes[CKA_VALUE].resize(20000);  // more than the common room
    fake::Object gone = certObject(45, "bob", "v");
    objects().insert(objects().end(), {broken, other, secret, padded, large, gone});
    world.answer = [this](auto& f, auto i) {
        const bool vanished = f == "C_GetAttributeValue" && world.journal[i].arguments[1] == 45;
        return vanished ? std::optional<CK_RV>(0x082) : std::nullopt;
    };
    forget();
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), 3);
    EXPECT_EQ(find("CN", "Bob"), "Bob");
    EXPECT_EQ(find("CN", "Curve 256"), "Curve 256");
    EXPECT_THAT(p11->errors(), ElementsAre("The bytes are not an X.509 certificate.", "A certificate object is passed over: its value cannot be read.",
                                           "C_GetAttributeValue failed with CKR_OBJECT_HANDLE_INVALID."));
    EXPECT_THAT(p11->infos(), Contains("A certificate object is passed over: it is not an X.509 certificate."));
    EXPECT_THAT(p11->values(), Contains("objectHandle=45"));
    EXPECT_EQ(world.count("C_GetAttributeValue"), 7U + 2U);  // two more for the large one
}

TEST_F(CertsTest, FailedReadKeepsTheCertificatesReadBefore) {
    tokenOf({"alice"});
    ASSERT_TRUE(p11->FindAllCerts());
    for (const std::string function : {"C_FindObjectsInit", "C_FindObjects", "C_GetAttributeValue"}) {
        world.answer = [&](auto& f, auto) { return f == function ? std::optional<CK_RV>(0x30) : std::nullopt; };
        EXPECT_FALSE(p11->FindAllCerts());
        EXPECT_THAT(p11->log().lastError(), HasSubstr("failed with CKR_DEVICE_ERROR"));
        EXPECT_EQ(p11->get_NumCerts(), 1);
    }
}

TEST_F(CertsTest, SearchLeftOpenBySomebodyIsEndedOnce) {
    tokenOf({"alice"});
    int numActive = 1;
    world.answer = [&](auto& f, auto) { return f == "C_FindObjectsInit" && numActive-- > 0 ? std::optional(CKR_OPERATION_ACTIVE) : std::nullopt; };
    EXPECT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(world.count("C_FindObjectsFinal"), 2U);
}

TEST_F(CertsTest, EveryRuleFindsItsCertificateAndNoOther) {
    objects() = {certObject(10, "alice", "a"), certObject(11, "bob", "b"), certObject(12, "p256", "c")};
    ASSERT_TRUE(quick());
    LogNull log;
    XString print;
    XString withTags;
    loadCert("bob")->getSha1ThumbprintX(print, log);
    loadCert("bob")->getSubjectDN(withTags, log);
    const std::string thumbprint(print.view());
    std::string lower = thumbprint;
    std::ranges::transform(lower, lower.begin(), toLowerAscii);
    for (const auto& row : dataRows("find-cert.txt")) EXPECT_EQ(find(row[0], row[1]), row[2]) << row[0] << " = " << row[1];
    EXPECT_EQ(find("SUBJECTDN_WITHTAGS", std::string(withTags.view())), "Bob");
    EXPECT_EQ(find("thumbprint", thumbprint), "Bob");
    EXPECT_EQ(find("sha1Thumbprint", lower), "Bob");
    EXPECT_EQ(find("thumbprint", thumbprint.substr(2)), "Not found.");
    EXPECT_EQ(world.count("C_FindObjectsInit"), 1U);  // the cache is filled once
    _smartcardCertSpec both;
    both.mustHavePrivateKey = true;  // does not count beside a part
    both.certPart.setString("CN");
    both.certPartVal.setString("Bob");
    ClsCert cert;
    EXPECT_TRUE(p11->findPkcs11Cert(both, cert, p11->log()));
    for (const std::string read : {"0A1B:Test CA", "", "0A1B", "EX, Acme, Sales, Alice, alice@example.org", "Sales"})
        EXPECT_THAT(p11->values(), Contains("checking=" + read));
    EXPECT_THAT(p11->infos(), Contains("Simply choosing the 1st encountered certificate..."));
    EXPECT_THAT(p11->values(), Contains("chosenCert=C=EX, O=Acme, OU=Sales, CN=Alice, E=alice@example.org"));
    EXPECT_THAT(p11->values(), Contains("certPart=SerialIssuer"));
}

TEST_F(CertsTest, OtherIssuersAreChosenBeforeTheAuthenticationCa) {
    const std::pair<std::vector<const char*>, std::string> rows[] = {{{"auth1", "alice"}, "Alice"},
                                                                     {{"alice", "auth1"}, "Alice"},
                                                                     {{"auth1"}, "Auth one"},
                                                                     {{"auth1", "auth2"}, "Auth two"},
                                                                     {{"auth1", "auth2", "alice"}, "Auth two"},
                                                                     {{"near", "alice"}, "Near"}};
    for (const auto& [order, chosen] : rows) {
        tokenOf(order);
        forget();
        const bool onlyCandidate = order.size() == 1;
        EXPECT_EQ(find(" PrivateKey ", "ignored"), chosen);
        if (onlyCandidate) { EXPECT_EQ(p11->log().text(), wantedLog("candidate")); }
        EXPECT_THAT(p11->infos(), testing::Conditional(onlyCandidate, Contains("The candidate certificate was chosen."),
                                                       Not(Contains("The candidate certificate was chosen."))));
        const auto values = p11->values();
        EXPECT_NE(std::ranges::any_of(values, [](auto& v) { return v.starts_with("chosenCertDN="); }), onlyCandidate);
    }
}

TEST_F(CertsTest, CertificatesWithoutKeysAreNotChosenForTheirKey) {
    ASSERT_TRUE(quick());
    EXPECT_EQ(find("", ""), "Not found.");  // nothing there
    objects() = {certObject(10, "alice", "a"), certObject(11, "bob", "b"), certObject(12, "ed", "c")};
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(find("privateKey", ""), "Not found.");
    EXPECT_THAT(p11->values(), Contains("hasPrivateKey=false"));
    EXPECT_THAT(p11->errors(), Contains("Only EC and RSA keys are supported on PKCS11."));
    EXPECT_THAT(p11->values(), Contains("certKeyType=0"));
    ASSERT_TRUE(p11->CloseSession());
    EXPECT_EQ(find("CN", "x"), "No PKCS11 session is open.");
}

TEST_F(CertsTest, SystemCertificatesAreSetByIndexAndMergedByRule) {
    tokenOf({"alice"});
    ClsCert cert;
    const auto own = cert.systemCerts().getSystemCertsPtr();
    own->add(loadCert("bob"));
    ASSERT_TRUE(p11->FindCert(XString("CN"), XString("Alice"), cert));
    EXPECT_EQ(cert.systemCerts().getSystemCertsPtr(), own);
    ASSERT_TRUE(p11->GetCert(0, cert));
    EXPECT_NE(cert.systemCerts().getSystemCertsPtr(), own);
    cert.systemCerts().getSystemCertsPtr()->add(loadCert("p256"));  // the token's store
    ClsCert fresh;
    ASSERT_TRUE(p11->FindCert(XString("CN"), XString("Alice"), fresh));
    EXPECT_NE(fresh.systemCerts().getSystemCertsPtr(), cert.systemCerts().getSystemCertsPtr());
    EXPECT_EQ(fresh.systemCerts().getSystemCertsPtr()->all().size(), 1U);
    EXPECT_EQ(own->all().size(), 1U);
}

}  // namespace
}  // namespace mervane::test
