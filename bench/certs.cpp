// Our own work on certificates: reading one (compared with OpenSSL reading the same fields),
// choosing one of a thousand, and matching a thousand to as many keys. No module is involved:
// Filled puts certificates and keys straight into the caches of a ClsPkcs11, so only the search is
// measured.
//
// Each Filled lets keys match by one value alone (ID, subject, modulus or EC point), because the
// search tries these in turn and stops at the first match. The exception is listAndMatch, which
// runs whole calls on a module that costs next to nothing.

#include <benchmark/benchmark.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/conf.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "foundation/text/hex.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

struct Made {
    std::vector<std::uint8_t> der;
    DataBuffer modulusOrPoint;
};

void addName(X509_NAME* name, const char* type, const std::string& value) {
    X509_NAME_add_entry_by_txt(name, type, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(value.data()),
                               static_cast<int>(value.size()), -1, 0);
}

// A certificate like those on real cards: five attributes in the subject, key usage, policies.
// 0x7A7A7A7A is the serial number that synthetic_module.cpp looks for in its template.
Made makeCert(EVP_PKEY* key, int number) {
    std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()),
                     number == 0x7A7A7A7A ? number : 1000000 + number);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400L * 365);
    X509_NAME* const subject = X509_get_subject_name(cert.get());
    addName(subject, "C", "EX");
    addName(subject, "O", "Example Organisation");
    addName(subject, "OU", "Department of Signatures");
    addName(subject, "CN", "Person " + std::to_string(number));
    addName(subject, "emailAddress", "person" + std::to_string(number) + "@example.org");
    X509_NAME* const issuer = X509_NAME_new();
    addName(issuer, "C", "EX");
    addName(issuer, "CN", "Example Issuing CA");
    X509_set_issuer_name(cert.get(), issuer);
    X509_NAME_free(issuer);
    X509_set_pubkey(cert.get(), key);
    for (const auto& [nid, value] :
         {std::pair{NID_key_usage, "critical,digitalSignature,nonRepudiation"},
          {NID_certificate_policies, "1.2.3.4.5"},
          {NID_basic_constraints, "CA:FALSE"}}) {
        X509V3_CTX context;
        X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
        static CONF* const noDatabase = NCONF_new(nullptr);  // the policies extension needs one
        X509V3_set_nconf(&context, noDatabase);
        X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
        X509_add_ext(cert.get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    X509_sign(cert.get(), key, EVP_sha256());
    Made out;
    unsigned char* bytes = nullptr;
    const int size = i2d_X509(cert.get(), &bytes);
    out.der.assign(bytes, bytes + size);
    OPENSSL_free(bytes);
    return out;
}

EVP_PKEY* rsaKey() {
    static EVP_PKEY* const key = EVP_RSA_gen(2048);
    return key;
}
EVP_PKEY* ecKey() {
    static EVP_PKEY* const key = EVP_EC_gen("P-256");
    return key;
}

const Made& oneCert() {
    static const Made made = makeCert(rsaKey(), 7);
    return made;
}

// An object whose caches hold N certificates and keys that match them by one value alone.
class Filled final : public ClsPkcs11 {
  public:
    enum By { kId, kSubject, kModulus, kPoint };

    Filled(int count, By by) {
        m_hSession = 1;
        sessionAnchor()->setSession(1);
        m_userLoggedIn = m_certsLoaded = m_rsaKeysLoaded = m_ecdsaKeysLoaded = true;
        m_rsaKeysHaveSubject = m_rsaKeysHaveModulus = m_ecdsaKeysHavePoints = true;
        LogNull log;
        for (int i = 0; i < count; ++i) {
            TokenCertInfo token;
            token.handle = static_cast<unsigned long>(i) + 1;
            const std::string id = "id " + std::to_string(i);
            const std::span<const std::uint8_t> idBytes(
                reinterpret_cast<const std::uint8_t*>(id.data()), id.size());
            if (by == kId) token.ckaId.assign(idBytes);
            const Made made = makeCert(by == kPoint ? ecKey() : rsaKey(), i);
            auto cert = Certificate::createFromDer(made.der, std::move(token), log);
            auto key = std::make_unique<Pkcs11_PrivateKey>();
            key->m_handle = 100000 + static_cast<unsigned long>(i);
            if (by == kId) key->m_keyId.assign(idBytes);
            if (by == kSubject) cert->getPartDer(1, key->m_subjectDer, log);
            fillKey(*cert, *key, by, i);
            m_certs.appendObject(std::make_unique<CertificateHolder>(cert));
            (by == kPoint ? m_ecdsaPrivKeys : m_rsaPrivKeys).appendObject(std::move(key));
        }
    }
    ~Filled() override { m_hSession = 0; }

    void matchAll() {
        LogNull log;
        for (int i = 0; i < m_certs.getSize(); ++i) {
            Certificate* const cert =
                static_cast<CertificateHolder*>(m_certs.elementAt(i))->getCertPtr(log);
            int type = 0;
            int size = 0;
            benchmark::DoNotOptimize(findPrivKeyHandle(*cert, true, type, size, log));
        }
    }

  private:
    // All certificates share one key pair, so only key 500 keeps the real value; the others differ
    // in the last byte.
    static void fillKey(const Certificate& cert, Pkcs11_PrivateKey& key, By by, int i) {
        LogNull log;
        _mvPublicKey publicKey;
        if (by < kModulus || !cert.getCertPublicKey(publicKey, log)) return;
        DataBuffer& value = by == kModulus ? key.m_modulus : key.m_ecPoint;
        if (by == kModulus) {
            MpIntUtil::toUnsignedBytes(publicKey.getRsaKey()->modulus, value);
        } else {
            value = publicKey.getEccKey()->comparablePoints()[0];
        }
        const auto bytes = value.resized(value.getSize());
        if (i != 500)
            bytes[bytes.size() - 1] =
                static_cast<std::uint8_t>(bytes[bytes.size() - 1] ^ (1 + i % 200));
    }
};

std::string opensslText(X509_NAME* name) {
    BIO* const out = BIO_new(BIO_s_mem());
    X509_NAME_print_ex(out, name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    char* text = nullptr;
    const long size = BIO_get_mem_data(out, &text);
    std::string copy(text, static_cast<std::size_t>(size));
    BIO_free(out);
    return copy;
}

// The same values from OpenSSL, which the peers are built on.
void opensslReadsCertificate(benchmark::State& state) {
    const auto& der = oneCert().der;
    for (auto _ : state) {
        const unsigned char* at = der.data();
        X509* const cert = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
        benchmark::DoNotOptimize(opensslText(X509_get_subject_name(cert)));
        benchmark::DoNotOptimize(opensslText(X509_get_issuer_name(cert)));
        BIGNUM* const serial = ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr);
        char* const hex = BN_bn2hex(serial);
        unsigned char print[SHA_DIGEST_LENGTH];
        SHA1(der.data(), der.size(), print);
        benchmark::DoNotOptimize(OPENSSL_buf2hexstr(print, sizeof print) == nullptr);
        benchmark::DoNotOptimize(X509_get_key_usage(cert));
        OPENSSL_free(hex);
        BN_free(serial);
        X509_free(cert);
    }
}
BENCHMARK(opensslReadsCertificate);

void ourReadOfCertificate(benchmark::State& state) {
    LogNull log;
    const auto& der = oneCert().der;
    for (auto _ : state) {
        const auto cert = Certificate::createFromDer(der, log);
        XString subject, issuer, serial, print;
        benchmark::DoNotOptimize(cert->getSubjectDN(subject, log));
        benchmark::DoNotOptimize(cert->getIssuerDN(issuer, log));
        benchmark::DoNotOptimize(cert->getSerialNumber(serial, log));
        benchmark::DoNotOptimize(cert->getSha1ThumbprintX(print, log));
        benchmark::DoNotOptimize(cert->getIntendedKeyUsage(log));
    }
}
BENCHMARK(ourReadOfCertificate);

// The last of a thousand, for rules that have to look at all; where every certificate matches, the
// first.
void findCertAmongThousand(benchmark::State& state, const char* part, const char* value) {
    static Filled token(1000, Filled::kId);
    for (auto _ : state) {
        ClsCert cert;
        const bool found = token.FindCert(XString(part), XString(value), cert);
        if (!found) state.SkipWithError("not found");
    }
}
BENCHMARK_CAPTURE(findCertAmongThousand, cn, "CN", "Person 999");
BENCHMARK_CAPTURE(findCertAmongThousand, serial, "serial", "0F4627");
BENCHMARK_CAPTURE(findCertAmongThousand, issuerSerial, "issuerSerial", "0F4627:Example Issuing CA");
BENCHMARK_CAPTURE(findCertAmongThousand, policyFirst, "policyOid", "1.2.3.4.5");
BENCHMARK_CAPTURE(findCertAmongThousand, keyUsageFirst, "keyUsage", "nonRepudiation");
BENCHMARK_CAPTURE(findCertAmongThousand, privateKeyFirst, "privateKey", "");

void matchAll(benchmark::State& state, Filled::By by) {
    Filled token(static_cast<int>(state.range(0)), by);
    for (auto _ : state) token.matchAll();
}
BENCHMARK_CAPTURE(matchAll, id, Filled::kId)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(matchAll, subject, Filled::kSubject)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(matchAll, modulus, Filled::kModulus)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(matchAll, point, Filled::kPoint)->Arg(1000)->Unit(benchmark::kMicrosecond);

// Listing and matching end to end, on a module that costs next to nothing: all of it is our work.
void listAndMatch(benchmark::State& state) {
    static const std::string cert = "SYNTHETIC_CERT=" + toHex(makeCert(rsaKey(), 0x7A7A7A7A).der);
    const std::string number = "SYNTHETIC_OBJECTS=" + std::to_string(state.range(0));
    ::putenv(const_cast<char*>(cert.c_str()));
    ::putenv(const_cast<char*>(number.c_str()));
    LogNull log;
    for (auto _ : state) {
        ClsPkcs11 token;
        token.put_SharedLibPath(XString(MERVANE_SYNTHETIC_MODULE));
        bool ok = token.QuickSession(1, XString("1234")) && token.FindAllCerts();
        for (int i = 0; ok && i < token.get_NumCerts(); ++i) {
            ClsCert found;
            ok = token.GetCert(i, found) &&
                 token.linkCertToPkcs11Session(found.getCert().get(), true, log);
        }
        if (!ok) state.SkipWithError(token.log().lastError().c_str());
    }
}
BENCHMARK(listAndMatch)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace mervane
