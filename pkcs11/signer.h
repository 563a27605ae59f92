#ifndef MERVANE_PKCS11_SIGNER_H
#define MERVANE_PKCS11_SIGNER_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mervane {

/// Which certificate is to sign: everything given has to fit. The default fits every certificate.
///
/// Of the certificates that fit, only those with a private key that may sign are considered. They
/// are compared in this order, and the best is taken:
///
///   1. its key was found by ID, subject, modulus or point, not guessed
///   2. it is within its validity
///   3. it is not a CA certificate
///   4. it may be used for signatures (digitalSignature, nonRepudiation, or no key usage at all)
///   5. its validity begins latest
///
/// If two are equal in all of this, the call fails (SeveralCerts) and names them. The log names the
/// certificates passed over. A guess that the token itself disproves is never taken.
struct SignerQuery {
    /// Part and value as FindCert takes them: {"CN", "Alice"}.
    std::vector<std::pair<std::string, std::string>> parts{};
    std::optional<std::string> label{};   ///< CKA_LABEL, exactly
    std::optional<std::string> id{};      ///< CKA_ID, hexadecimal, any case
    std::optional<std::string> sha256{};  ///< of the DER, hexadecimal, any case
    /// The time at which the certificate is to be valid, "YYYY-MM-DDThh:mm:ssZ"; empty: now.
    std::string at{};
};

}  // namespace mervane

#endif
