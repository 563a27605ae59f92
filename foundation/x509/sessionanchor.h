#ifndef MERVANE_FOUNDATION_X509_SESSIONANCHOR_H
#define MERVANE_FOUNDATION_X509_SESSIONANCHOR_H

#include <atomic>
#include <cstdint>

namespace mervane {

class ClsPkcs11;

/// What certificates hold of the object that owns their session: they keep a weak handle on the
/// anchor, which dies with the object, and the number of the session they were linked under.
struct Pkcs11SessionAnchor {
    explicit Pkcs11SessionAnchor(ClsPkcs11* object) noexcept : owner(object) {}

    ClsPkcs11* const owner;
    /// Changes whenever the session ends; 0 while none is open.
    std::atomic<std::uint64_t> sessionNumber{0};
};

}  // namespace mervane

#endif
