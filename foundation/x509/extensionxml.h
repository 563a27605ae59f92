#ifndef MERVANE_FOUNDATION_X509_EXTENSIONXML_H
#define MERVANE_FOUNDATION_X509_EXTENSIONXML_H

#include <string>

#include "foundation/x509/der.h"

namespace mervane {

/// An extension as one line of XML. Certificate policies (RFC 5280 4.2.1.4) are listed by OID,
/// without qualifiers:
///
///     <certificatePolicies><policy><oid>1.2.3.4</oid></policy>..</certificatePolicies>
///
/// Any other extension, and malformed policies, contain no <oid> element, so a search for a policy
/// cannot match them:
///
///     <extension><extnID>2.5.29.37</extnID><critical>false</critical><hex>..</hex></extension>
///
/// `oid` is the content of extnID, `value` the content of extnValue.
std::string extensionToXml(der::Bytes oid, bool critical, der::Bytes value);

}  // namespace mervane

#endif
