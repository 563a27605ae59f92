#ifndef MERVANE_SIGNING_OPTIONS_H
#define MERVANE_SIGNING_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "../foundation/digest/hash.h"

namespace mervane {

/// The padding of RSA signatures (RFC 8017 8).
enum class Padding : std::uint8_t {
    Automatic,  ///< PKCS#1 v1.5, or PSS where the card takes nothing else
    Pkcs1,      ///< RSASSA-PKCS1-v1_5
    Pss,        ///< RSASSA-PSS with MGF1 of the same hash and a salt as long as the digest
};

/// The form of ECDSA signatures.
enum class EcdsaForm : std::uint8_t {
    Der,  ///< Ecdsa-Sig-Value (RFC 3279 2.2.3), as in certificates and CMS
    Raw,  ///< r and s one after the other, each as long as the order of the base point
};

/// How to sign; what does not concern the key's type is ignored.
struct SignOptions {
    Hash hash = Hash::Sha256;              ///< of the data
    Padding padding = Padding::Automatic;  ///< of an RSA signature
    EcdsaForm ecdsaForm = EcdsaForm::Der;  ///< of an ECDSA signature
};

/// What a signed document (CMS SignedData, RFC 5652) holds beside the signature.
struct CmsOptions {
    Hash hash = Hash::Sha256;              ///< of the data
    Padding padding = Padding::Automatic;  ///< of an RSA signature
    bool isAttached = false;               ///< the document itself; it is kept in memory then
    bool withIssuers =
        false;  ///< the issuers of the signer's certificate, as far as the token has them
    std::string signingTime{};  ///< "YYYY-MM-DDThh:mm:ssZ"; empty for now
};

/// Gives the next piece of the data to sign: fills the room from its front and returns how many
/// bytes; 0 at the end, less than 0 if the data cannot be read. It must not call the ClsPkcs11.
using DataReader = std::function<std::ptrdiff_t(std::span<std::uint8_t> room)>;

/// What a proof has shown of a private key.
enum class KeyProof : std::uint8_t {
    NotTried,     ///< it could not sign
    Proved,       ///< its signature verifies with the certificate's public key
    Disproved,    ///< it does not: the key belongs to another certificate
    NotVerified,  ///< it signs, on a curve that cannot be verified here
};

}  // namespace mervane

#endif
