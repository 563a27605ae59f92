#include "pkcs11/keyindex.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

namespace mervane {
namespace {

std::uint64_t hashOf(std::span<const std::uint8_t> bytes) noexcept {
    const std::string_view chars(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return std::hash<std::string_view>()(chars);
}

const Pkcs11_PrivateKey* keyAt(const ExtPtrArray& keys, int position) noexcept {
    return static_cast<const Pkcs11_PrivateKey*>(keys.elementAt(position));
}

// By hash, then by position in the cache.
template <class Slot>
std::pair<std::uint64_t, int> orderOf(const Slot& slot) noexcept {
    return {slot.hash, slot.position};
}

}  // namespace

const std::vector<KeyIndex::Slot>& KeyIndex::indexOf(const ExtPtrArray& keys, Field field) {
    FieldIndex* index = std::ranges::find_if(
        m_fields, [field](const FieldIndex& f) { return f.field == field || f.field == nullptr; });
    if (index->field == field && index->changes == keys.changes()) return index->slots;
    index->field = nullptr;  // until it is whole
    index->slots.clear();
    for (int i = 0; i < keys.getSize(); ++i) {
        const Pkcs11_PrivateKey* const key = keyAt(keys, i);
        if (key == nullptr || (key->*field).isEmpty()) continue;
        index->slots.push_back({hashOf((key->*field).span()), i, 0});
    }
    std::ranges::sort(index->slots, {}, orderOf<Slot>);
    std::size_t toSigning = 0;  // from behind the last slot there is none to go
    for (std::size_t i = index->slots.size(); i > 0; --i) {
        Slot& slot = index->slots[i - 1];
        toSigning = keyAt(keys, slot.position)->maySign() ? 0 : toSigning + 1;
        slot.toSigning = toSigning;
    }
    index->field = field;
    index->changes = keys.changes();
    return index->slots;
}

const Pkcs11_PrivateKey* KeyIndex::find(const ExtPtrArray& keys, Field field,
                                        std::span<const std::uint8_t> value, Among among, int from,
                                        int& at) {
    const auto& slots = indexOf(keys, field);
    const std::uint64_t hash = hashOf(value);
    auto slot = std::ranges::lower_bound(slots, std::pair(hash, from), {}, orderOf<Slot>);
    while (slot != slots.end() && slot->hash == hash) {
        const Pkcs11_PrivateKey* const key = keyAt(keys, slot->position);
        if (among == Among::Signing && slot->toSigning != 0) {
            slot += static_cast<std::ptrdiff_t>(slot->toSigning);
        } else if (!std::ranges::equal((key->*field).span(), value)) {
            ++slot;
        } else {
            at = slot->position;
            return key;
        }
    }
    return nullptr;
}

}  // namespace mervane
