#ifndef MERVANE_FOUNDATION_X509_KEYLINK_H
#define MERVANE_FOUNDATION_X509_KEYLINK_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace mervane {

/// How a certificate's private key was found, from the most to the least certain.
enum class KeyRule : std::uint8_t {
    None,        ///< not known
    CertHandle,  ///< the module uses one handle for certificate and key
    Id,          ///< both have the same CKA_ID
    Subject,     ///< the key's CKA_SUBJECT is the certificate's subject
    Modulus,     ///< RSA: the moduli are equal
    Point,       ///< EC: the public points are equal
    OnlyKey,     ///< a guess: the token has one RSA key and one certificate
    FirstKey,    ///< a guess: no EC key fits; this is the token's first
};

/// Whether the key was taken only because it was there.
constexpr bool isGuess(KeyRule rule) noexcept {
    return rule == KeyRule::OnlyKey || rule == KeyRule::FirstKey;
}

/// The rule's name in JSON and in logs: certHandle, id, subject, modulus, point, only, guess;
/// "unknown" for None.
std::string_view nameOf(KeyRule rule) noexcept;

/// What the search learnt about a private key; an optional is empty where the token does not say.
struct PrivateKeyFacts {
    KeyRule rule = KeyRule::None;            ///< how the key was found
    std::optional<bool> maySign;             ///< CKA_SIGN
    std::optional<bool> alwaysAuthenticate;  ///< CKA_ALWAYS_AUTHENTICATE: a PIN for each signature
    /// The rule is a guess that the token itself refutes: the key's own modulus or point is known,
    /// and is not the certificate's.
    bool isDisproved = false;
    std::string keyId;  ///< CKA_ID, bytes; empty where the key has none or it was not read
};

}  // namespace mervane

#endif
