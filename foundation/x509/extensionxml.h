#ifndef MERVANE_FOUNDATION_X509_EXTENSIONXML_H
#define MERVANE_FOUNDATION_X509_EXTENSIONXML_H

#include <cstdint>
#include <string>

#include "foundation/x509/der.h"

namespace mervane {

/// The KeyUsage bit string's first octet (RFC 5280 4.2.1.3: 0x80 digitalSignature through 0x01
/// encipherOnly), unused bits cleared; 0 when `value` is no KeyUsage.
int keyUsageBits(der::Bytes value) noexcept;

/// An extension as XML in one line. Certificate policies (RFC 5280 4.2.1.4) are listed by their
/// identifiers, without qualifiers:
///
///     <certificatePolicies><policy><oid>1.2.3.4</oid></policy>..</certificatePolicies>
///
/// Any other extension, and policies whose content is malformed, have no <oid> element, which is
/// what policies are searched by:
///
///     <extension><extnID>2.5.29.37</extnID><critical>false</critical><hex>..</hex></extension>
///
/// `oid` is the content of the extension's OID, `value` that of its extnValue OCTET STRING.
std::string extensionToXml(der::Bytes oid, bool critical, der::Bytes value);

}  // namespace mervane

#endif
