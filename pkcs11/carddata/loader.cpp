#include <string>
#include <utility>

#include <zlib.h>

#include "foundation/system/deflate.h"
#include "pkcs11/carddata/carddata.h"

namespace mervane::carddata {

bool load(std::span<const std::string_view> pieces, DataBuffer& json, LogBase& log) {
    // Bytes that the document may inflate to.
    constexpr std::size_t kMaxSize = 60000;
    std::string text;
    text.reserve(pieces.size() * 76);
    for (const std::string_view piece : pieces) text.append(piece);
    DataBuffer compressed;
    compressed.appendEncodedById(text, 1);  // damage shows up in the inflater
    DataBuffer document;
    if (!MervaneDeflate::inflateDb(false, compressed, document, false, _mvIoParams(), kMaxSize,
                                   log))
        return false;
    const auto bytes = document.span();
    if (::crc32(0, bytes.data(), static_cast<uInt>(bytes.size())) != documentCrc32()) {
        log.LogError("The card data is damaged.");
        return false;
    }
    json = std::move(document);
    return true;
}

}  // namespace mervane::carddata
