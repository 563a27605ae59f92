#ifndef MERVANE_SIGNING_VERIFIER_H
#define MERVANE_SIGNING_VERIFIER_H

#include <memory>
#include <optional>

#include "signing/rsa.h"
#include "signing/scheme.h"
#include "signing/verdict.h"

namespace mervane {

/// Verifies signatures with the public key of a certificate, of which it keeps a share.
class Verifier {
  public:
    explicit Verifier(std::shared_ptr<const Certificate> cert);

    [[nodiscard]] const Certificate* cert() const noexcept { return m_cert.get(); }

    /// Whether a signature verifies: RSA in every case, r || s of an EC key if its curve is known.
    [[nodiscard]] Verdict verify(const Scheme& scheme, der::Bytes digest,
                                 der::Bytes signature) const;

  private:
    std::shared_ptr<const Certificate> m_cert;
    std::optional<rsa::Verifier> m_rsa;
};

}  // namespace mervane

#endif
