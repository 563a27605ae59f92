#include "foundation/x509/systemcerts.h"

#include <algorithm>

namespace mervane {

void SystemCerts::add(const std::shared_ptr<Certificate>& cert) {
    const CritSecExitor lock(m_section);
    const bool known = std::ranges::any_of(
        m_certs, [&](const auto& have) { return std::ranges::equal(have->der(), cert->der()); });
    if (!known) m_certs.push_back(cert);
}

std::vector<std::shared_ptr<Certificate>> SystemCerts::all() const {
    const CritSecExitor lock(m_section);
    return m_certs;
}

SystemCertsHolder::Ptr SystemCertsHolder::getSystemCertsPtr() {
    const CritSecExitor lock(m_section);
    if (!m_store) m_store = std::make_shared<SystemCerts>();
    return m_store;
}

void SystemCertsHolder::setSystemCerts(Ptr store) {
    const CritSecExitor lock(m_section);
    m_store.swap(store);  // the former store is released after the lock
}

void SystemCertsHolder::mergeSysCerts(SystemCertsHolder& other, LogBase&) {
    // Each step takes and releases one lock, so opposite merges cannot deadlock.
    const Ptr theirs = other.getSystemCertsPtr();
    const Ptr ours = getSystemCertsPtr();
    if (ours == theirs) return;
    for (const auto& cert : theirs->all()) ours->add(cert);
}

}  // namespace mervane
