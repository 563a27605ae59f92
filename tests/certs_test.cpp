// The certificate cache, its enumeration, and every rule of FindCert.

#include "tests/support.h"

namespace mervane::test {
namespace {

class CertsTest : public FakeTest {
  protected:
    // The subject CN that one FindCert gives, or its last error.
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

TEST_F(CertsTest, HolderOfNoCertificateGivesNone) {
    tokenOf({"alice"});
    ClsCert cert;
    ASSERT_TRUE(p11->FindAllCerts() && p11->GetCert(0, cert));
    p11->m_certs.appendObject(std::make_unique<CertificateHolder>(nullptr));
    EXPECT_FALSE(p11->GetCert(1, cert));
    EXPECT_EQ(p11->errors().back(), "Internal error getting cert.");
    EXPECT_EQ(cn(cert), "Alice");  // untouched
    EXPECT_EQ(find("CN", "nobody"), "Not found.");
}

TEST_F(CertsTest, ObjectListedTwiceIsOne) {
    objects() = {certObject(30, "alice", "a"), certObject(20, "bob", "b"), certObject(10, "p256", "c"), certObject(40, "p521", "d")};
    world.lie = [](fake::Outputs& out) {
        if (out.function == "C_FindObjects" && *out.count == 4) out.ids[3] = 20;
    };
    ASSERT_TRUE(quick() && p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), 3);
    world.lie = [](fake::Outputs& out) {  // and never comes to an end
        if (out.function == "C_FindObjects") *out.count = 1, out.ids[0] = 20;
    };
    EXPECT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts() * 10 + p11->get_NumLeftOut(), 11);
    EXPECT_EQ(world.count("C_FindObjects"), 2U + 1 + 4);  // four batches without news
    EXPECT_THAT(p11->infos(), Contains("The module's search does not end; what it found so far is used."));
}

TEST_F(CertsTest, ClearedCacheEndsTheLinksOfWhatWasHandedOut) {
    tokenOf({"alice"});
    ClsCert cert;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(), cert) && cert.HasPrivateKey());
    p11->clearCertCache(p11->log());
    EXPECT_TRUE(p11->get_NumCerts() == 0 && !cert.HasPrivateKey());
    EXPECT_EQ(cn(cert), "Alice");
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
    both.mustHavePrivateKey = true;  // has no effect beside a part
    both.certPart.setString("CN");
    both.certPartVal.setString("Bob");
    ClsCert cert;
    EXPECT_TRUE(p11->findPkcs11Cert(both, cert, p11->log()));
}

TEST_F(CertsTest, SystemCertificatesAreSetByIndexAndMergedByRule) {
    tokenOf({"alice"});
    objects().push_back(keyObject(9, "alice", {.id = "x", .withModulus = true}));
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
    ClsCert signer;
    ASSERT_TRUE(p11->FindSigner({}, signer));
    EXPECT_EQ(signer.systemCerts().getSystemCertsPtr()->all().size(), 1U);
    EXPECT_EQ(own->all().size(), 1U);
}

}  // namespace
}  // namespace mervane::test
