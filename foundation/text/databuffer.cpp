#include "foundation/text/databuffer.h"

#include "foundation/text/base64.h"

namespace mervane {

bool DataBuffer::appendEncodedById(std::string_view text, int encodingId) {
    return encodingId == 1 && appendBase64(text, m_bytes);
}

}  // namespace mervane
