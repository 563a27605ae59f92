#ifndef MERVANE_FOUNDATION_X509_SYSTEMCERTS_H
#define MERVANE_FOUNDATION_X509_SYSTEMCERTS_H

#include <memory>
#include <vector>

#include "certificate.h"

namespace mervane {

/// A store of certificates that complete chains and decide trust, shared by all objects that were
/// given it. Any thread may use it.
class SystemCerts {
  public:
    /// Adds a certificate unless one with the same DER is there.
    void add(const std::shared_ptr<Certificate>& cert);
    /// The store's certificates at this moment.
    [[nodiscard]] std::vector<std::shared_ptr<Certificate>> all() const;

  private:
    mutable MervaneCritSec m_section;  // guards m_certs
    std::vector<std::shared_ptr<Certificate>> m_certs;
};

/// An object's hold on a store; made empty, and filled with a store of its own when asked for one.
class SystemCertsHolder {
  public:
    using Ptr = std::shared_ptr<SystemCerts>;

    /// Never null: makes a store when there is none.
    [[nodiscard]] Ptr getSystemCertsPtr();
    /// Uses this store from now on.
    void setSystemCerts(Ptr store) noexcept { m_store = std::move(store); }
    /// Adds the certificates of `other`'s store to the own one.
    void mergeSysCerts(SystemCertsHolder& other, LogBase& log);

  private:
    Ptr m_store;
};

}  // namespace mervane

#endif
