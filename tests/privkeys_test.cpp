// Key caches, and every rule that finds the private key of a certificate.

#include <sstream>

#include "foundation/text/ascii.h"
#include "foundation/x509/sessionanchor.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

class KeysTest : public FakeTest {
  protected:
    // Handle of the key found for a certificate of the token; 0 if there is none.
    CK_OBJECT_HANDLE link(int index = 0, bool quickMatch = true) {
        ClsCert cert;
        EXPECT_TRUE((p11->m_certsLoaded || p11->FindAllCerts()) && p11->GetCert(index, cert));
        p11->log().clear();
        const bool isLinked = p11->linkCertToPkcs11Session(cert.getCert().get(), quickMatch, p11->log());
        const auto made = cert.getCert()->pkcs11Link();
        EXPECT_EQ(isLinked, made.has_value());
        if (made) { EXPECT_THAT(p11->values(), Contains("expectedSignatureSize=" + std::to_string(made->expectedSignatureSize))); }
        return made ? made->keyHandle : 0;
    }
    // The log lines about keys: no values, no errors, no context except the retry.
    std::string how() const {
        std::string out;
        std::istringstream lines(p11->log().text());
        for (std::string line; std::getline(lines, line);) {
            const std::string text(trimmed(line));
            const bool counts = text.starts_with("retry") || text.find(':') == std::string::npos;
            if (counts) out += (out.empty() ? "" : " / ") + text;
        }
        return out;
    }
    void onToken(const std::string& text) {
        objects() = objectsOf(text);
        ASSERT_TRUE(quick());
    }
};

TEST_F(KeysTest, EachRuleFindsItsKeyInTurn) {
    for (const auto& row : dataRows("find-key.txt")) {
        SCOPED_TRACE(row[0]);
        onToken(row[0]);
        EXPECT_EQ(link(0, row[1] == "quick"), std::stoul(row[2]));
        EXPECT_EQ(how(), row[3]);
        EXPECT_THAT(p11->values(),
                    testing::IsSupersetOf({"expectedSignatureSize=" + row[4], std::string("hasPrivateKey=") + (row[2] == "0" ? "false" : "true")}));
        std::string errors;
        for (const std::string& error : p11->errors()) errors += (errors.empty() ? "" : " / ") + error;
        EXPECT_EQ(errors, row[5]);
        if (!row[6].empty()) { EXPECT_EQ(p11->log().text(), wanted("wanted/" + row[6])); }
    }
}

// A search that fails is no search that finds nothing: the second certificate's key must not be taken.
TEST_F(KeysTest, KeyThatCannotBeLookedForEndsTheChoice) {
    for (const char* const token : {"cert:alice:a cert:bob:b key:alice:x:modulus key:bob:b", "cert:p256:a cert:p521:b key:p521:b key:p256:x point:p256:x"}) {
        for (int failing = 1; failing <= 3; ++failing) {
            onToken(token);
            const std::size_t before = world.count("C_FindObjectsInit");
            const auto at = before + static_cast<std::size_t>(failing);
            world.answer = [&](auto& f, auto) { return f == "C_FindObjectsInit" && world.count(f) == at ? std::optional<CK_RV>(0x30) : std::nullopt; };
            ClsCert cert;
            EXPECT_FALSE(p11->FindCert(XString("privateKey"), XString(), cert)) << token << failing;
            EXPECT_EQ(p11->lastFailure().cause, "C_FindObjectsInit failed with CKR_DEVICE_ERROR (0x30).");
            EXPECT_EQ(p11->lastFailure().kind, FailureKind::ModuleFailed);
            world.answer = nullptr;
        }
    }
}

TEST_F(KeysTest, ReadingTheCertificatesForgetsTheKeys) {
    onToken("cert:p256:a key:p256:a");
    EXPECT_EQ(link(), 2U);
    objects() = objectsOf("cert:p256:a key:bp384:o key:p256:a");  // by another program
    EXPECT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(link(), 3U);
    world.answer = [](auto& f, auto) { return f == "C_Login" ? std::optional<CK_RV>(CKR_OK) : std::nullopt; };
    EXPECT_TRUE(p11->login(2, "1", p11->log()));  // changes nothing of what can be seen
    world.answer = nullptr;
    EXPECT_TRUE(p11->m_certsLoaded && p11->m_ecdsaKeysLoaded);
    onToken("cert:alice:a key:alice:a");
    EXPECT_EQ(link(), 2U);
    objects() = objectsOf("cert:alice:a key:bob:o key:alice:a");
    EXPECT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(link(), 3U);
}

// The same for a key, or its point, that cannot be read: once, it is read again; else nothing is guessed.
TEST_F(KeysTest, KeyThatCannotBeReadMayBeTheOne) {
    struct {
        const char* token;
        CK_OBJECT_HANDLE unread;
        CK_OBJECT_HANDLE found;  // by the first certificate, once it can be read
    } const kRows[] = {
        {"cert:alice:a cert:bob:b key:alice:a key:bob:b", 3, 3},
        {"cert:alice:a cert:bob:b key:bob:b key:alice:x:modulus", 4, 4},
        {"cert:p521:a cert:p256:b key:p256:x key:p521:y point:p256:x point:p521:y", 6, 4},
        {"cert:p521:a cert:p256:b key:p256:x key:p521:a", 4, 4},
        {"cert:p521:a cert:p256:b key:p256:x key:p521:y:own", 4, 4},
        {"cert:alice:a key:bob:b key:alice:x:modulus", 3, 3},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.token);
        std::size_t numFailing = 0;
        world.answer = [&](auto& f, auto i) {
            const bool isMeant = f == "C_GetAttributeValue" && world.journal[i].arguments[1] == row.unread;
            return isMeant && numFailing != 0 && numFailing-- != 0 ? std::optional<CK_RV>(5) : std::nullopt;
        };
        for (const bool quickMatch : {true, false}) {
            numFailing = 1;
            onToken(row.token);
            EXPECT_EQ(link(0, quickMatch), row.found);
            EXPECT_EQ(p11->get_NumLeftOut(), 0);
        }
        onToken(row.token);
        numFailing = 99;
        EXPECT_EQ(link(), 0U);
        EXPECT_EQ(p11->lastFailure().kind, FailureKind::ModuleFailed);
        EXPECT_EQ(p11->lastFailure().cause, "C_GetAttributeValue failed with CKR_GENERAL_ERROR (0x5).");
        EXPECT_EQ(p11->get_NumLeftOut(), 1);
        ClsCert cert;
        EXPECT_FALSE(p11->FindCert(XString("privateKey"), XString(), cert));
        EXPECT_EQ(p11->lastFailure().cause, "C_GetAttributeValue failed with CKR_GENERAL_ERROR (0x5).");
    }
}

TEST_F(KeysTest, LongValueBesideAMissingOneIsRead) {
    onToken("cert:alice:a:large cert:bob:b");
    objects()[0].attributes.erase(CKA_LABEL);  // the module reports the missing one
    EXPECT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), 2);
}

TEST_F(KeysTest, QuickReadingForgetsWhatAThoroughOneKnew) {
    onToken("cert:alice:a key:alice:x:subject:modulus");
    EXPECT_TRUE(p11->cacheRsaPrivateKeys(true, true, p11->log()) && p11->cacheEcdsaPrivateKeys(false, p11->log()));
    p11->clearPrivateKeyCaches();
    EXPECT_FALSE(p11->m_rsaKeysLoaded || p11->m_ecdsaKeysLoaded);
    EXPECT_EQ(p11->m_rsaPrivKeys.getSize(), 0);
    EXPECT_TRUE(p11->m_rsaKeysHaveSubject && p11->m_rsaKeysHaveModulus);  // until the next reading
    EXPECT_TRUE(p11->cacheRsaPrivateKeys(false, false, p11->log()));
    EXPECT_FALSE(p11->m_rsaKeysHaveSubject || p11->m_rsaKeysHaveModulus);
}

TEST_F(KeysTest, NoCertificateIsLinkedToNothing) {
    EXPECT_FALSE(p11->linkCertToPkcs11Session(nullptr, true, p11->log()));
    EXPECT_EQ(p11->log().text(), "linkCertToPkcs11Session:\n");
}

TEST_F(KeysTest, ThousandsOfKeysThatMayNotSignAreNotAllNamed) {
    objects() = {certObject(10, "alice", "a")};
    objects().resize(3001, keyObject(0, "alice", {.id = "a", .maySign = false}));
    for (CK_OBJECT_HANDLE i = 1; i <= 3000; ++i) objects()[i].handle = 100 + i;
    objects()[2999] = keyObject(99, "alice", {.id = "a"});
    ASSERT_TRUE(quick());
    EXPECT_EQ(link(), 99U);
    EXPECT_EQ(p11->infos().size(), 1U + 100U + 1U);
    EXPECT_THAT(how(), testing::EndsWith("by ID."));
}

TEST_F(KeysTest, OneCallReadsOneObject) {
    constexpr CK_ULONG kNum = 40;
    for (const auto& row : dataRows("key-reads.txt")) {
        SCOPED_TRACE(row[0] + ": " + row[1]);
        const auto has = [&row](const char* what) { return row[1].find(what) != std::string::npos; };
        objects().clear();
        for (CK_ULONG i = 0; i < kNum; ++i) {
            const std::string id = "id" + std::to_string(i);
            const bool isEven = i % 2 == 0;
            const std::string cert = row[0].substr(isEven ? 0 : row[0].find(' ') + 1, isEven ? row[0].find(' ') : std::string::npos);
            objects().push_back(certObject(100 + i, cert, has("ids") ? id : ""));
            objects().push_back(keyObject(200 + i, cert, {.id = id, .withSubject = has("modulus") && isEven, .withModulus = has("modulus")}));
            if (i % 3 == 0) objects().back().attributes.erase(CKA_ALWAYS_AUTHENTICATE);  // a missing one costs no call
            if (has("points")) objects().push_back(ecPublicObject(300 + i, cert, id, isEven));
        }
        ASSERT_TRUE(quick());
        world.answer = [&](auto& f, auto i) {
            const bool isRefused = has("unreadable") && f == "C_GetAttributeValue" && world.journal[i].arguments[1] >= 200;
            return isRefused ? std::optional(CKR_GENERAL_ERROR) : std::nullopt;
        };
        world.journal.clear();
        const CK_ULONG numKeys = std::stoul(row[2]);
        for (CK_ULONG i = 0; i < kNum; ++i) EXPECT_EQ(link(static_cast<int>(i), !has("points")), numKeys == 0 ? 0 : 200 + i % numKeys);
        EXPECT_EQ(world.count("C_GetAttributeValue"), static_cast<CK_ULONG>(std::stod(row[3]) * kNum));
        EXPECT_EQ(world.count("C_FindObjectsInit"), std::stoul(row[4]));
        EXPECT_LE(world.count("C_FindObjects"), 2 * std::stoul(row[4]));
        world.answer = nullptr;
    }
}

// A module that departs from the standard where an attribute is missing or too long.
TEST_F(KeysTest, ModuleThatGivesUpAtAMissingAttributeIsAskedOneByOne) {
    objects() = objectsOf("cert:alice:a cert:bob:b key:alice:a");
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
    EXPECT_EQ(link(), 3U);
    EXPECT_THAT(how(), testing::EndsWith("by ID."));
    EXPECT_EQ(p11->get_NumCerts(), 2);
}

}  // namespace
}  // namespace mervane::test
