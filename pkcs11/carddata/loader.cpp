#include <string>

#include "foundation/system/deflate.h"
#include "pkcs11/carddata/carddata.h"

namespace mervane::carddata {

bool load(std::span<const std::string_view> pieces, DataBuffer& json, LogBase& log) {
    // What the document may grow to when inflated, in bytes.
    constexpr std::size_t kMaxSize = 60000;
    std::string text;
    text.reserve(pieces.size() * 76);
    for (const std::string_view piece : pieces) text.append(piece);
    DataBuffer compressed;
    compressed.appendEncodedById(text, 1);  // damaged text shows up when it is inflated
    return MervaneDeflate::inflateDb(false, compressed, json, false, _mvIoParams(), kMaxSize, log);
}

}  // namespace mervane::carddata
