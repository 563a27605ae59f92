#ifndef MERVANE_FOUNDATION_X509_EXTENSIONXML_H
#define MERVANE_FOUNDATION_X509_EXTENSIONXML_H

#include <cstdint>
#include <string>

#include "foundation/x509/der.h"

namespace mervane {

/// The KeyUsage bit string's first octet (RFC 5280 4.2.1.3: 0x80 digitalSignature through 0x01
/// encipherOnly), unused bits cleared; 0 when `value` is no KeyUsage.
int keyUsageBits(der::Bytes value) noexcept;

/// An extension as XML in one line. Certificate policies, key usage, extended key usage, basic
/// constraints and alternative names have a form of their own; any other, and one of these whose
/// content is malformed, is <extension><extnID>..</extnID><critical>..</critical><hex>..</hex>
/// </extension>, without an <oid> element: that is what policies are searched by.
///
///     <certificatePolicies><policy><oid>1.2.3.4</oid></policy>..</certificatePolicies>
///     <keyUsage><digitalSignature/><nonRepudiation/></keyUsage>
///     <extendedKeyUsage><oid>1.3.6.1.5.5.7.3.2</oid></extendedKeyUsage>
///     <basicConstraints><cA>true</cA><pathLenConstraint>0</pathLenConstraint></basicConstraints>
///     <subjectAltName><dNSName>example.org</dNSName></subjectAltName>
///
/// `oid` is the content of the extension's OID, `value` that of its extnValue OCTET STRING.
std::string extensionToXml(der::Bytes oid, bool critical, der::Bytes value);

}  // namespace mervane

#endif
