#ifndef MERVANE_FOUNDATION_X509_KEYLINK_H
#define MERVANE_FOUNDATION_X509_KEYLINK_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace mervane {

/// By what a certificate's private key was found, from the most to the least certain.
enum class KeyRule : std::uint8_t {
    None,        ///< nobody said
    CertHandle,  ///< the module uses one handle for certificate and key
    Id,          ///< both have the same CKA_ID
    Subject,     ///< the key's CKA_SUBJECT is the certificate's subject
    Modulus,     ///< the public keys are the same, RSA
    Point,       ///< the public keys are the same, EC
    OnlyKey,     ///< a guess: the token has one RSA key and one certificate
    FirstKey,    ///< a guess: no EC key fits, this one is the token's first
};

/// Whether nothing but its being there speaks for the key.
constexpr bool isGuess(KeyRule rule) noexcept {
    return rule == KeyRule::OnlyKey || rule == KeyRule::FirstKey;
}

/// The rule in JSON and in logs: certHandle, id, subject, modulus, point, only, guess; "unknown"
/// for None.
std::string_view nameOf(KeyRule rule) noexcept;

/// What the search for a private key learnt of it. Nothing where the token does not say.
struct PrivateKeyFacts {
    KeyRule rule = KeyRule::None;
    std::optional<bool> maySign;             ///< CKA_SIGN
    std::optional<bool> alwaysAuthenticate;  ///< CKA_ALWAYS_AUTHENTICATE: a PIN at each signature
    /// A guess that the token itself refutes: the key's own modulus or point is known, and is not
    /// the certificate's.
    bool isDisproved = false;
};

}  // namespace mervane

#endif
