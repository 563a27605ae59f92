// Signing with the key that a certificate is linked to.
//
// The link says everything that is needed: the key's handle, its type, the length of its
// signatures, whether it may sign and wants its PIN each time. What speaks against the key is said
// before the module is asked: it is not linked, or elsewhere, or may not sign, or is too short.
// Then the module signs (calls/sign.cpp), and nothing wrong leaves: the length has to be right, r
// and s in range, and an RSA signature has to verify with the certificate's public key, which costs
// a twentieth of making it. ECDSA is verified only to prove a key, since that takes longer than
// signing.

#include <sys/random.h>

#include <algorithm>
#include <array>

#include "foundation/digest/digest.h"
#include "foundation/system/clock.h"
#include "pkcs11/calls/sign.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"
#include "signing/cms.h"
#include "signing/ecdsa.h"

namespace mervane {
namespace {

// The key that a certificate is linked to, and how it signs.
class LinkedKey {
  public:
    LinkedKey(Calls& calls, LogBase& log) : m_calls(calls), m_log(log) {}

    // The key of a certificate, if it may be used.
    bool take(const Pkcs11SessionOwner& owner, ClsCert& holder, Hash hash, Padding padding,
              bool cardRequiresPss) {
        m_cert = holder.getCert();
        if (!m_cert) return refuse(FailureKind::Argument, "The certificate object is empty.");
        const auto link = m_cert->pkcs11Link();
        if (!link || link->keyHandle == 0)
            return m_cert->wasLinkedToPkcs11()
                       ? refuse(FailureKind::TokenGone,
                                "The session in which the certificate was found has ended.")
                       : refuse(FailureKind::Argument,
                                "The certificate is not linked to a private key; FindSigner and "
                                "FindCert link it.");
        if (!(link->owner == &owner))
            return refuse(FailureKind::Argument,
                          "The certificate is linked to the session of another object.");
        if (link->facts.isDisproved)
            return refuse(FailureKind::NotFound,
                          "The key that was linked is not the certificate's.");
        if (link->facts.maySign == false)
            return refuse(FailureKind::KeyMayNotSign,
                          "The private key may not sign: its CKA_SIGN is false or missing.");
        m_scheme = schemeFor(*m_cert, hash, padding, cardRequiresPss);
        if (m_scheme.keyType == kOtherKey)
            return refuse(FailureKind::NotSupported, "Keys of this type cannot sign here.");
        if (!fitsKey(m_scheme, *m_cert))
            return refuse(FailureKind::NotSupported,
                          "The key is too short for this padding and hash.");
        m_facts = link->facts;
        m_notes = m_calls.state.m_keyNotes->notesOn(m_calls.use.session(), link->keyHandle, m_cert);
        return true;
    }

    [[nodiscard]] const std::shared_ptr<Certificate>& cert() const { return m_cert; }
    [[nodiscard]] const Scheme& scheme() const { return m_scheme; }

    // A signature that may leave: RSA, or r || s.
    bool sign(SignInput& input, std::vector<std::uint8_t>& signature) {
        if (isGuess(m_facts.rule) && !m_notes->isProved && !proveGuess()) return false;
        if (!signUnchecked(input, signature)) return false;
        if (m_scheme.keyType == kEcKey) return true;
        const auto digest = input.digest(m_scheme.hash);
        return (digest &&
                m_notes->verifier->verify(m_scheme, *digest, signature) == Verdict::Right) ||
               refuse(FailureKind::ModuleFailed,
                      "The signature does not verify with the certificate's public key.");
    }

    bool prove(KeyProof& proof) {
        std::array<std::uint8_t, 32> nonce{};
        if (::getrandom(nonce.data(), nonce.size(), 0) != static_cast<ssize_t>(nonce.size()))
            return refuse(FailureKind::NotSupported, "The system gives no random numbers.");
        auto input = SignInput::ofData(nonce);
        std::vector<std::uint8_t> signature;
        if (!signUnchecked(input, signature)) return false;
        const auto digest = input.digest(m_scheme.hash);
        const Verdict verdict = m_notes->verifier->verify(m_scheme, *digest, signature);
        m_notes->isProved = verdict == Verdict::Right;
        proof = verdict == Verdict::Right   ? KeyProof::Proved
                : verdict == Verdict::Wrong ? KeyProof::Disproved
                                            : KeyProof::NotVerified;
        return true;
    }

  private:
    bool refuse(FailureKind kind, std::string_view sentence) {
        return m_calls.fail(m_log, kind, sentence);
    }

    bool proveGuess() {
        KeyProof proof{};
        if (!prove(proof)) return false;
        if (proof == KeyProof::Proved) return true;
        return proof == KeyProof::Disproved
                   ? refuse(FailureKind::NotFound,
                            "The key was only guessed, and it is not the certificate's.")
                   : refuse(FailureKind::NotSupported,
                            "The key was only guessed, and cannot be proved on this curve.");
    }

    // As the module gives it, in the form and range of its kind.
    bool signUnchecked(SignInput& input, std::vector<std::uint8_t>& signature) {
        const bool wantsPin = m_facts.alwaysAuthenticate.value_or(false);
        if (!mervane::sign(m_calls, m_scheme, wantsPin, *m_notes, input, signature, m_log))
            return false;
        if (m_scheme.keyType == kRsaKey)
            return signature.size() == m_scheme.signatureSize || refuseLength(signature.size());
        auto raw = rawEcdsa(m_scheme, *m_cert, signature);
        if (!raw) return refuseLength(signature.size());
        signature = std::move(*raw);
        return true;
    }

    bool refuseLength(std::size_t size) {
        return refuse(FailureKind::ModuleFailed,
                      "The module gave no signature of this key: " + std::to_string(size) +
                          " bytes, where " + std::to_string(m_scheme.signatureSize) +
                          " are expected.");
    }

    Calls& m_calls;
    LogBase& m_log;
    std::shared_ptr<Certificate> m_cert;
    Scheme m_scheme;
    PrivateKeyFacts m_facts;
    std::shared_ptr<KeyNotes> m_notes;
};

// The signer's certificate, and those of its issuers that are in the cache, if there is one. The
// cache is not read anew: that would end the signer's own link.
std::vector<std::shared_ptr<Certificate>> chainOf(const std::shared_ptr<Certificate>& signer,
                                                  const ExtPtrArray* certs) {
    constexpr std::size_t kMaxChain = 16;
    std::vector<std::shared_ptr<Certificate>> chain = {signer};
    if (certs == nullptr) return chain;
    const auto isIssuer = [](const Certificate& candidate, const Certificate& cert) {
        LogNull log;
        DataBuffer subject;
        return candidate.isCa() && candidate.getPartDer(1, subject, log) &&
               std::ranges::equal(subject.span(), cert.issuer());
    };
    const auto isNew = [&](const Certificate& candidate) {
        return std::ranges::none_of(chain, [&](const auto& cert) {
            return std::ranges::equal(cert->der(), candidate.der());
        });
    };
    for (std::size_t last = 0; last < chain.size() && chain.size() < kMaxChain; ++last) {
        for (int i = 0; i < certs->getSize() && chain.size() < kMaxChain; ++i) {
            const auto* const holder = static_cast<CertificateHolder*>(certs->elementAt(i));
            const auto candidate = holder == nullptr ? nullptr : holder->share();
            if (candidate && isIssuer(*candidate, *chain[last]) && isNew(*candidate))
                chain.push_back(candidate);
        }
    }
    return chain;
}

// The signature in the form that is asked for.
bool signInput(LinkedKey& key, SignInput input, EcdsaForm form,
               std::vector<std::uint8_t>& signature) {
    std::vector<std::uint8_t> made;
    if (!key.sign(input, made)) return false;
    const bool isDer = key.scheme().keyType == kEcKey && form == EcdsaForm::Der;
    signature = isDer ? ecdsa::toDer(made) : std::move(made);
    return true;
}

}  // namespace

bool ClsPkcs11::SignHash(ClsCert& cert, std::span<const std::uint8_t> digest,
                         const SignOptions& options, std::vector<std::uint8_t>& signature) {
    return publicCall(*this, *m_calls, "SignHash", Record::Yes, [&](LogBase& log) {
        if (digest.size() != digestSize(options.hash))
            return m_calls->fail(log, FailureKind::Argument,
                                 "The digest is not as long as the hash function's.");
        LinkedKey key(*m_calls, log);
        return key.take(*this, cert, options.hash, options.padding, cardRequiresPss(log)) &&
               signInput(key, SignInput::ofDigest(digest), options.ecdsaForm, signature);
    });
}

bool ClsPkcs11::SignData(ClsCert& cert, std::span<const std::uint8_t> data,
                         const SignOptions& options, std::vector<std::uint8_t>& signature) {
    return publicCall(*this, *m_calls, "SignData", Record::Yes, [&](LogBase& log) {
        LinkedKey key(*m_calls, log);
        return key.take(*this, cert, options.hash, options.padding, cardRequiresPss(log)) &&
               signInput(key, SignInput::ofData(data), options.ecdsaForm, signature);
    });
}

bool ClsPkcs11::SignData(ClsCert& cert, const DataReader& reader, const SignOptions& options,
                         std::vector<std::uint8_t>& signature) {
    return publicCall(*this, *m_calls, "SignData", Record::Yes, [&](LogBase& log) {
        LinkedKey key(*m_calls, log);
        return key.take(*this, cert, options.hash, options.padding, cardRequiresPss(log)) &&
               signInput(key, SignInput::ofReader(reader), options.ecdsaForm, signature);
    });
}

bool ClsPkcs11::SignCms(ClsCert& cert, const DataReader& reader, const CmsOptions& options,
                        std::vector<std::uint8_t>& document) {
    return publicCall(*this, *m_calls, "SignCms", Record::Yes, [&](LogBase& log) {
        const std::string time = options.signingTime.empty() ? utcNow() : options.signingTime;
        if (!isUtcTime(time))
            return m_calls->fail(log, FailureKind::Argument,
                                 "The time is not of the form YYYY-MM-DDThh:mm:ssZ.");
        LinkedKey key(*m_calls, log);
        if (!key.take(*this, cert, options.hash, options.padding, cardRequiresPss(log)))
            return false;
        der::Octets content;
        const auto keep = [&](der::Bytes piece) {
            if (options.isAttached) content.insert(content.end(), piece.begin(), piece.end());
            return true;
        };
        auto data = SignInput::ofReader(reader);
        if (!data.pass(options.hash, keep))
            return m_calls->fail(log, FailureKind::Argument, "The data to sign cannot be read.");
        const auto attributes =
            cms::signedAttributes(*key.cert(), *data.digest(options.hash), time);
        std::vector<std::uint8_t> signature;
        if (!signInput(key, SignInput::ofData(attributes), EcdsaForm::Der, signature)) return false;
        document = cms::signedData(key.scheme(), *key.cert(), attributes, signature,
                                   options.isAttached ? &content : nullptr,
                                   chainOf(key.cert(), options.withIssuers ? &m_certs : nullptr));
        return true;
    });
}

bool ClsPkcs11::ProveKey(ClsCert& cert, KeyProof& proof) {
    return publicCall(*this, *m_calls, "ProveKey", Record::Yes, [&](LogBase& log) {
        LinkedKey key(*m_calls, log);
        proof = KeyProof::NotTried;
        return key.take(*this, cert, Hash::Sha256, Padding::Automatic, cardRequiresPss(log)) &&
               key.prove(proof);
    });
}

}  // namespace mervane
