#ifndef MERVANE_PKCS11_CALLS_SEARCH_H
#define MERVANE_PKCS11_CALLS_SEARCH_H

#include <array>
#include <span>
#include <vector>

#include "foundation/x509/der.h"
#include "pkcs11/calls/calls.h"

namespace mervane {

/// The attributes that a search asks for. Numbers and flags are stored here; bytes stay the
/// caller's. Every query begins with a class, because some modules find nothing without one.
class ObjectQuery {
  public:
    explicit ObjectQuery(CK_ULONG objectClass) noexcept { add(CKA_CLASS, objectClass); }
    ObjectQuery() noexcept = default;
    ObjectQuery(const ObjectQuery&) = delete;
    ObjectQuery& operator=(const ObjectQuery&) = delete;

    void add(CK_ATTRIBUTE_TYPE type, CK_ULONG value) noexcept {
        m_numbers[m_size] = value;
        addRaw(type, &m_numbers[m_size], sizeof value);
    }
    void addFlag(CK_ATTRIBUTE_TYPE type, bool value) noexcept {
        m_flags[m_size] = value ? CK_TRUE : CK_FALSE;
        addRaw(type, &m_flags[m_size], sizeof(CK_BBOOL));
    }
    void addBytes(CK_ATTRIBUTE_TYPE type, der::Bytes value) noexcept {
        // C_FindObjectsInit takes non-const pointers but only reads through them.
        addRaw(type, const_cast<std::uint8_t*>(value.data()), value.size());
    }

    [[nodiscard]] std::span<CK_ATTRIBUTE> attributes() noexcept {
        return std::span(m_attributes).first(m_size);
    }

  private:
    static constexpr std::size_t kMaxSize = 8;

    void addRaw(CK_ATTRIBUTE_TYPE type, void* value, std::size_t size) noexcept {
        m_attributes[m_size++] = {type, value, size};
    }

    std::array<CK_ATTRIBUTE, kMaxSize> m_attributes{};
    std::array<CK_ULONG, kMaxSize> m_numbers{};
    std::array<CK_BBOOL, kMaxSize> m_flags{};
    std::size_t m_size = 0;
};

/// More objects than any token holds; bounds what a module can make us collect.
inline constexpr std::size_t kMaxObjects = 65536;

/// Handles of the objects that match, in the module's order, each once; `limit` ends the search
/// early.
bool findObjects(Calls& calls, std::span<CK_ATTRIBUTE> query, std::size_t limit,
                 std::vector<CK_OBJECT_HANDLE>& handles, LogBase& log);

}  // namespace mervane

#endif
