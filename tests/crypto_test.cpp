// Digests, signatures and DER against OpenSSL's, and against what no signer makes.

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <random>

#include "foundation/digest/digest.h"
#include "foundation/digest/sha1.h"
#include "foundation/text/hex.h"
#include "foundation/x509/curves.h"
#include "foundation/x509/derwriter.h"
#include "signing/curveparameters.h"
#include "signing/ecdsa.h"
#include "signing/rsa.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

Bytes randomBytes(std::size_t size) {
    static std::minstd_rand random(1);
    Bytes out(size);
    for (auto& byte : out) byte = static_cast<std::uint8_t>(random() >> 8);
    return out;
}

const EVP_MD* opensslHash(Hash hash) { return hash == Hash::Sha256 ? EVP_sha256() : hash == Hash::Sha384 ? EVP_sha384() : EVP_sha512(); }

Bytes opensslDigest(const EVP_MD* hash, const Bytes& data) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned size = 0;
    EVP_Digest(data.data(), data.size(), out.data(), &size, hash, nullptr);
    out.resize(size);
    return out;
}

Bytes spkiOf(const Key& key) {
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key.get(), &der);
    const Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

// `saltSize` less than 0: PKCS#1 v1.5, or EC.
Bytes opensslSignature(const Key& key, const EVP_MD* hash, const Bytes& digest, int saltSize = -1) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key.get(), nullptr), &EVP_PKEY_CTX_free);
    EVP_PKEY_sign_init(context.get());
    if (saltSize >= 0) EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING);
    if (hash != nullptr) EVP_PKEY_CTX_set_signature_md(context.get(), hash);
    if (saltSize >= 0) EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), saltSize);
    Bytes out(1024);
    std::size_t size = out.size();
    EXPECT_EQ(EVP_PKEY_sign(context.get(), out.data(), &size, digest.data(), digest.size()), 1);
    out.resize(size);
    return out;
}

TEST(DigestTest, DigestsOfEveryLengthAreOpenSsls) {
    for (std::size_t size = 0; size < 400; ++size) {
        const Bytes data = randomBytes(size);
        const auto sha1Digest = sha1(data);
        EXPECT_EQ(Bytes(sha1Digest.begin(), sha1Digest.end()), opensslDigest(EVP_sha1(), data)) << size;
        for (const Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
            Digest digest(hash);
            digest.add(std::span(data).first(size / 3));
            digest.add(std::span(data).subspan(size / 3));
            EXPECT_EQ(digest.finish(), opensslDigest(opensslHash(hash), data)) << size;
        }
    }
}

TEST(RsaTest, OnlyWhatVerifiesIsRight) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (const unsigned bits : {1024U, 1031U, 2047U, 2048U, 3072U}) {
        const Key pair(EVP_RSA_gen(bits), &EVP_PKEY_free);
        _mvPublicKey key;
        ASSERT_TRUE(key.loadSpki(spkiOf(pair)));
        const rsa::Verifier verifier(*key.getRsaKey());
        for (const Hash hash : {Hash::Sha256, Hash::Sha384}) {
            const int size = static_cast<int>(digestSize(hash));
            const Bytes digest = randomBytes(digestSize(hash));
            Bytes pkcs1 = opensslSignature(pair, opensslHash(hash), digest);
            Bytes pss = opensslSignature(pair, opensslHash(hash), digest, size);
            EXPECT_TRUE(verifier.verifiesPkcs1(hash, digest, pkcs1) && verifier.verifiesPss(hash, digest, pss)) << bits;
            EXPECT_FALSE(verifier.verifiesPkcs1(hash, digest, pss) || verifier.verifiesPss(hash, digest, pkcs1));
            EXPECT_FALSE(verifier.verifiesPss(hash, digest, opensslSignature(pair, opensslHash(hash), digest, size - 1)));
            EXPECT_FALSE(verifier.verifiesPkcs1(hash, randomBytes(digest.size()), pkcs1) || verifier.verifiesPss(hash, randomBytes(digest.size()), pss));
            for (std::size_t at = 0; at < pkcs1.size(); at += 17) {
                pkcs1[at] ^= 1, pss[at] ^= 1;
                EXPECT_FALSE(verifier.verifiesPkcs1(hash, digest, pkcs1) || verifier.verifiesPss(hash, digest, pss));
                pkcs1[at] ^= 1, pss[at] ^= 1;
            }
            EXPECT_FALSE(verifier.verifiesPkcs1(hash, digest, Bytes(pkcs1.begin() + 1, pkcs1.end())));
            EXPECT_FALSE(verifier.verifiesPkcs1(hash, digest, Bytes(pkcs1.size(), 0xFF)));  // above the modulus
        }
    }
    const Bytes number(128, 0x81);
    for (const Bytes& exponent : {Bytes{1}, Bytes{4}, Bytes{}, Bytes(9, 0x11)}) {
        EXPECT_FALSE(rsa::Verifier({mp_int(number), mp_int(exponent)}).verifiesPkcs1(Hash::Sha256, Bytes(32), Bytes(128, 1)));
    }
    EXPECT_FALSE(rsa::Verifier({mp_int(Bytes(128, 0x82)), mp_int(Bytes{3})}).verifiesPkcs1(Hash::Sha256, Bytes(32), Bytes(128, 1)));
}

TEST(EcdsaTest, OnlyWhatVerifiesIsRight) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (const char* const name : {"P-256", "P-384", "P-521", "secp256k1", "brainpoolP256r1", "brainpoolP320r1", "brainpoolP384r1", "brainpoolP512r1"}) {
        for (const char* const form : {"uncompressed", "compressed", "hybrid"}) {
            const Key pair(EVP_EC_gen(name), &EVP_PKEY_free);
            EVP_PKEY_set_utf8_string_param(pair.get(), "point-format", form);
            const Bytes spki = spkiOf(pair);
            const EcKeyParts key = ecKeyPartsOf(spki);
            const auto size = static_cast<std::size_t>(keyKindOf(spki).signatureSize);
            for (const std::size_t digestSize : {20U, 32U, 48U, 64U}) {
                const Bytes digest = randomBytes(digestSize);
                const Bytes der = opensslSignature(pair, nullptr, digest);
                auto raw = ecdsa::fromDer(der, size);
                ASSERT_TRUE(raw) << name;
                EXPECT_EQ(ecdsa::toDer(*raw), der);
                EXPECT_EQ(ecdsa::verify(key.parameters, key.point, digest, *raw), Verdict::Right) << name << form;
                (*raw)[digestSize % size] ^= 4;
                EXPECT_EQ(ecdsa::verify(key.parameters, key.point, digest, *raw), Verdict::Wrong);
                (*raw)[digestSize % size] ^= 4;
                Bytes point(key.point.begin(), key.point.end());
                point[5] ^= 1;  // on another point, or on none
                EXPECT_EQ(ecdsa::verify(key.parameters, point, digest, *raw), Verdict::Wrong);
            }
            const CurveParameters* const parameters = findParameters(key.parameters);
            const Bytes order = *fromHex(parameters->order);
            for (const bool isFirst : {true, false}) {
                for (const Bytes& bad : {Bytes(size / 2), Bytes(order.end() - static_cast<std::ptrdiff_t>(size / 2), order.end())}) {
                    Bytes raw(size, 1);
                    std::ranges::copy(bad, raw.begin() + (isFirst ? 0 : static_cast<std::ptrdiff_t>(size / 2)));
                    EXPECT_FALSE(ecdsa::isInRange(key.parameters, raw));
                    EXPECT_EQ(ecdsa::verify(key.parameters, key.point, randomBytes(32), raw), Verdict::Wrong);
                }
            }
        }
    }
    const Key pair(EVP_EC_gen("P-224"), &EVP_PKEY_free);
    const Bytes spki = spkiOf(pair);
    EXPECT_EQ(ecdsa::verify(ecKeyPartsOf(spki).parameters, ecKeyPartsOf(spki).point, Bytes(32), Bytes(56, 1)), Verdict::NotVerifiable);
    for (const char* const der :
         {"30060201010201", "3006020101020101FF", "3006020181020101", "30080201010201010500", "30030201FF", "3007020201010201FF", "020101"})
        EXPECT_FALSE(ecdsa::fromDer(*fromHex(der), 2)) << der;
}

TEST(CurveTest, TableIsOpenSsls) {
    std::vector<EC_builtin_curve> curves(EC_get_builtin_curves(nullptr, 0));
    EC_get_builtin_curves(curves.data(), curves.size());
    int numKnown = 0;
    for (const EC_builtin_curve& curve : curves) {
        const std::unique_ptr<EC_GROUP, decltype(&EC_GROUP_free)> group(EC_GROUP_new_by_curve_name(curve.nid), &EC_GROUP_free);
        const ASN1_OBJECT* const object = OBJ_nid2obj(curve.nid);
        const auto ours = findCurve(der::element(der::kOid, der::Bytes(OBJ_get0_data(object), OBJ_length(object))));
        if (OBJ_length(object) == 0 || !ours) continue;
        ++numKnown;
        EXPECT_EQ(ours->bits, EC_GROUP_get_degree(group.get())) << curve.comment;
        EXPECT_EQ(ours->orderBits, EC_GROUP_order_bits(group.get())) << curve.comment;
        EXPECT_EQ(ours->isPrime, EC_GROUP_get_field_type(group.get()) == NID_X9_62_prime_field) << curve.comment;
    }
    EXPECT_EQ(numKnown, 80);
}

TEST(DerWriterTest, WhatIsWrittenIsRead) {
    for (const std::size_t size : {0U, 1U, 127U, 128U, 255U, 256U, 65535U, 65536U, 70000U}) {
        const Bytes content = randomBytes(size);
        const auto element = der::element(der::kOctetString, content);
        const auto read = der::Cursor(element).readAny();
        ASSERT_TRUE(read && read->whole.size() == element.size());
        EXPECT_TRUE(std::ranges::equal(read->content, content));
        EXPECT_EQ(der::element(der::kSequence, {element, element}).size() - 2 * element.size(), 2 * element.size() < 128     ? 2U
                                                                                                : 2 * element.size() < 256   ? 3U
                                                                                                : 2 * element.size() < 65536 ? 4U
                                                                                                                             : 5U);
    }
    const std::pair<Bytes, const char*> integers[] = {{{}, "020100"}, {{0, 0}, "020100"}, {{0x7F}, "02017F"}, {{0x80}, "02020080"}, {{0, 1, 2}, "02020102"}};
    for (const auto& [bytes, wanted] : integers) EXPECT_EQ(toHex(der::unsignedInteger(bytes)), wanted);
    EXPECT_EQ(toHex(der::setOf({{3, 1}, {2, 9, 9}, {2, 9}}, 0xA0)), "A00702090209090301");
    EXPECT_EQ(toHex(der::time("2049-12-31T23:59:59Z")), "170D3439313233313233353935395A");
    EXPECT_EQ(toHex(der::time("2050-01-02T03:04:05Z")), "180F32303530303130323033303430355A");
}

}  // namespace
}  // namespace mervane::test
