#ifndef MERVANE_FOUNDATION_X509_NAME_H
#define MERVANE_FOUNDATION_X509_NAME_H

#include <optional>
#include <string>
#include <string_view>

#include "foundation/x509/der.h"

namespace mervane {

// Readers of a distinguished name (RFC 5280 4.1.2.4). `name` is the DER of the whole Name.

/// The name as "TAG=value" pairs in the order of the certificate, joined by ", " ("+" within one
/// relative name). Escapes and short names are those of RFC 4514, plus E for emailAddress; other
/// types are written by OID, and values that are not strings as "#" and their DER in hexadecimal.
/// Unless `withTags`, the values alone, joined and escaped the same way. nullopt if the name is
/// malformed.
std::optional<std::string> nameToText(der::Bytes name, bool withTags);

/// Whether the name is well-formed throughout.
bool isWellFormedName(der::Bytes name) noexcept;

/// The first string value of the attribute type `part`, a short name in upper case or a dotted OID.
/// UTF-8, not escaped; nullopt if the name has none.
std::optional<std::string> namePart(der::Bytes name, std::string_view part);

}  // namespace mervane

#endif
