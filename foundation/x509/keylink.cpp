#include "foundation/x509/keylink.h"

#include <array>

namespace mervane {

std::string_view nameOf(KeyRule rule) noexcept {
    // In the order of the values.
    constexpr std::array<std::string_view, 8> kNames = {"unknown", "certHandle", "id",   "subject",
                                                        "modulus", "point",      "only", "guess"};
    return kNames.at(static_cast<std::size_t>(rule));
}

}  // namespace mervane
