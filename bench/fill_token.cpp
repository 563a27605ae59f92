// Puts N certificates with their private keys on a token, for scripts/bench. Generating N RSA keys
// would take minutes, so four key pairs are reused under N subjects and IDs: what is measured finds
// keys by ID and does not notice.
//
// usage: fill_token MODULE TOKEN_LABEL PIN N

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <bit>
#include <vector>

#include "bench/raw_module.h"

using namespace mervane;
using bench::RawModule;

namespace {

using Bytes = std::vector<unsigned char>;

// The attributes of an RSA private key, from CKA_MODULUS to CKA_COEFFICIENT.
constexpr CK_ATTRIBUTE_TYPE kPrivateExponent = 0x123;  // CKA_PRIVATE_EXPONENT
constexpr std::array kRsaParts = {
    std::pair{0x120UL, OSSL_PKEY_PARAM_RSA_N},
    std::pair{0x122UL, OSSL_PKEY_PARAM_RSA_E},
    std::pair{kPrivateExponent, OSSL_PKEY_PARAM_RSA_D},
    std::pair{0x124UL, OSSL_PKEY_PARAM_RSA_FACTOR1},
    std::pair{0x125UL, OSSL_PKEY_PARAM_RSA_FACTOR2},
    std::pair{0x126UL, OSSL_PKEY_PARAM_RSA_EXPONENT1},
    std::pair{0x127UL, OSSL_PKEY_PARAM_RSA_EXPONENT2},
    std::pair{0x128UL, OSSL_PKEY_PARAM_RSA_COEFFICIENT1},
};

Bytes number(EVP_PKEY* key, const char* name) {
    BIGNUM* value = nullptr;
    EVP_PKEY_get_bn_param(key, name, &value);
    Bytes out(static_cast<std::size_t>(BN_num_bytes(value)));
    BN_bn2bin(value, out.data());
    BN_free(value);
    return out;
}

struct CertParts {
    Bytes der, subject;
};

CertParts makeCert(EVP_PKEY* key, int i) {
    X509* const cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 4096 + i);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 86400L * 365);
    X509_NAME* const subject = X509_get_subject_name(cert);
    const std::string name = "Person " + std::to_string(i);
    X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("Example"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert, subject);
    X509_set_pubkey(cert, key);
    X509_sign(cert, key, EVP_sha256());
    CertParts out;
    unsigned char* bytes = nullptr;
    int size = i2d_X509(cert, &bytes);
    out.der.assign(bytes, bytes + size);
    OPENSSL_free(bytes);
    bytes = nullptr;
    size = i2d_X509_NAME(subject, &bytes);
    out.subject.assign(bytes, bytes + size);
    OPENSSL_free(bytes);
    X509_free(cert);
    return out;
}

class Template {
  public:
    void add(CK_ATTRIBUTE_TYPE type, Bytes value) {
        m_values.push_back(std::move(value));
        m_types.push_back(type);
    }
    void add(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
        const auto* const at = reinterpret_cast<const unsigned char*>(&value);
        add(type, Bytes(at, at + sizeof value));
    }
    void addFlag(CK_ATTRIBUTE_TYPE type, bool value) {
        add(type, Bytes{static_cast<unsigned char>(value)});
    }
    void create(RawModule& module) {
        using CreateObject =
            CK_RV (*)(CK_SESSION_HANDLE, CK_ATTRIBUTE*, CK_ULONG, CK_OBJECT_HANDLE*);
        std::vector<CK_ATTRIBUTE> attributes;
        for (std::size_t i = 0; i < m_types.size(); ++i)
            attributes.push_back({m_types[i], m_values[i].data(), m_values[i].size()});
        CK_OBJECT_HANDLE handle = 0;
        const auto createObject = std::bit_cast<CreateObject>(module.functions->C_CreateObject);
        RawModule::check(
            createObject(module.session, attributes.data(), attributes.size(), &handle),
            "C_CreateObject");
    }

  private:
    std::vector<CK_ATTRIBUTE_TYPE> m_types;
    std::vector<Bytes> m_values;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    RawModule module(argv[1], argv[2], argv[3], true);
    std::array<EVP_PKEY*, 4> keys{};
    for (EVP_PKEY*& key : keys) key = EVP_RSA_gen(2048);
    const int count = std::stoi(argv[4]);
    for (int i = 0; i < count; ++i) {
        EVP_PKEY* const key = keys[static_cast<std::size_t>(i) % keys.size()];
        const CertParts cert = makeCert(key, i);
        const Bytes id = {static_cast<unsigned char>(i >> 16), static_cast<unsigned char>(i >> 8),
                          static_cast<unsigned char>(i)};
        Template certificate;
        certificate.add(CKA_CLASS, CKO_CERTIFICATE);
        certificate.add(CKA_CERTIFICATE_TYPE, CKC_X_509);
        certificate.addFlag(CKA_TOKEN, true);
        certificate.addFlag(CKA_PRIVATE, false);
        certificate.add(CKA_SUBJECT, cert.subject);
        certificate.add(CKA_ID, id);
        certificate.add(CKA_VALUE, cert.der);
        certificate.create(module);
        Template privateKey;
        privateKey.add(CKA_CLASS, CKO_PRIVATE_KEY);
        privateKey.add(CKA_KEY_TYPE, CKK_RSA);
        for (const CK_ATTRIBUTE_TYPE flag : {CKA_TOKEN, CKA_PRIVATE, CKA_SENSITIVE, CKA_SIGN})
            privateKey.addFlag(flag, true);
        privateKey.add(CKA_ID, id);
        for (const auto& [type, name] : kRsaParts) privateKey.add(type, number(key, name));
        privateKey.create(module);
    }
    return 0;
}
