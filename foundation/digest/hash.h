#ifndef MERVANE_FOUNDATION_DIGEST_HASH_H
#define MERVANE_FOUNDATION_DIGEST_HASH_H

#include <cstdint>

namespace mervane {

/// The hash functions of signatures (FIPS 180-4).
enum class Hash : std::uint8_t { Sha256, Sha384, Sha512 };

}  // namespace mervane

#endif
