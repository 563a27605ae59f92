#ifndef MERVANE_PKCS11_RECORDS_H
#define MERVANE_PKCS11_RECORDS_H

#include <array>
#include <cstdint>

#include "../foundation/core/object.h"
#include "../foundation/core/ptrarray.h"
#include "../foundation/text/databuffer.h"
#include "../foundation/text/stringbuffer.h"
#include "../foundation/x509/keylink.h"
#include "calls/cktypes.h"

namespace mervane {

/// One private key object of the token. An empty buffer means that the value was not read or that
/// the object lacks it; matching on that value skips the record.
class Pkcs11_PrivateKey final : public NonRefCountedObj {
  public:
    enum SignState : std::int32_t {
        kSignUnknown = 0,
        kMaySign = 1,
        kMayNotSign = 2,  ///< CKA_SIGN is false or missing
    };

    [[nodiscard]] bool maySign() const noexcept { return m_signState != kMayNotSign; }

    CK_OBJECT_HANDLE m_handle = 0;
    DataBuffer m_subjectDer;  ///< CKA_SUBJECT, the DER of a name
    DataBuffer m_modulus;     ///< CKA_MODULUS as the token has it, big-endian (RSA)
    DataBuffer m_auxData;  ///< CKA_ALWAYS_AUTHENTICATE, one byte: each signature asks for the PIN
    DataBuffer
        m_ecPoint;  ///< the public point, SEC 1 octets as EccKey::exportEccPoint gives them (EC)
    DataBuffer m_keyId;  ///< CKA_ID
    std::int32_t m_signState = kSignUnknown;
};

/// The result of reading one object's attributes; refilled for every object.
class Pkcs11_Attributes final : public NonRefCountedObj {
  public:
    Pkcs11_Attributes() = default;
    ~Pkcs11_Attributes() override { clearPkcs11Attrs(); }

    /// Releases the values.
    void clearPkcs11Attrs() noexcept;

    std::uint32_t m_numAsked = 0;
    std::uint32_t m_numPresent = 0;
    std::uint32_t m_numAbsent = 0;
    std::uint32_t m_numAskedAgain = 0;  ///< attributes that took a call of their own

    // Room for numbers and flags, eight bytes each, in the order of the rows. Left uninitialised:
    // every read presets it.
    alignas(CK_ULONG) std::array<std::uint8_t, 128> m_fixed;  // NOLINT(*-member-init)

    ExtPtrArray m_longValues;   ///< values that did not fit the common room
    ExtPtrArraySb m_malformed;  ///< types of the attributes that the module lied about
    bool m_wasPartial = false;  ///< some attributes were missing or did not fit
};

/// What the search for a certificate's private key has found.
struct FoundKey {
    CK_OBJECT_HANDLE handle = 0;  ///< 0: none
    int keyType = 0;              ///< of the certificate, as Certificate::getCertKeyType has it
    int signatureSize = 0;        ///< bytes; 0 if the key type is not supported
    PrivateKeyFacts facts;        ///< what the search learnt of it
};

/// How thoroughly a private key is looked for.
struct KeySearch {
    bool quick = true;  ///< reads fewer attributes: see findPrivKeyHandle
    /// Passes over EC keys that may not sign, as it does over RSA keys in any case.
    bool mustSign = false;
};

/// What FindCert looks for.
struct _smartcardCertSpec {
    StringBuffer reader;  ///< for callers that choose among card readers; not read here
    StringBuffer card;    ///< for callers that choose among cards; not read here
    /// What to match on: a keyword of the match table or a subject part. Case and surrounding white
    /// space are ignored. Empty: no match rule.
    StringBuffer certPart;
    StringBuffer certPartVal;  ///< the value to match
    /// With an empty certPart: only a certificate whose private key is on the token.
    bool mustHavePrivateKey = false;
};

}  // namespace mervane

#endif
