// Parses the input as a certificate and calls every reader on it.

#include "fuzz/fuzz.h"
#include "tests/readers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    mervane::test::readAll({data, size});
    return 0;
}
