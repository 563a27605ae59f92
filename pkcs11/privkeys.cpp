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
//         3. first key        the first EC key of the token, whatever it is: a guess, made only
//         when
//                             no key's point is the certificate's
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

#include <array>
#include <initializer_list>
#include <string>

#include "foundation/x509/publickey.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"
#include "pkcs11/keyindex.h"

namespace mervane {
namespace {

// Keys that fit a certificate and may not sign are named in the log up to that many; a token that
// lists thousands under one ID is not real.
constexpr int kMaxNamed = 100;

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

// The forms in which a key's record may hold the certificate's public point; empty if it has none
// that can be read.
std::array<DataBuffer, 2> pointsOf(const Certificate& cert) {
    _mvPublicKey publicKey;
    LogNull log;
    const bool isEc = cert.getCertPublicKey(publicKey, log) && publicKey.getEccKey() != nullptr;
    return isEc ? publicKey.getEccKey()->comparablePoints() : std::array<DataBuffer, 2>();
}

}  // namespace

bool ClsPkcs11::cardRequiresPss(LogBase&) {
    return false;
}

CK_OBJECT_HANDLE ClsPkcs11::findPrivKeyHandle(Certificate& cert, bool quick, int& keyType,
                                              int& expectedSignatureSize, LogBase& log) {
    FoundKey found;
    static_cast<void>(searchKey(cert, quick, found, log));
    keyType = found.keyType;
    expectedSignatureSize = found.signatureSize;
    return found.handle;
}

bool ClsPkcs11::searchKey(Certificate& cert, bool quick, FoundKey& found, LogBase& log) {
    const LogContextExitor context(log, "findPrivKeyHandle");
    int bits = 0;
    if (m_certHandleIsKeyHandle) {
        log.LogInfo("Using certificate's PKCS11 handle as the private key handle...");
        found.keyType = cert.getCertKeyType(bits, log);
        log.LogDataLong("certKeyType", found.keyType);
        found.signatureSize = cert.expectedSignatureSize(log);
        log.LogDataLong("expectedSignatureSize", found.signatureSize);
        if (!hasOpenSession()) return noSession(log);  // the handle belongs to one
        found.handle = cert.tokenInfo().handle;
        return true;
    }
    log.LogDataBool("userLoggedIn", m_userLoggedIn);
    found.keyType = cert.getCertKeyType(bits, log);
    found.signatureSize = cert.expectedSignatureSize(log);
    if (found.keyType == kEcKey) return findEcKey(cert, quick, found, log);
    if (found.keyType == kRsaKey) return findRsaKey(cert, quick, found, log);
    log.LogError("Only EC and RSA keys are supported on PKCS11.");
    log.LogDataLong("certKeyType", found.keyType);
    XString algorithm;
    if (cert.getKeyAlgorithm(algorithm, log)) log.LogDataX("keyAlgorithm", algorithm);
    return true;
}

bool ClsPkcs11::findRsaKey(Certificate& cert, bool quick, FoundKey& found, LogBase& log) {
    log.LogInfo("Looking for a matching RSA private key...");
    if (!cacheRsaPrivateKeys(false, !quick, log)) return false;
    const int numRsaKeys = m_rsaPrivKeys.getSize();
    log.LogDataLong("numRsaKeys", numRsaKeys);
    const auto bySubjectOrModulus = [&] {
        if (m_rsaKeysHaveSubject) found.handle = findRsaKeyBySubjectDER(cert, true, log);
        if (found.handle == 0 && m_rsaKeysHaveModulus)
            found.handle = findRsaKeyByModulus(cert, true, log);
        return found.handle != 0;
    };
    found.handle = findRsaKeyById(cert, true, log);
    if (found.handle != 0 || bySubjectOrModulus()) return true;
    if (numRsaKeys == 1 && m_certs.getSize() == 1 && keyAt(m_rsaPrivKeys, 0) != nullptr) {
        // Whether it may sign does not matter here: there is no other.
        log.LogInfo("Using only possible private key");
        found.handle = keyAt(m_rsaPrivKeys, 0)->m_handle;
        return true;
    }
    bool couldLook = true;
    if (numRsaKeys >= 1 && !(m_rsaKeysHaveSubject && m_rsaKeysHaveModulus)) {
        const LogContextExitor retry(log, "retry_subjectDer_modulus");
        couldLook = cacheRsaPrivateKeys(true, true, log);
        if (couldLook && bySubjectOrModulus()) return true;
    }
    log.LogInfo("No matching RSA private key found.");
    return couldLook;
}

bool ClsPkcs11::findEcKey(Certificate& cert, bool quick, FoundKey& found, LogBase& log) {
    // A note, not a failure; callers look for it on the error channel.
    log.LogError("Certificate key type is ECDSA.");
    const auto points = pointsOf(cert);
    const bool hasPoint = !points[0].isEmpty();
    if (!cacheEcdsaPrivateKeys(hasPoint && !quick, log)) return false;
    log.LogDataLong("numEcdsaKeys", m_ecdsaPrivKeys.getSize());

    const auto find = [&](KeyIndex::Field field, std::initializer_list<const DataBuffer*> values) {
        const int at =
            firstOf(m_ecdsaPrivKeys, *m_ecdsaIndex, field, values, KeyIndex::Among::All, 0);
        if (at < 0) return false;
        log.LogInfo("Found matching PKCS11 ECDSA private key.");
        found.handle = keyAt(m_ecdsaPrivKeys, at)->m_handle;
        return true;
    };
    if (find(&Pkcs11_PrivateKey::m_keyId, {&cert.tokenInfo().ckaId})) return true;
    // The token knows better than the guess below, at the price of reading its points.
    if (hasPoint && !cacheEcdsaPrivateKeys(true, log)) return false;
    if (find(&Pkcs11_PrivateKey::m_ecPoint, {&points[0], &points[1]})) return true;
    if (keyAt(m_ecdsaPrivKeys, 0) == nullptr) return true;
    log.LogInfo("Using first PKCS11 ECDSA private key");
    found.handle = keyAt(m_ecdsaPrivKeys, 0)->m_handle;
    return true;
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
    if (m_calls->use.hasForked()) {
        const CritSecExitor lock(*this);
        settleAfterFork(*this, *m_calls);
    }
    const LogContextExitor context(log, "linkCertToPkcs11Session");
    if (cert == nullptr) return false;
    return guardedCall(*m_calls, log, [&](LogBase&) {
        FoundKey found;
        const bool couldLook = searchKey(*cert, quick, found, log);
        log.LogDataBool("hasPrivateKey", found.handle != 0);
        log.LogDataLong("expectedSignatureSize", found.signatureSize);
        if (found.handle == 0) {
            const auto kind = couldLook ? FailureKind::NotFound : FailureKind::ModuleFailed;
            return m_calls->fail(log, kind, "No matching private key found on the HSM.");
        }
        cert->linkToPkcs11Session(this, found.keyType, found.signatureSize, found.handle, log);
        return true;
    });
}

}  // namespace mervane
