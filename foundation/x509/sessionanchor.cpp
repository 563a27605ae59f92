#include "foundation/x509/sessionanchor.h"

#include "foundation/core/forkwatch.h"

namespace mervane {

Pkcs11SessionAnchor::Pkcs11SessionAnchor() noexcept : m_generation(forkGeneration()) {}

std::uint64_t Pkcs11SessionAnchor::session() const noexcept {
    return m_generation.load() == forkGeneration() ? m_number.load() : 0;
}

void Pkcs11SessionAnchor::setSession(std::uint64_t number) noexcept {
    m_generation.store(forkGeneration());
    m_number.store(number);
}

}  // namespace mervane
