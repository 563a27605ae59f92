#ifndef MERVANE_FOUNDATION_X509_NAME_H
#define MERVANE_FOUNDATION_X509_NAME_H

#include <optional>
#include <string>
#include <string_view>

#include "foundation/x509/der.h"

namespace mervane {

/// Readers of a distinguished name (RFC 5280 4.1.2.4), given as the DER of the whole Name.

/// "TAG=value" pairs in the order of the certificate, joined by ", " (by "+" within one relative
/// name), with the escapes and short names of RFC 4514 (E for emailAddress); other types by their
/// OID. Values of a type that is no string are "#" and their DER in hexadecimal. With `withTags`
/// false, the values alone, joined and escaped the same way. Nothing when the name is malformed.
std::optional<std::string> nameToText(der::Bytes name, bool withTags);

/// Whether the whole name can be walked.
bool isWellFormedName(der::Bytes name) noexcept;

/// The first value of the type that `part` names: a short name in upper case or a dotted OID.
/// UTF-8, not escaped. Nothing when the name lacks it.
std::optional<std::string> namePart(der::Bytes name, std::string_view part);

}  // namespace mervane

#endif
