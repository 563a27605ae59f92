// Signing with the key of a certificate: what the module is asked, what it may answer, and what leaves. OpenSSL has
// the keys, and verifies.

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "foundation/digest/digest.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

constexpr Hash kHashes[] = {Hash::Sha256, Hash::Sha384, Hash::Sha512};

const EVP_MD* opensslHash(Hash hash) { return hash == Hash::Sha256 ? EVP_sha256() : hash == Hash::Sha384 ? EVP_sha384() : EVP_sha512(); }

using Bytes = std::vector<std::uint8_t>;
using X509Cert = std::unique_ptr<X509, decltype(&X509_free)>;

X509Cert opensslCert(ClsCert& cert) {
    const Bytes der = cert.ExportDer();
    const unsigned char* at = der.data();
    return {d2i_X509(nullptr, &at, static_cast<long>(der.size())), &X509_free};
}

bool verifies(ClsCert& cert, const Bytes& data, const Bytes& signature, Hash hash, bool isPss) {
    const X509Cert x509 = opensslCert(cert);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    EVP_PKEY_CTX* key = nullptr;
    EVP_DigestVerifyInit(context.get(), &key, opensslHash(hash), nullptr, X509_get0_pubkey(x509.get()));
    if (isPss) EVP_PKEY_CTX_set_rsa_padding(key, RSA_PKCS1_PSS_PADDING), EVP_PKEY_CTX_set_rsa_pss_saltlen(key, RSA_PSS_SALTLEN_DIGEST);
    return EVP_DigestVerify(context.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
}

// Gives data in pieces of odd sizes.
DataReader readerOf(const Bytes& data) {
    return [&data, at = std::size_t{0}](std::span<std::uint8_t> room) mutable {
        const std::size_t size = std::min({room.size(), data.size() - at, std::size_t{40001}});
        std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(at), size, room.begin());
        at += size;
        return static_cast<std::ptrdiff_t>(size);
    };
}

class SigningTest : public FakeTest {
  protected:
    // A session with a certificate that is linked to its key.
    void link(const std::string& token, const std::string& part = "privateKey") {
        objects() = objectsOf(token);
        world.signer = signedByOpenSsl;
        ASSERT_TRUE(quick() && p11->FindCert(part == "privateKey" ? "privateKey" : "CN", part == "privateKey" ? "" : part, cert)) << p11->log().text();
        p11->linkCertToPkcs11Session(cert.getCert().get(), true, p11->log());
        forget();
    }
    void set(CK_ATTRIBUTE_TYPE type, bool value) { objects().back().attributes[type] = fake::bytesOf(value); }
    // The functions called since forget(), with numbers that matter.
    std::string called() const {
        std::string out;
        for (const fake::Call& call : world.journal) {
            out += (out.empty() ? "" : " ") + call.function.substr(2);
            if (call.function == "C_SignInit") out += ":" + std::to_string(call.arguments[1]);
            if (call.function == "C_Login") out += ":" + std::to_string(call.arguments[1]);
        }
        return out;
    }
    bool sign(const SignOptions& options = {}) { return p11->SignData(cert, data, options, signature); }
    // Fails for this reason, and gives nothing out.
    void expectRefusal(FailureKind kind, const std::string& cause) {
        signature = {1};
        EXPECT_FALSE(sign());
        EXPECT_EQ(p11->lastFailure().kind, kind) << p11->lastFailure().cause;
        EXPECT_THAT(p11->lastFailure().cause, HasSubstr(cause));
        EXPECT_EQ(signature, Bytes{1});
    }
    // A function answers this, always or as often as said.
    void answer(const std::string& function, CK_RV rv, int times = 1000) {
        world.answer = [=, this](auto& name, auto) mutable { return name == function && times-- > 0 ? std::optional<CK_RV>(rv) : std::nullopt; };
    }

    ClsCert cert;
    Bytes data = Bytes(100, 'x');
    Bytes signature;
};

TEST_F(SigningTest, EveryKeyAndHashAndPaddingVerifiesInTwoCalls) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (const std::string name : {"alice", "rsa2047", "p256", "p521", "bp384", "p224", "b233", "explicit"}) {
        link("cert:" + name + ":a key:" + name + ":a");
        const bool isRsa = cert.get_KeyType() == 1;
        for (const Hash hash : kHashes) {
            for (const Padding padding : {Padding::Automatic, Padding::Pss}) {
                forget();
                ASSERT_TRUE(sign({.hash = hash, .padding = padding})) << name << p11->log().text();
                EXPECT_EQ(world.journal.size(), 2U) << called();
                EXPECT_TRUE(verifies(cert, data, signature, hash, isRsa && padding == Padding::Pss)) << name;
            }
            ASSERT_TRUE(p11->SignHash(cert, digestOf(hash, data), {.hash = hash}, signature));
            EXPECT_TRUE(verifies(cert, data, signature, hash, false)) << name;
            const Bytes large(200000, 'y');
            ASSERT_TRUE(p11->SignData(cert, readerOf(large), {.hash = hash}, signature));
            EXPECT_TRUE(verifies(cert, large, signature, hash, false)) << name;
        }
        Bytes raw;
        ASSERT_TRUE(p11->SignData(cert, Bytes(), {.ecdsaForm = EcdsaForm::Raw}, raw));
        EXPECT_EQ(raw.size(), static_cast<std::size_t>(cert.PrivateKeyLink()->expectedSignatureSize)) << name;
    }
}

TEST_F(SigningTest, TokenGetsNoMoreOfADigestThanItsOrderHas) {
    link("cert:p256:a key:p256:a");
    std::size_t size = 0;
    world.signer = [&](const fake::Object& key, const fake::Signing& signing) { return size = signing.data.size(), signedByOpenSsl(key, signing); };
    ASSERT_TRUE(sign({.hash = Hash::Sha512}));
    EXPECT_EQ(size, 32U);
}

TEST_F(SigningTest, MechanismThatHashesIsTakenWhereTheOtherIsRefusedAndRemembered) {
    const std::tuple<const char*, Padding, CK_ULONG, CK_ULONG> rows[] = {
        {"alice", Padding::Pkcs1, CKM_RSA_PKCS, 0x41}, {"alice", Padding::Pss, CKM_RSA_PKCS_PSS, 0x44}, {"p256", Padding::Automatic, CKM_ECDSA, 0x1045}};
    for (const auto& [name, padding, refused, taken] : rows) {
        const SignOptions options{.hash = Hash::Sha384, .padding = padding};
        link(std::string("cert:") + name + ":a key:" + name + ":a");
        world.answer = [this, no = refused](auto& f, auto) {
            return f == "C_SignInit" && world.journal.back().arguments[1] == no ? std::optional<CK_RV>(no == CKM_ECDSA ? 0x71 : 0x70) : std::nullopt;
        };
        const std::string init = " SignInit:" + std::to_string(taken);
        for (const std::string& begun : {"SignInit:" + std::to_string(refused) + init, init.substr(1)}) {
            forget();
            ASSERT_TRUE(sign(options)) << p11->log().text();
            EXPECT_EQ(called(), begun + " Sign");
            EXPECT_TRUE(verifies(cert, data, signature, Hash::Sha384, padding == Padding::Pss));
        }
        const Bytes large(100000, 'z');
        forget();
        ASSERT_TRUE(p11->SignData(cert, readerOf(large), options, signature));
        EXPECT_EQ(called(), init.substr(1) + " SignUpdate SignUpdate SignUpdate SignFinal");
        EXPECT_TRUE(verifies(cert, large, signature, Hash::Sha384, padding == Padding::Pss));
        // A digest alone cannot be hashed again.
        EXPECT_FALSE(p11->SignHash(cert, digestOf(Hash::Sha384, data), options, signature));
        EXPECT_EQ(p11->lastFailure().kind, FailureKind::NotSupported);
    }
}

TEST_F(SigningTest, RefusalMayComeLate) {
    link("cert:alice:a key:alice:a");
    world.answer = [this](auto& f, auto) {
        const bool isPlain = f == "C_Sign" && world.signings.begin()->second.mechanism == CKM_RSA_PKCS;
        if (isPlain) world.signings.clear();
        return isPlain ? std::optional(CKR_MECHANISM_PARAM_INVALID) : std::nullopt;
    };
    ASSERT_TRUE(sign()) << p11->log().text();
    EXPECT_EQ(called(), "SignInit:1 Sign SignInit:64 Sign");
    forget();
    ASSERT_TRUE(sign());
    EXPECT_EQ(called(), "SignInit:64 Sign");
    EXPECT_FALSE(p11->SignHash(cert, digestOf(Hash::Sha256, data), {}, signature));
}

TEST_F(SigningTest, FailureIsExplainedByTheMechanism) {
    link("cert:alice:a key:alice:a");
    answer("C_Sign", CKR_KEY_SIZE_RANGE);
    world.lie = [](fake::Outputs& outputs) {
        if (outputs.mechanismInfo != nullptr) *outputs.mechanismInfo = {512, 1024, 0};
    };
    expectRefusal(FailureKind::ModuleFailed, "C_Sign failed with CKR_KEY_SIZE_RANGE");
    EXPECT_EQ(p11->lastFailure().hint, "CKM_RSA_PKCS takes 512 to 1024 bits, this key has 2048.");
    world.lie = nullptr;
    for (const CK_RV rv : {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_TYPE_INCONSISTENT}) {
        answer("C_SignInit", rv);
        expectRefusal(FailureKind::KeyMayNotSign, rvName(rv));
    }
    answer("C_SignInit", CKR_MECHANISM_INVALID);
    expectRefusal(FailureKind::NotSupported, "C_SignInit failed with CKR_MECHANISM_INVALID");
    world.answer = nullptr;
    ASSERT_TRUE(p11->OpenSession(1, true));
    link("cert:alice:a key:alice:a");
    EXPECT_TRUE(sign());
}

TEST_F(SigningTest, KeyThatWantsItsPinGetsItRightBeforeTheSignature) {
    link("cert:alice:a key:alice:a");
    p11->put_SigContextPin(world.slots[0].userPin);
    set(CKA_ALWAYS_AUTHENTICATE, true);
    // It does not say so: found out once.
    for (const char* calls : {"SignInit:1 Sign SignInit:1 Login:2 Sign", "SignInit:1 Login:2 Sign"}) {
        forget();
        ASSERT_TRUE(sign()) << p11->log().text();
        EXPECT_EQ(called(), calls);
    }
    // It says so.
    ASSERT_TRUE(p11->FindCert("privateKey", "", cert));
    p11->CloseSession();
    ASSERT_TRUE(quick() && p11->FindCert("privateKey", "", cert));
    forget();
    ASSERT_TRUE(sign());
    EXPECT_EQ(called(), "SignInit:1 Login:2 Sign");
    // Other ways of tokens.
    for (const CK_RV rv : {CKR_USER_ALREADY_LOGGED_IN, CKR_OPERATION_NOT_INITIALIZED, CKR_USER_TYPE_INVALID}) {
        world.answer = [this, rv](auto& f, auto) {
            if (f != "C_Login") return std::optional<CK_RV>();
            world.signings.begin()->second.pinGiven = true;
            return std::optional(rv);
        };
        EXPECT_TRUE(sign()) << rvName(rv);
    }
    world.answer = nullptr;
    set(CKA_ALWAYS_AUTHENTICATE, false);
    p11->CloseSession();
    ASSERT_TRUE(quick() && p11->FindCert("privateKey", "", cert));
    answer("C_SignInit", CKR_USER_NOT_LOGGED_IN, 1);
    world.answer = [this, isFirst = true](auto& f, auto) mutable {
        if (f == "C_Login") return std::optional<CK_RV>(CKR_OK);
        return f == "C_SignInit" && std::exchange(isFirst, false) ? std::optional<CK_RV>(CKR_USER_NOT_LOGGED_IN) : std::nullopt;
    };
    for (const char* calls : {"SignInit:1 Login:2 SignInit:1 Sign", "Login:2 SignInit:1 Sign"}) {
        forget();
        ASSERT_TRUE(sign()) << p11->log().text();
        EXPECT_EQ(called(), calls);
    }
}

TEST_F(SigningTest, WrongPinEndsTheSignatureAndIsNotTriedAgain) {
    link("cert:alice:a key:alice:a");
    set(CKA_ALWAYS_AUTHENTICATE, true);
    expectRefusal(FailureKind::NotLoggedIn, "C_Sign failed with CKR_USER_NOT_LOGGED_IN");
    p11->CloseSession();
    ASSERT_TRUE(quick() && p11->FindCert("privateKey", "", cert));
    forget();
    expectRefusal(FailureKind::PinMissing, "none is known");
    EXPECT_EQ(called(), "GetTokenInfo");
    p11->put_SigContextPin("a wrong PIN");
    forget();
    expectRefusal(FailureKind::PinWrong, "C_Login failed with CKR_PIN_INCORRECT");
    EXPECT_EQ(called(), "SignInit:1 Login:2 GetTokenInfo OpenSession CloseSession GetSessionInfo");
    EXPECT_THAT(p11->lastFailure().hint, HasSubstr("wrong user PIN"));
    forget();
    expectRefusal(FailureKind::PinWrong, "is not tried again");
    EXPECT_EQ(called(), "");
    EXPECT_TRUE(p11->m_userLoggedIn && cert.HasPrivateKey());
    p11->put_SigContextPin(world.slots[0].userPin);
    EXPECT_TRUE(sign()) << p11->log().text();
    // A module that logs the user out with it.
    p11->put_SigContextPin("a wrong PIN");
    world.answer = [this](auto& f, auto) {
        if (f == "C_GetSessionInfo") world.slots[0].loggedIn.reset();
        return std::optional<CK_RV>();
    };
    expectRefusal(FailureKind::PinWrong, "CKR_PIN_INCORRECT");
    EXPECT_FALSE(p11->m_userLoggedIn);
    world.answer = nullptr;
    ASSERT_TRUE(p11->Login(1, world.slots[0].userPin) && p11->FindCert("privateKey", "", cert));
    // Without a second session the operation goes with the first.
    p11->put_SigContextPin("a wrong PIN");
    world.maxSessions = 1;
    expectRefusal(FailureKind::PinWrong, "CKR_PIN_INCORRECT");
    EXPECT_FALSE(p11->hasOpenSession() || cert.HasPrivateKey());
}

TEST_F(SigningTest, PinPadAsksItself) {
    link("cert:alice:a key:alice:a");
    set(CKA_ALWAYS_AUTHENTICATE, true);
    p11->CloseSession();
    world.slots[0].flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    ASSERT_TRUE(quick() && p11->FindCert("privateKey", "", cert));
    forget();
    ASSERT_TRUE(sign());
    EXPECT_EQ(called(), "GetTokenInfo SignInit:1 Login:2 Sign");
    EXPECT_EQ(world.journal[2].arguments[2], 0U);  // a null PIN
}

TEST_F(SigningTest, OperationThatWasLeftActiveIsClearedAway) {
    link("cert:alice:a key:alice:a");
    world.signings[world.lastSession] = {};
    ASSERT_TRUE(sign()) << p11->log().text();
    EXPECT_EQ(called(), "SignInit:1 OpenSession CloseSession SignInit:1 Sign");
    answer("C_Sign", CKR_BUFFER_TOO_SMALL);
    world.signings.clear();
    expectRefusal(FailureKind::ModuleFailed, "CKR_BUFFER_TOO_SMALL");
    world.answer = nullptr;
    EXPECT_TRUE(sign());
    int numRead = 0;
    EXPECT_FALSE(p11->SignData(
        cert, [&](auto) { return std::ptrdiff_t{numRead++ == 0 ? 1 : -1}; }, {}, signature));
    EXPECT_EQ(p11->lastFailure().cause, "The data to sign cannot be read.");
    EXPECT_TRUE(sign());
}

TEST_F(SigningTest, NothingWrongLeaves) {
    const std::tuple<const char*, const char*, std::function<void(fake::Bytes&)>> rows[] = {
        {"alice", "does not verify", [](auto& s) { s[100] ^= 1; }},
        {"alice", "255 bytes, where 256 are expected", [](auto& s) { s.pop_back(); }},
        {"alice", "0 bytes", [](auto& s) { s.clear(); }},
        {"p256", "64 bytes, where 64", [](auto& s) { std::fill_n(s.begin(), 32, 0); }},
        {"p256", "64 bytes, where 64", [](auto& s) { std::fill_n(s.begin() + 32, 32, 0xFF); }},
        {"p224", "56 bytes, where 56", [](auto& s) { std::fill_n(s.begin() + 28, 28, 0); }},
        {"p256", "65 bytes", [](auto& s) { s.push_back(0); }},
    };
    for (const auto& [name, cause, spoil] : rows) {
        link(std::string("cert:") + name + ":a key:" + name + ":a");
        world.signer = [spoil = spoil](const fake::Object& key, const fake::Signing& signing) {
            auto made = signedByOpenSsl(key, signing);
            spoil(made);
            return made;
        };
        expectRefusal(FailureKind::ModuleFailed, cause);
    }
    link("cert:alice:a key:alice:a");
    world.lie = [](fake::Outputs& outputs) {
        if (outputs.signature != nullptr) *outputs.count = 5000;
    };
    expectRefusal(FailureKind::ModuleFailed, "longer than the room");
    world.lie = nullptr;
    // In DER instead of raw: as good.
    link("cert:p256:a key:p256:a");
    world.signer = [](const fake::Object& key, const fake::Signing& signing) {
        const auto raw = signedByOpenSsl(key, signing);
        fake::Bytes der = {0x30, 0x46, 2, 33, 0};
        der.insert(der.end(), raw.begin(), raw.begin() + 32);
        der.insert(der.end(), {2, 33, 0});
        der.insert(der.end(), raw.begin() + 32, raw.end());
        return der;
    };
    ASSERT_TRUE(sign());
    EXPECT_TRUE(verifies(cert, data, signature, Hash::Sha256, false));
}

TEST_F(SigningTest, KeyThatCannotBeUsedIsRefusedBeforeTheModuleIsAsked) {
    expectRefusal(FailureKind::Argument, "The certificate object is empty.");
    link("cert:ca:a cert:alice:b key:alice:b", "Test CA");
    expectRefusal(FailureKind::Argument, "not linked");
    link("cert:p256:a key:p256:a:nosign");
    expectRefusal(FailureKind::KeyMayNotSign, "may not sign");
    link("cert:alice:a key:alice:a");
    Pkcs11 other;
    EXPECT_FALSE(other.SignData(cert, data, {}, signature));
    EXPECT_THAT(other.lastFailure().cause, HasSubstr("another object"));
    EXPECT_FALSE(p11->SignHash(cert, data, {}, signature));
    EXPECT_EQ(p11->lastFailure().kind, FailureKind::Argument);
    EXPECT_EQ(called(), "");
    p11->CloseSession();
    expectRefusal(FailureKind::TokenGone, "has ended");
}

TEST_F(SigningTest, GuessIsProvedBeforeItsFirstSignature) {
    link("cert:p256:a key:p256:b");
    ASSERT_TRUE(sign()) << p11->log().text();
    EXPECT_EQ(called(), "SignInit:4161 Sign SignInit:4161 Sign");
    forget();
    ASSERT_TRUE(sign());
    EXPECT_EQ(called(), "SignInit:4161 Sign");
    world.signer = [](const fake::Object&, const fake::Signing& signing) { return signedByOpenSsl(keyObject(0, "p521", {.id = "x"}), signing); };
    objects().back() = keyObject(2, "p256", {.id = "c"});
    p11->CloseSession();
    ASSERT_TRUE(quick() && p11->FindCert("privateKey", "", cert));
    answer("C_Sign", 0x30);  // while it is proved
    expectRefusal(FailureKind::ModuleFailed, "CKR_DEVICE_ERROR");
    world.answer = nullptr;
    world.signer = [](const fake::Object&, const fake::Signing&) { return fake::Bytes(64, 0x11); };
    expectRefusal(FailureKind::NotFound, "not the certificate's");
    link("cert:p224:a key:p224:b");
    expectRefusal(FailureKind::NotSupported, "cannot be proved");
}

TEST_F(SigningTest, ProofTellsWhoseKeyItIs) {
    const std::pair<const char*, KeyProof> rows[] = {{"alice", KeyProof::Proved}, {"p256", KeyProof::Proved},  {"p521", KeyProof::Proved},
                                                     {"bp384", KeyProof::Proved}, {"p256c", KeyProof::Proved}, {"p224", KeyProof::NotVerified}};
    for (const auto& [name, wanted] : rows) {
        KeyProof proof{};
        link(std::string("cert:") + name + ":a key:" + name + ":a");
        if (std::string(name) == "p256c") world.signer = [](auto&, auto& signing) { return signedByOpenSsl(keyObject(0, "p256c", {.id = "x"}), signing); };
        EXPECT_TRUE(p11->ProveKey(cert, proof));
        EXPECT_EQ(proof, wanted) << name;
    }
    KeyProof proof{};
    link("cert:alice:a key:bob:a");
    EXPECT_TRUE(p11->ProveKey(cert, proof));
    EXPECT_EQ(proof, KeyProof::Disproved);
    answer("C_Sign", CKR_GENERAL_ERROR);
    EXPECT_FALSE(p11->ProveKey(cert, proof));
    EXPECT_EQ(proof, KeyProof::NotTried);
}

// What OpenSSL has to say of a signed document.
std::string verdictOn(const Bytes& document, const Bytes* content, int* numCerts) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_mem_buf(document.data(), static_cast<int>(document.size())), &BIO_free);
    const std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), &BIO_free);
    const std::unique_ptr<BIO, decltype(&BIO_free)> detached(content == nullptr ? nullptr : BIO_new_mem_buf(content->data(), static_cast<int>(content->size())),
                                                             &BIO_free);
    const std::unique_ptr<CMS_ContentInfo, decltype(&CMS_ContentInfo_free)> cms(d2i_CMS_bio(in.get(), nullptr), &CMS_ContentInfo_free);
    if (!cms) return "no CMS";
    STACK_OF(X509)* const certs = CMS_get1_certs(cms.get());
    *numCerts = sk_X509_num(certs);
    sk_X509_pop_free(certs, X509_free);
    if (CMS_verify(cms.get(), nullptr, nullptr, detached.get(), out.get(), CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) != 1) return "wrong";
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

TEST_F(SigningTest, DocumentVerifies) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (const std::string name : {"alice", "p256", "p521"}) {
        for (const Padding padding : {Padding::Automatic, Padding::Pss}) {
            for (const bool isAttached : {false, true}) {
                for (const bool withIssuers : {false, true}) {
                    for (const Hash hash : kHashes) {
                        Bytes document;
                        int numCerts = 0;
                        link("cert:ca:c cert:" + name + ":a key:" + name + ":a");
                        ASSERT_TRUE(p11->SignCms(cert, readerOf(data), {hash, padding, isAttached, withIssuers, "2050-01-02T03:04:05Z"}, document));
                        EXPECT_EQ(called(), world.journal[0].arguments[1] == CKM_RSA_PKCS       ? "SignInit:1 Sign"
                                            : world.journal[0].arguments[1] == CKM_RSA_PKCS_PSS ? "SignInit:13 Sign"
                                                                                                : "SignInit:4161 Sign");
                        EXPECT_EQ(verdictOn(document, isAttached ? nullptr : &data, &numCerts), std::string(data.begin(), data.end())) << name;
                        EXPECT_EQ(numCerts, withIssuers ? 2 : 1);
                    }
                }
            }
        }
    }
    Bytes document;
    EXPECT_FALSE(p11->SignCms(cert, readerOf(data), {.signingTime = "tomorrow"}, document));
    EXPECT_FALSE(p11->SignCms(
        cert, [](auto) { return std::ptrdiff_t{-1}; }, {}, document));
    EXPECT_EQ(p11->lastFailure().cause, "The data to sign cannot be read.");
    EXPECT_TRUE(document.empty());
}

}  // namespace
}  // namespace mervane::test
