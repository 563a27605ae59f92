#ifndef MERVANE_FOUNDATION_X509_SYSTEMCERTS_H
#define MERVANE_FOUNDATION_X509_SYSTEMCERTS_H

#include <memory>
#include <vector>

#include "certificate.h"

namespace mervane {

/// A store of certificates for building chains and deciding trust, shared by any number of objects.
/// Any thread may call any method.
class SystemCerts {
  public:
    /// Adds a certificate unless the store has one with the same DER.
    void add(const std::shared_ptr<Certificate>& cert);
    /// A snapshot of the certificates.
    [[nodiscard]] std::vector<std::shared_ptr<Certificate>> all() const;

  private:
    mutable MervaneCritSec m_section;  // guards m_certs
    std::vector<std::shared_ptr<Certificate>> m_certs;
};

/// An object's reference to a store, which is created on first use. Any thread may call any method.
class SystemCertsHolder {
  public:
    using Ptr = std::shared_ptr<SystemCerts>;  ///< a share of a store

    /// The store, created if there is none; never null.
    [[nodiscard]] Ptr getSystemCertsPtr();
    /// Replaces the store.
    void setSystemCerts(Ptr store);
    /// Adds the certificates of `other`'s store to this one's.
    void mergeSysCerts(SystemCertsHolder& other, LogBase& log);

  private:
    MervaneCritSec m_section;  // guards m_store
    Ptr m_store;
};

}  // namespace mervane

#endif
