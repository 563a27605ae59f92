#ifndef MERVANE_FOUNDATION_X509_SESSIONANCHOR_H
#define MERVANE_FOUNDATION_X509_SESSIONANCHOR_H

#include <atomic>
#include <cstdint>
#include <memory>

namespace mervane {

/// What certificates hold of the object that owns their session: a weak handle on the anchor, which
/// dies with the object, and the number of the session they were linked under, which changes
/// whenever the links made so far must no longer hold.
class Pkcs11SessionAnchor {
  public:
    Pkcs11SessionAnchor() noexcept;

    /// The session's number; 0 while none is open, and in a fork of the process that opened it.
    [[nodiscard]] std::uint64_t session() const noexcept;
    void setSession(std::uint64_t number) noexcept;

  private:
    std::atomic<std::uint64_t> m_number{0};
    std::atomic<std::uint32_t> m_generation;  // of the process that opened the session
};

/// An object that opens PKCS#11 sessions, as far as certificates know it.
class Pkcs11SessionOwner {
  public:
    [[nodiscard]] const std::shared_ptr<Pkcs11SessionAnchor>& sessionAnchor() const noexcept {
        return m_anchor;
    }

  protected:
    Pkcs11SessionOwner() : m_anchor(std::make_shared<Pkcs11SessionAnchor>()) {}
    ~Pkcs11SessionOwner() = default;

  private:
    std::shared_ptr<Pkcs11SessionAnchor> m_anchor;
};

/// Whose session a link belongs to. Equal to the object that made the link as long as that lives;
/// it holds no pointer to the object, so that nothing can dangle.
class Pkcs11LinkOwner {
  public:
    explicit Pkcs11LinkOwner(std::weak_ptr<Pkcs11SessionAnchor> anchor) noexcept
        : m_anchor(std::move(anchor)) {}

    [[nodiscard]] bool operator==(const Pkcs11SessionOwner* object) const noexcept {
        return object != nullptr && m_anchor.lock() == object->sessionAnchor();
    }

  private:
    std::weak_ptr<Pkcs11SessionAnchor> m_anchor;
};

}  // namespace mervane

#endif
