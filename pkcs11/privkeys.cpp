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
//         3. first key        the token's first EC key, whatever it is: a guess, made only when
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
// The caches live until the session changes or somebody logs in or out.
//
// A trap: rules 2 and 3 run before the retry only if an earlier search has read those values; the
// order of the log lines depends on it.
//
// A key that could not be read may be the one. So where no certain rule finds any, the keys are
// read once more, and the search fails if that does not help: "not read" is not "not there", and no
// guess is made then. Only the only key beside the only certificate is taken even so.
//
// A link keeps the rule that found the key. The token itself may refute a guess: checkGuess
// compares the key's own modulus or point. Why the other keys were not taken is worked out on
// request (explain), from everything that the token shows of them.

#include <algorithm>
#include <array>
#include <initializer_list>
#include <string>

#include "foundation/text/hex.h"
#include "foundation/x509/curves.h"
#include "foundation/x509/publickey.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"
#include "pkcs11/keyindex.h"
#include "pkcs11/privkeys.h"

namespace mervane {
namespace {

// At most this many keys that fit a certificate but may not sign are named in the log; no real
// token lists thousands under one ID.
constexpr int kMaxNamed = 100;

constexpr std::string_view kUnread =
    "A private key could not be read that may be the certificate's own.";

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

// The first record whose field equals one of the values and that, with `requireSign`, may sign;
// null when there is none. `by` is the word of the log lines.
const Pkcs11_PrivateKey* firstRsaKey(const ExtPtrArray& keys, KeyIndex& index,
                                     KeyIndex::Field field,
                                     std::initializer_list<const DataBuffer*> values,
                                     bool requireSign, const char* by, LogBase& log) {
    const std::string found = std::string("Found matching PKCS11 RSA private key by ") + by;
    int at = -1;
    for (int numRefused = 0;; ++numRefused) {
        const auto among = numRefused < kMaxNamed ? KeyIndex::Among::All : KeyIndex::Among::Signing;
        at = firstOf(keys, index, field, values, among, at + 1);
        if (at < 0) return nullptr;
        if (!requireSign || keyAt(keys, at)->maySign()) break;
        log.LogInfo(found + ", but it does not have the CKA_SIGN attribute.");
    }
    log.LogInfo(found + ".");
    return keyAt(keys, at);
}

// The forms in which a key's record may hold the certificate's public point; empty if it has none
// that can be read.
std::array<DataBuffer, 2> pointsOf(const Certificate& cert) {
    _mvPublicKey publicKey;
    LogNull log;
    const bool isEc = cert.getCertPublicKey(publicKey, log) && publicKey.getEccKey() != nullptr;
    return isEc ? publicKey.getEccKey()->comparablePoints() : std::array<DataBuffer, 2>();
}

// The forms in which tokens keep the certificate's modulus: with or without a leading zero byte.
// Empty if it has none that can be read.
std::array<DataBuffer, 2> moduliOf(const Certificate& cert, LogBase& log) {
    std::array<DataBuffer, 2> forms;
    _mvPublicKey publicKey;
    if (!cert.getCertPublicKey(publicKey, log) || publicKey.getRsaKey() == nullptr) return forms;
    MpIntUtil::toUnsignedBytes(publicKey.getRsaKey()->modulus, forms[0]);
    MpIntUtil::toSignedBytes(publicKey.getRsaKey()->modulus, forms[1]);
    return forms;
}

const Pkcs11_PrivateKey* rsaKeyById(const Pkcs11State& state, const Certificate& cert,
                                    bool requireSign, LogBase& log) {
    return firstRsaKey(state.m_rsaPrivKeys, *state.m_rsaIndex, &Pkcs11_PrivateKey::m_keyId,
                       {&cert.tokenInfo().ckaId}, requireSign, "ID", log);
}

const Pkcs11_PrivateKey* rsaKeyBySubject(const Pkcs11State& state, const Certificate& cert,
                                         bool requireSign, LogBase& log) {
    DataBuffer subject;
    if (!cert.getPartDer(1, subject, log)) {
        log.LogError("Unable to get cert SubjectDN DER.");
        return nullptr;
    }
    return firstRsaKey(state.m_rsaPrivKeys, *state.m_rsaIndex, &Pkcs11_PrivateKey::m_subjectDer,
                       {&subject}, requireSign, "Subject DER", log);
}

const Pkcs11_PrivateKey* rsaKeyByModulus(const Pkcs11State& state, const Certificate& cert,
                                         bool requireSign, LogBase& log) {
    const auto moduli = moduliOf(cert, log);
    const auto& [plain, withZero] = moduli;
    if (plain.isEmpty()) return nullptr;
    return firstRsaKey(state.m_rsaPrivKeys, *state.m_rsaIndex, &Pkcs11_PrivateKey::m_modulus,
                       {&plain, &withZero}, requireSign, "modulus", log);
}

CK_OBJECT_HANDLE handleOf(const Pkcs11_PrivateKey* key) noexcept {
    return key == nullptr ? 0 : key->m_handle;
}

// Records the key that a rule has found; false if it has found none.
bool take(const Pkcs11_PrivateKey* key, KeyRule rule, FoundKey& found) {
    if (key == nullptr) return false;
    found.handle = key->m_handle;
    found.facts.rule = rule;
    const auto id = key->m_keyId.span();
    found.facts.keyId.assign(id.begin(), id.end());
    if (key->m_signState != Pkcs11_PrivateKey::kSignUnknown) found.facts.maySign = key->maySign();
    if (!key->m_auxData.isEmpty()) found.facts.alwaysAuthenticate = key->m_auxData.span()[0] != 0;
    return true;
}

bool differs(const DataBuffer& known, const std::array<DataBuffer, 2>& forms) {
    return !known.isEmpty() && !forms[0].isEmpty() && !known.equals(forms[0]) &&
           !known.equals(forms[1]);
}

// What a key is compared with.
struct KeyQuestion {
    const DataBuffer& id;
    DataBuffer subject;
    std::array<DataBuffer, 2> moduli;
    std::array<DataBuffer, 2> points;
    bool isEc;
};

std::vector<KeyObjection> objectionsTo(const Pkcs11_PrivateKey& key, const KeyQuestion& wanted) {
    using enum KeyObjection;
    if (key.m_signState == Pkcs11_PrivateKey::kSignUnknown) return {AttributesUnreadable};
    std::vector<KeyObjection> out;
    const auto object = [&](bool applies, KeyObjection objection) {
        if (applies) out.push_back(objection);
    };
    object(wanted.id.isEmpty() || !key.m_keyId.equals(wanted.id), IdDiffers);
    object(!key.m_subjectDer.isEmpty() && !key.m_subjectDer.equals(wanted.subject), SubjectDiffers);
    object(differs(key.m_modulus, wanted.moduli), ModulusDiffers);
    object(differs(comparablePoint(key.m_ecPoint.span()), wanted.points), PointDiffers);
    object(wanted.isEc && key.m_ecPoint.isEmpty(), PointUnknown);
    object(!key.maySign(), MayNotSign);
    return out;
}

bool findRsaKey(Calls& calls, Certificate& cert, KeySearch how, FoundKey& found, LogBase& log) {
    const Pkcs11State& state = calls.state;
    log.LogInfo("Looking for a matching RSA private key...");
    if (!operation::cacheRsaKeys(calls, !how.quick, log)) return false;
    const int numRsaKeys = state.m_rsaPrivKeys.getSize();
    log.LogDataLong("numRsaKeys", numRsaKeys);
    const auto byId = [&] { return take(rsaKeyById(state, cert, true, log), KeyRule::Id, found); };
    const auto bySubjectOrModulus = [&] {
        return (state.m_rsaKeysHaveSubject &&
                take(rsaKeyBySubject(state, cert, true, log), KeyRule::Subject, found)) ||
               (state.m_rsaKeysHaveModulus &&
                take(rsaKeyByModulus(state, cert, true, log), KeyRule::Modulus, found));
    };
    if (byId() || bySubjectOrModulus()) return true;
    if (numRsaKeys == 1 && state.m_certs.getSize() == 1 &&
        keyAt(state.m_rsaPrivKeys, 0) != nullptr) {
        // Whether it may sign does not matter here: there is no other.
        log.LogInfo("Using only possible private key");
        return take(keyAt(state.m_rsaPrivKeys, 0), KeyRule::OnlyKey, found);
    }
    const bool isUnread = state.m_isRsaKeyUnread && !state.m_rsaKeysReread;
    const bool lacksValues = !(state.m_rsaKeysHaveSubject && state.m_rsaKeysHaveModulus);
    bool couldLook = true;
    if (numRsaKeys >= 1 && (lacksValues || isUnread)) {
        const LogContextExitor retry(log, "retry_subjectDer_modulus");
        if (isUnread) calls.state.m_rsaKeysLoaded = false;
        calls.state.m_rsaKeysReread = isUnread;
        couldLook = operation::cacheRsaKeys(calls, true, log);
        if (couldLook && ((isUnread && byId()) || bySubjectOrModulus())) return true;
    }
    if (couldLook && state.m_isRsaKeyUnread) couldLook = calls.failForLoss(log, kUnread);
    log.LogInfo("No matching RSA private key found.");
    return couldLook;
}

bool findEcKey(Calls& calls, Certificate& cert, KeySearch how, FoundKey& found, LogBase& log) {
    const Pkcs11State& state = calls.state;
    // A note, not a failure; callers look for it on the error channel.
    log.LogError("Certificate key type is ECDSA.");
    const auto points = pointsOf(cert);
    const DataBuffer& point = points[0];
    const DataBuffer& otherForm = points[1];
    const bool hasPoint = !point.isEmpty();
    if (!operation::cacheEcKeys(calls, hasPoint && !how.quick, log)) return false;
    log.LogDataLong("numEcdsaKeys", state.m_ecdsaPrivKeys.getSize());

    const auto among = how.mustSign ? KeyIndex::Among::Signing : KeyIndex::Among::All;
    const auto find = [&](KeyRule rule, KeyIndex::Field field,
                          std::initializer_list<const DataBuffer*> values) {
        const int at = firstOf(state.m_ecdsaPrivKeys, *state.m_ecdsaIndex, field, values, among, 0);
        if (at < 0) return false;
        log.LogInfo("Found matching PKCS11 ECDSA private key.");
        return take(keyAt(state.m_ecdsaPrivKeys, at), rule, found);
    };
    const auto byId = [&] {
        return find(KeyRule::Id, &Pkcs11_PrivateKey::m_keyId, {&cert.tokenInfo().ckaId});
    };
    const auto byPoint = [&] {
        return find(KeyRule::Point, &Pkcs11_PrivateKey::m_ecPoint, {&point, &otherForm});
    };
    if (byId()) return true;
    // The token's points are better evidence than the guess below, at the price of reading them.
    if (hasPoint && !operation::cacheEcKeys(calls, true, log)) return false;
    if (byPoint()) return true;
    if (state.m_isEcdsaKeyUnread && !state.m_ecdsaKeysReread) {
        calls.state.m_ecdsaKeysLoaded = false;
        calls.state.m_ecdsaKeysReread = true;
        if (!operation::cacheEcKeys(calls, hasPoint, log)) return false;
        if (byId() || byPoint()) return true;
    }
    if (state.m_isEcdsaKeyUnread) return calls.failForLoss(log, kUnread);
    if (keyAt(state.m_ecdsaPrivKeys, 0) == nullptr) return true;
    log.LogInfo("Using first PKCS11 ECDSA private key");
    take(keyAt(state.m_ecdsaPrivKeys, 0), KeyRule::FirstKey, found);
    // No point of the token is the certificate's.
    found.facts.isDisproved = hasPoint && !keyAt(state.m_ecdsaPrivKeys, 0)->m_ecPoint.isEmpty();
    return true;
}

}  // namespace

bool searchKey(Calls& calls, Certificate& cert, KeySearch how, FoundKey& found, LogBase& log) {
    const LogContextExitor context(log, "findPrivKeyHandle");
    int bits = 0;
    if (calls.state.m_certHandleIsKeyHandle) {
        log.LogInfo("Using certificate's PKCS11 handle as the private key handle...");
        found.keyType = cert.getCertKeyType(bits, log);
        log.LogDataLong("certKeyType", found.keyType);
        found.signatureSize = cert.expectedSignatureSize(log);
        log.LogDataLong("expectedSignatureSize", found.signatureSize);
        if (!calls.hasOpenSession()) return calls.noSession(log);  // the handle belongs to one
        found.handle = cert.tokenInfo().handle;
        found.facts.rule = KeyRule::CertHandle;
        return true;
    }
    log.LogDataBool("userLoggedIn", calls.state.m_userLoggedIn);
    found.keyType = cert.getCertKeyType(bits, log);
    found.signatureSize = cert.expectedSignatureSize(log);
    if (found.keyType == kEcKey) return findEcKey(calls, cert, how, found, log);
    if (found.keyType == kRsaKey) return findRsaKey(calls, cert, how, found, log);
    log.LogError("Only EC and RSA keys are supported on PKCS11.");
    log.LogDataLong("certKeyType", found.keyType);
    XString algorithm;
    if (cert.getKeyAlgorithm(algorithm, log)) log.LogDataX("keyAlgorithm", algorithm);
    return true;
}

// Asks the token whether the only RSA key can be the certificate's; an EC guess is checked when
// it is made.
bool checkGuess(Calls& calls, Certificate& cert, FoundKey& found, LogBase& log) {
    if (found.facts.rule != KeyRule::OnlyKey) return true;
    if (!operation::cacheRsaKeys(calls, true, log)) return false;
    const Pkcs11_PrivateKey* const key = keyAt(calls.state.m_rsaPrivKeys, 0);
    found.facts.isDisproved = key != nullptr && differs(key->m_modulus, moduliOf(cert, log));
    // A modulus that is known and does not differ is the certificate's own.
    if (key != nullptr && !key->m_modulus.isEmpty() && !found.facts.isDisproved)
        found.facts.rule = KeyRule::Modulus;
    return true;
}

bool hasKeyThatMayNotSign(Calls& calls, const Certificate& cert) {
    LogNull log;
    int bits = 0;
    return cert.getCertKeyType(bits, log) == kRsaKey &&
           (rsaKeyById(calls.state, cert, false, log) != nullptr ||
            rsaKeyBySubject(calls.state, cert, false, log) != nullptr ||
            rsaKeyByModulus(calls.state, cert, false, log) != nullptr);
}

bool explainSearch(Calls& calls, Certificate& cert, KeyExplanation& out, LogBase& log) {
    constexpr std::size_t kMaxExplained = 100;
    FoundKey found;
    if (!searchKey(calls, cert, {}, found, log) || !checkGuess(calls, cert, found, log))
        return false;
    out.keyHandle = found.handle;
    out.facts = found.facts;
    const bool isEc = found.keyType == kEcKey;
    if (calls.state.m_certHandleIsKeyHandle || (!isEc && found.keyType != kRsaKey)) return true;
    if (isEc ? !operation::cacheEcKeys(calls, true, log)
             : !operation::cacheRsaKeys(calls, true, log))
        return false;
    KeyQuestion wanted{cert.tokenInfo().ckaId, {}, moduliOf(cert, log), pointsOf(cert), isEc};
    cert.getPartDer(1, wanted.subject, log);
    const ExtPtrArray& keys = isEc ? calls.state.m_ecdsaPrivKeys : calls.state.m_rsaPrivKeys;
    for (int i = 0; i < keys.getSize(); ++i) {
        const Pkcs11_PrivateKey* const key = keyAt(keys, i);
        if (key->m_handle == found.handle) continue;
        if (out.passedOver.size() == kMaxExplained) {
            ++out.numMore;
        } else {
            out.passedOver.push_back(
                {key->m_handle, toHex(key->m_keyId.span()), objectionsTo(*key, wanted)});
        }
    }
    return true;
}

bool ClsPkcs11::cardRequiresPss(LogBase&) {
    return false;
}

CK_OBJECT_HANDLE ClsPkcs11::findPrivKeyHandle(Certificate& cert, bool quick, int& keyType,
                                              int& expectedSignatureSize, LogBase& log) {
    FoundKey found;
    static_cast<void>(searchKey(*m_calls, cert, {.quick = quick}, found, log));
    keyType = found.keyType;
    expectedSignatureSize = found.signatureSize;
    return found.handle;
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKeyById(Certificate& cert, bool requireSign, LogBase& log) {
    return handleOf(rsaKeyById(*this, cert, requireSign, log));
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKeyBySubjectDER(Certificate& cert, bool requireSign,
                                                   LogBase& log) {
    return handleOf(rsaKeyBySubject(*this, cert, requireSign, log));
}

CK_OBJECT_HANDLE ClsPkcs11::findRsaKeyByModulus(Certificate& cert, bool requireSign, LogBase& log) {
    return handleOf(rsaKeyByModulus(*this, cert, requireSign, log));
}

bool ClsPkcs11::ExplainPrivateKey(ClsCert& cert, KeyExplanation& out) {
    return publicCall(*this, *m_calls, "ExplainPrivateKey", Record::Yes, [&](LogBase& log) {
        const auto shared = cert.getCert();
        if (!shared)
            return m_calls->fail(log, FailureKind::Argument, "The certificate object is empty.");
        KeyExplanation explanation;
        if (!explainSearch(*m_calls, *shared, explanation, log)) return false;
        out = std::move(explanation);
        return true;
    });
}

bool ClsPkcs11::linkCertToPkcs11Session(Certificate* cert, bool quick, LogBase& log) {
    if (m_calls->use.hasForked()) {
        const CritSecExitor lock(*this);
        settleAfterFork(*this, *m_calls);
    }
    const LogContextExitor context(log, "linkCertToPkcs11Session");
    return guardedCall(*m_calls, log, [&](LogBase&) {
        if (cert == nullptr) {
            m_calls->noteFailure(FailureKind::Argument, "There is no certificate to link.");
            return false;
        }
        FoundKey found;
        const bool couldLook = searchKey(*m_calls, *cert, {.quick = quick}, found, log);
        log.LogDataBool("hasPrivateKey", found.handle != 0);
        log.LogDataLong("expectedSignatureSize", found.signatureSize);
        if (found.handle == 0) {
            const auto kind = couldLook ? FailureKind::NotFound : FailureKind::ModuleFailed;
            return m_calls->fail(log, kind, "No matching private key found on the HSM.");
        }
        cert->linkToPkcs11Session(this, found.keyType, found.signatureSize, found.handle, log,
                                  found.facts);
        return true;
    });
}

}  // namespace mervane
