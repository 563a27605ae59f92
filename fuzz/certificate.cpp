// A certificate's bytes, with every reader.

#include "fuzz/fuzz.h"
#include "tests/readers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    mervane::test::readAll({data, size});
    return 0;
}
