// The private key that belongs to a certificate, and the link between the two.
//
// A token holds certificates and private keys side by side, and nothing forces its maker to say
// which belong together. So the key is looked for by one value after another, from the cheapest to
// the costliest to read, and the first rule that finds one decides:
//
//   RSA   1. CKA_ID           equal and not empty
//         2. CKA_SUBJECT      equals the DER of the certificate's subject
//         3. CKA_MODULUS      equals the certificate's, with or without a leading zero byte
//         4. only key         one RSA key and one certificate on the token: a guess
//         5. 2 and 3 again, after subjects and moduli have been read (the "retry")
//   EC    1. CKA_ID
//         2. the public point
//         3. first key        the first EC key of the token, whatever it is: a guess
//
// A module that uses one handle for a certificate and its key (known by its file name) settles it
// before any of this.
//
// An RSA key that may not sign (CKA_SIGN false or missing) is passed over by rules 1 to 3 and the
// search goes on behind it; the guess of rule 4 does not look at CKA_SIGN, and neither does any EC
// rule. Among several keys that fit, the first in the token's order is taken.
//
// What is read when: the first search fills the cache with IDs and CKA_SIGN alone, since on most
// tokens the ID settles it; the retry refills it with subjects and moduli, once for all
// certificates that follow. EC points are read when the search is not quick, from the public keys.
// The caches live until the session changes, somebody logs in or out.
//
// What the next reader would get wrong: rules 2 and 3 run before the retry only if an earlier
// search has read those values; the order of log lines depends on it.

#include <initializer_list>
#include <string>

#include "foundation/core/guarded.h"
#include "foundation/x509/publickey.h"
#include "pkcs11/calls/calls.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/keyindex.h"

namespace mervane {
namespace {

enum KeyType : int { kRsa = 1, kEc = 3 };

// Keys that fit a certificate and may not sign are named in the log up to that many; a token that
// lists thousands under one ID is not real.
constexpr int kMaxNamed = 100;

constexpr int bytesOfBits(int bits) noexcept {
    return (bits + 7) / 8;
}

const Pkcs11_PrivateKey* keyAt(const ExtPtrArray& keys, int position) noexcept {
    return static_cast<const Pkcs11_PrivateKey*>(keys.elementAt(position));
}

// The position of the first record whose field equals one of the values; -1 when there is none.
int firstOf(const ExtPtrArray& keys, KeyIndex& index, KeyIndex::Field field,
            std::initializer_list<const DataBuffer*> values, KeyIndex::Among among, int from) {
    int first = -1;
    for (const DataBuffer* const value : values) {
        const int at = value->isEmpty() ? -1 : index.find(keys, field, value->span(), among, from);
        if (at >= 0 && (first < 0 || at < first)) first = at;
    }
    return first;
}

// The first record whose field equals one of the values and that, with `requireSign`, may sign; 0
// when there is none. `by` is the word of the log lines.
CK_OBJECT_HANDLE firstRsaKey(const ExtPtrArray& keys, KeyIndex& index, KeyIndex::Field field,
                             std::initializer_list<const DataBuffer*> values, bool requireSign,
                             const char* by, LogBase& log) {
    const std::string found = std::string("Found matching PKCS11 RSA private key by ") + by;
    int at = -1;
    for (int numRefused = 0;; ++numRefused) {
        const auto among = numRefused < kMaxNamed ? KeyIndex::Among::All : KeyIndex::Among::Signing;
        at = firstOf(keys, index, field, values, among, at + 1);
        if (at < 0) return 0;
        if (!requireSign || keyAt(keys, at)->maySign()) break;
        log.LogInfo(found + ", but it does not have the CKA_SIGN attribute.");
    }
    log.LogInfo(found + ".");
    return keyAt(keys, at)->m_handle;
}

}  // namespace

bool ClsPkcs11::cardRequiresPss(LogBase&) {
    return false;
}

CK_OBJECT_HANDLE ClsPkcs11::findPrivKeyHandle(Certificate& cert, bool quick, int& keyType,
                                              int& expectedSignatureSize, LogBase& log) {
    const LogContextExitor context(log, "findPrivKeyHandle");
    int bits = 0;
    if (m_certHandleIsKeyHandle) {
        log.LogInfo("Using certificate's PKCS11 handle as the private key handle...");
        keyType = cert.getCertKeyType(bits, log);
        log.LogDataLong("certKeyType", keyType);
        expectedSignatureSize = bytesOfBits(bits) * (keyType == kEc ? 2 : 1);
        log.LogDataLong("expectedSignatureSize", expectedSignatureSize);
        return cert.tokenInfo().handle;
    }
    log.LogDataBool("userLoggedIn", m_userLoggedIn);
    expectedSignatureSize = 0;
    keyType = cert.getCertKeyType(bits, log);
    if (keyType == kEc) {
        expectedSignatureSize = 2 * bytesOfBits(bits);
        return findEcKey(cert, quick, log);
    }
    if (keyType == kRsa) {
        expectedSignatureSize = bytesOfBits(bits);
        return findRsaKey(cert, quick, log);
    }
    log.LogError("Only EC and RSA keys are supported on PKCS11.");
    log.LogDataLong("certKeyType", keyType);
    return 0;
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKey(Certificate& cert, bool quick, LogBase& log) {
    log.LogInfo("Looking for a matching RSA private key...");
    if (!cacheRsaPrivateKeys(false, !quick, log)) return 0;
    const int numRsaKeys = m_rsaPrivKeys.getSize();
    log.LogDataLong("numRsaKeys", numRsaKeys);
    const auto bySubjectOrModulus = [&]() -> CK_OBJECT_HANDLE {
        CK_OBJECT_HANDLE key = 0;
        if (m_rsaKeysHaveSubject) key = findRsaKeyBySubjectDER(cert, true, log);
        if (key == 0 && m_rsaKeysHaveModulus) key = findRsaKeyByModulus(cert, true, log);
        return key;
    };
    if (const auto key = findRsaKeyById(cert, true, log)) return key;
    if (const auto key = bySubjectOrModulus()) return key;
    if (numRsaKeys == 1 && m_certs.getSize() == 1 && keyAt(m_rsaPrivKeys, 0) != nullptr) {
        // Whether it may sign does not count here: there is no other.
        log.LogInfo("Using only possible private key");
        return keyAt(m_rsaPrivKeys, 0)->m_handle;
    }
    if (numRsaKeys >= 1 && !(m_rsaKeysHaveSubject && m_rsaKeysHaveModulus)) {
        const LogContextExitor retry(log, "retry_subjectDer_modulus");
        if (cacheRsaPrivateKeys(true, true, log)) {
            if (const auto key = bySubjectOrModulus()) return key;
        }
    }
    log.LogInfo("No matching RSA private key found.");
    return 0;
}

CK_OBJECT_HANDLE ClsPkcs11::findEcKey(Certificate& cert, bool quick, LogBase& log) {
    // A note, not a failure; it has its place on the error channel, where callers look for it.
    log.LogError("Certificate key type is ECDSA.");
    DataBuffer point;
    _mvPublicKey publicKey;
    LogNull silent;
    if (cert.getCertPublicKey(publicKey, silent) && publicKey.getEccKey() != nullptr) {
        publicKey.getEccKey()->exportEccPoint(point, silent);
    }
    if (!cacheEcdsaPrivateKeys(!point.isEmpty() && !quick, log)) return 0;
    log.LogDataLong("numEcdsaKeys", m_ecdsaPrivKeys.getSize());

    const auto find = [&](KeyIndex::Field field, const DataBuffer& value) -> CK_OBJECT_HANDLE {
        const int at =
            firstOf(m_ecdsaPrivKeys, *m_ecdsaIndex, field, {&value}, KeyIndex::Among::All, 0);
        if (at < 0) return 0;
        log.LogInfo("Found matching PKCS11 ECDSA private key.");
        return keyAt(m_ecdsaPrivKeys, at)->m_handle;
    };
    if (const auto key = find(&Pkcs11_PrivateKey::m_keyId, cert.tokenInfo().ckaId)) return key;
    if (const auto key = find(&Pkcs11_PrivateKey::m_ecPoint, point)) return key;
    if (keyAt(m_ecdsaPrivKeys, 0) == nullptr) return 0;
    log.LogInfo("Using first PKCS11 ECDSA private key");
    return keyAt(m_ecdsaPrivKeys, 0)->m_handle;
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKeyById(Certificate& cert, bool requireSign, LogBase& log) {
    return firstRsaKey(m_rsaPrivKeys, *m_rsaIndex, &Pkcs11_PrivateKey::m_keyId,
                       {&cert.tokenInfo().ckaId}, requireSign, "ID", log);
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKeyBySubjectDER(Certificate& cert, bool requireSign,
                                                   LogBase& log) {
    DataBuffer subject;
    if (!cert.getPartDer(1, subject, log)) {
        log.LogError("Unable to get cert SubjectDN DER.");
        return 0;
    }
    return firstRsaKey(m_rsaPrivKeys, *m_rsaIndex, &Pkcs11_PrivateKey::m_subjectDer, {&subject},
                       requireSign, "Subject DER", log);
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKeyByModulus(Certificate& cert, bool requireSign, LogBase& log) {
    _mvPublicKey publicKey;
    if (!cert.getCertPublicKey(publicKey, log) || publicKey.getRsaKey() == nullptr) return 0;
    // Tokens keep the modulus with or without the sign's zero byte.
    DataBuffer plain;
    DataBuffer withZero;
    MpIntUtil::toUnsignedBytes(publicKey.getRsaKey()->modulus, plain);
    MpIntUtil::toSignedBytes(publicKey.getRsaKey()->modulus, withZero);
    return firstRsaKey(m_rsaPrivKeys, *m_rsaIndex, &Pkcs11_PrivateKey::m_modulus,
                       {&plain, &withZero}, requireSign, "modulus", log);
}

bool ClsPkcs11::linkCertToPkcs11Session(Certificate* cert, bool quick, LogBase& log) {
    const LogContextExitor context(log, "linkCertToPkcs11Session");
    if (cert == nullptr) return false;
    m_calls->use.dropAfterFork(log);
    return guarded(log, [&] {
        int keyType = 0;
        int signatureSize = 0;
        const CK_OBJECT_HANDLE key = findPrivKeyHandle(*cert, quick, keyType, signatureSize, log);
        log.LogDataBool("hasPrivateKey", key != 0);
        log.LogDataLong("expectedSignatureSize", signatureSize);
        if (key == 0) {
            log.LogError("No matching private key found on the HSM.");
            return false;
        }
        cert->linkToPkcs11Session(this, keyType, signatureSize, key, log);
        return true;
    });
}

}  // namespace mervane
