// Inflates the input as raw deflate. The result must stay within the limit, and be empty on failure.

#include "foundation/system/deflate.h"
#include "fuzz/fuzz.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LogNull log;
    DataBuffer out;
    const bool ok = MervaneDeflate::inflateDb(false, DataBuffer({data, size}), out, false, _mvIoParams(), 60000, log);
    fuzz::require(ok ? out.getSize() <= 60000 : out.isEmpty());
    return 0;
}
