#ifndef MERVANE_PKCS11_KEYINDEX_H
#define MERVANE_PKCS11_KEYINDEX_H

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "foundation/core/ptrarray.h"
#include "foundation/text/databuffer.h"
#include "pkcs11/records.h"

namespace mervane {

/// Finds the records of a key cache by one of their values without looking at all of them, so that
/// matching N certificates with N keys takes N steps. An index is rebuilt lazily, at the first
/// question after the array has changed.
class KeyIndex {
  public:
    using Field = DataBuffer Pkcs11_PrivateKey::*;

    enum class Among : bool { All, Signing };  // Signing: those that may sign

    /// The position of the first record at or behind `from` whose `field` equals `value` (not
    /// empty); -1 when there is none. EC points, which have several forms, are compared by
    /// comparablePoint(), and `value` is in that form.
    int find(const ExtPtrArray& keys, Field field, std::span<const std::uint8_t> value, Among among,
             int from);

  private:
    struct Place {
        std::uint64_t hash;
        int position;
        auto operator<=>(const Place&) const noexcept = default;  // NOLINT(modernize-use-nullptr)
    };
    struct FieldIndex {
        Field field = nullptr;
        std::uint64_t changes = 0;  // of the array when the index was built
        std::vector<Place> all;     // sorted
        std::vector<Place> signing;
    };

    const FieldIndex& indexOf(const ExtPtrArray& keys, Field field);

    std::array<FieldIndex, 4> m_fields;  // the four values that certificates are matched by
};

}  // namespace mervane

#endif
