#ifndef MERVANE_FUZZ_FUZZ_H
#define MERVANE_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

/// The entry of every target; libFuzzer or replay.cpp calls it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace mervane::fuzz {

inline std::string_view asText(const std::uint8_t* data, std::size_t size) { return {reinterpret_cast<const char*>(data), size}; }

/// Ends the program when what has to hold does not.
inline void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace mervane::fuzz

#endif
