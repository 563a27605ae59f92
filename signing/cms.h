#ifndef MERVANE_SIGNING_CMS_H
#define MERVANE_SIGNING_CMS_H

#include <memory>
#include <string_view>
#include <vector>

#include "signing/scheme.h"

namespace mervane::cms {

// Signed documents: SignedData (RFC 5652) with one signer and the signed attributes of a CAdES
// baseline B signature (ETSI EN 319 122-1). First the attributes are made and signed, then the
// whole.

/// The signed attributes as they are signed: a SET OF in DER's order. `time` is
/// "YYYY-MM-DDThh:mm:ssZ".
der::Octets signedAttributes(const Certificate& signer, der::Bytes messageDigest,
                             std::string_view time);

/// ContentInfo with the SignedData. `signature` is in the form of CMS (ECDSA: DER). `content` is
/// null for a detached signature. `certs`: the signer's and any others.
der::Octets signedData(const Scheme& scheme, const Certificate& signer, der::Bytes attributes,
                       der::Bytes signature, const der::Octets* content,
                       const std::vector<std::shared_ptr<Certificate>>& certs);

}  // namespace mervane::cms

#endif
