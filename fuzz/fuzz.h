#ifndef MERVANE_FUZZ_FUZZ_H
#define MERVANE_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

/// Defined by each target; called by libFuzzer or replay.cpp for each input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace mervane::fuzz {

/// The input as text; valid as long as the input.
inline std::string_view asText(const std::uint8_t* data, std::size_t size) { return {reinterpret_cast<const char*>(data), size}; }

/// Aborts, which the fuzzer reports as a crash, unless `holds`.
inline void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace mervane::fuzz

#endif
