#ifndef MERVANE_PKCS11_CARDDATA_CARDDATA_H
#define MERVANE_PKCS11_CARDDATA_CARDDATA_H

#include <cstdint>
#include <span>
#include <string_view>

#include "foundation/log/logbase.h"
#include "foundation/text/databuffer.h"

namespace mervane::carddata {

/// The card database as it is carried: base64 without padding of the raw deflate stream of the JSON
/// document, in pieces that belong together in this order.
std::span<const std::string_view> constants() noexcept;

/// CRC-32 (that of zlib) of the document. Raw deflate has no checksum of its own, and a damaged
/// stream may well inflate to something.
std::uint32_t documentCrc32() noexcept;

/// Decodes and inflates the pieces. False, with a line, when they do not give the exact document;
/// `json` is then untouched.
bool load(std::span<const std::string_view> pieces, DataBuffer& json, LogBase& log);

}  // namespace mervane::carddata

#endif
