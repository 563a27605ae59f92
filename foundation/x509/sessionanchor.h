#ifndef MERVANE_FOUNDATION_X509_SESSIONANCHOR_H
#define MERVANE_FOUNDATION_X509_SESSIONANCHOR_H

#include <atomic>
#include <cstdint>
#include <memory>

namespace mervane {

/// Ties certificates to a session without a pointer to the object that owns it.
///
/// The owner holds its anchor as the only lasting share; a link holds a weak handle on it and the
/// number of the session it was made under. A link is dead once the owner is gone or the number has
/// changed, which the owner does whenever existing links must end. Any thread may read it.
class Pkcs11SessionAnchor {
  public:
    Pkcs11SessionAnchor() noexcept;

    /// The session's number; 0 if none is open, and in a child forked since it was opened.
    [[nodiscard]] std::uint64_t session() const noexcept;
    /// Sets the number of the session just opened, or 0 when it ends. The owner only.
    void setSession(std::uint64_t number) noexcept;

  private:
    std::atomic<std::uint64_t> m_number{0};
    std::atomic<std::uint32_t> m_generation;  // fork generation in which m_number was set
};

/// The part of a ClsPkcs11 that certificates know. Keeps this layer independent of the one above.
class Pkcs11SessionOwner {
  public:
    /// Never null.
    [[nodiscard]] const std::shared_ptr<Pkcs11SessionAnchor>& sessionAnchor() const noexcept {
        return m_anchor;
    }

  protected:
    Pkcs11SessionOwner() : m_anchor(std::make_shared<Pkcs11SessionAnchor>()) {}
    ~Pkcs11SessionOwner() = default;

  private:
    std::shared_ptr<Pkcs11SessionAnchor> m_anchor;
};

/// Identifies the owner of a link's session. Compares equal to that object while it lives; holds no
/// pointer to it, so nothing can dangle.
class Pkcs11LinkOwner {
  public:
    /// Of the owner's anchor.
    explicit Pkcs11LinkOwner(std::weak_ptr<Pkcs11SessionAnchor> anchor) noexcept
        : m_anchor(std::move(anchor)) {}

    /// Whether that object is the owner, and lives.
    [[nodiscard]] bool operator==(const Pkcs11SessionOwner* object) const noexcept {
        return object != nullptr && m_anchor.lock() == object->sessionAnchor();
    }

  private:
    std::weak_ptr<Pkcs11SessionAnchor> m_anchor;
};

}  // namespace mervane

#endif
