#ifndef MERVANE_SIGNING_VERDICT_H
#define MERVANE_SIGNING_VERDICT_H

#include <cstdint>

namespace mervane {

/// Whether a signature verifies with a public key. Not verifiable: a key of a kind or on a curve
/// that is not known here.
enum class Verdict : std::uint8_t { Right, Wrong, NotVerifiable };

}  // namespace mervane

#endif
