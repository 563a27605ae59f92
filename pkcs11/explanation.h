#ifndef MERVANE_PKCS11_EXPLANATION_H
#define MERVANE_PKCS11_EXPLANATION_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "../foundation/json/value.h"
#include "../foundation/x509/keylink.h"
#include "calls/cktypes.h"

namespace mervane {

/// A reason not to take a key.
enum class KeyObjection : std::uint8_t {
    AttributesUnreadable,  ///< nothing but its handle is known
    IdDiffers,             ///< CKA_ID differs, or one of the two has none
    SubjectDiffers,        ///< RSA; CKA_SUBJECT is known and differs
    ModulusDiffers,        ///< RSA; CKA_MODULUS is known and differs
    PointDiffers,          ///< EC; the public point is known and differs
    PointUnknown,          ///< EC; neither the key nor a public key with its ID shows a point
    MayNotSign,            ///< CKA_SIGN is false or missing
};

/// The objection's name in JSON: attributesUnreadable, idDiffers, ...
std::string_view nameOf(KeyObjection objection) noexcept;

/// A key of the certificate's type that was not taken.
struct PassedOverKey {
    CK_OBJECT_HANDLE handle = 0;           ///< the key
    std::string ckaId;                     ///< upper-case hexadecimal
    std::vector<KeyObjection> objections;  ///< none: it fits too, but comes later
};

/// How the search for a certificate's private key ended, and why.
struct KeyExplanation {
    CK_OBJECT_HANDLE keyHandle = 0;         ///< 0: no key was found
    PrivateKeyFacts facts;                  ///< of the key that was found
    std::vector<PassedOverKey> passedOver;  ///< the first 100, in the token's order
    std::size_t numMore = 0;                ///< keys passed over beyond these
};

/// {"keyBy":"id","disproved":false,"passedOver":[{"handle":7,"id":"01","because":["idDiffers"]}],
/// "more":0}
JsonValue toJson(const KeyExplanation& explanation);

}  // namespace mervane

#endif
