#ifndef MERVANE_PKCS11_SIGNER_H
#define MERVANE_PKCS11_SIGNER_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mervane {

/// Which certificate is to sign; all that is given has to fit. The default fits every certificate.
///
/// Of the certificates that fit, only those with a private key that may sign are considered, and of
/// these the best is taken, by the first difference in:
///
///   1. its key was found by ID, subject, modulus or point, and is no guess
///   2. it is within its validity
///   3. it is no CA certificate
///   4. it may be used for signatures (digitalSignature, nonRepudiation, or no key usage at all)
///   5. the latest beginning of validity
///
/// Two that are equal in all of this are a failure (SeveralCerts) that names them. Certificates
/// passed over are named in the log. A guess that the token itself disproves is never taken.
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
