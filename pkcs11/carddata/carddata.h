#ifndef MERVANE_PKCS11_CARDDATA_CARDDATA_H
#define MERVANE_PKCS11_CARDDATA_CARDDATA_H

#include <cstdint>
#include <span>
#include <string_view>

#include "foundation/log/logbase.h"
#include "foundation/text/databuffer.h"

namespace mervane::carddata {

/// The card database as it is stored: the JSON document, raw deflate, base64 without padding, cut
/// into pieces to be joined in this order.
std::span<const std::string_view> constants() noexcept;

/// zlib's CRC-32 of the document. Raw deflate carries no checksum, and a damaged stream may well
/// inflate to something.
std::uint32_t documentCrc32() noexcept;

/// Decodes and inflates the pieces. False, with an error line and `json` untouched, unless they
/// yield the exact document.
bool load(std::span<const std::string_view> pieces, DataBuffer& json, LogBase& log);

}  // namespace mervane::carddata

#endif
