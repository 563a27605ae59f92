#ifndef MERVANE_FOUNDATION_X509_SESSIONANCHOR_H
#define MERVANE_FOUNDATION_X509_SESSIONANCHOR_H

#include <atomic>
#include <cstdint>

#include "foundation/core/forkwatch.h"

namespace mervane {

class ClsPkcs11;

/// What certificates hold of the object that owns their session: they keep a weak handle on the
/// anchor, which dies with the object, and the number of the session they were linked under, which
/// changes whenever links made so far shall not hold any more.
struct Pkcs11SessionAnchor {
    explicit Pkcs11SessionAnchor(ClsPkcs11* object) noexcept : owner(object) {}

    /// The session's number; 0 while none is open, and in a fork of the process that opened it.
    [[nodiscard]] std::uint64_t session() const noexcept {
        return generation.load() == forkGeneration() ? number.load() : 0;
    }
    void setSession(std::uint64_t newNumber) noexcept {
        generation.store(forkGeneration());
        number.store(newNumber);
    }

    ClsPkcs11* const owner;

  private:
    std::atomic<std::uint64_t> number{0};
    std::atomic<std::uint32_t> generation{forkGeneration()};
};

}  // namespace mervane

#endif
