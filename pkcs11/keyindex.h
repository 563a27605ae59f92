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
/// matching N certificates with N keys takes N steps. It is made when first asked after the array
/// has changed.
class KeyIndex {
  public:
    using Field = DataBuffer Pkcs11_PrivateKey::*;

    enum class Among { All, Signing };  // Signing: those that may sign

    /// The first record at or behind position `from` whose `field` equals `value` (not empty);
    /// `at` is its position. Null when there is none.
    const Pkcs11_PrivateKey* find(const ExtPtrArray& keys, Field field,
                                  std::span<const std::uint8_t> value, Among among, int from,
                                  int& at);

  private:
    struct Slot {
        std::uint64_t hash;
        int position;
        std::size_t toSigning;  // slots from here to the next one whose key may sign, or to the end
    };
    struct FieldIndex {
        Field field = nullptr;
        std::uint64_t changes = 0;  // of the array when the index was made
        std::vector<Slot> slots;    // by hash, then by position
    };

    const std::vector<Slot>& indexOf(const ExtPtrArray& keys, Field field);

    std::array<FieldIndex, 4> m_fields;  // the four values that certificates are matched by
};

}  // namespace mervane

#endif
