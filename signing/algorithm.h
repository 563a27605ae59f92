#ifndef MERVANE_SIGNING_ALGORITHM_H
#define MERVANE_SIGNING_ALGORITHM_H

#include "signing/scheme.h"

namespace mervane {

/// The object identifier of a hash function: id-sha256, id-sha384, id-sha512 (RFC 5754 2).
der::Octets hashOid(Hash hash);

/// DigestInfo of a digest (RFC 8017 9.2): what CKM_RSA_PKCS signs.
der::Octets digestInfo(Hash hash, der::Bytes digest);

/// The AlgorithmIdentifier of the scheme's signatures, as CMS has it (RFC 5754 3, RFC 4055 3).
der::Octets signatureAlgorithm(const Scheme& scheme);

}  // namespace mervane

#endif
