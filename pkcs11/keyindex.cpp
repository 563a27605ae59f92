#include "pkcs11/keyindex.h"

#include <algorithm>
#include <functional>

#include "foundation/text/bytes.h"
#include "foundation/x509/curves.h"

namespace mervane {
namespace {

std::uint64_t hashOf(std::span<const std::uint8_t> bytes) noexcept {
    return std::hash<std::string_view>()(asChars(bytes));
}

const Pkcs11_PrivateKey* keyAt(const ExtPtrArray& keys, int position) noexcept {
    return static_cast<const Pkcs11_PrivateKey*>(keys.elementAt(position));
}

// What is compared of a record's value; empty if the record has none.
DataBuffer formOf(const Pkcs11_PrivateKey& key, KeyIndex::Field field) {
    const DataBuffer& value = key.*field;
    return field == &Pkcs11_PrivateKey::m_ecPoint ? comparablePoint(value.span()) : value;
}

}  // namespace

const KeyIndex::FieldIndex& KeyIndex::indexOf(const ExtPtrArray& keys, Field field) {
    FieldIndex& index = *std::ranges::find_if(
        m_fields, [field](const FieldIndex& f) { return f.field == field || f.field == nullptr; });
    if (index.field == field && index.changes == keys.changes()) return index;
    index = FieldIndex();  // without a field until it is whole
    for (int i = 0; i < keys.getSize(); ++i) {
        const Pkcs11_PrivateKey* const key = keyAt(keys, i);
        const DataBuffer value = key == nullptr ? DataBuffer() : formOf(*key, field);
        if (value.isEmpty()) continue;
        index.all.push_back({hashOf(value.span()), i});
        if (key->maySign()) index.signing.push_back(index.all.back());
    }
    std::ranges::sort(index.all);
    std::ranges::sort(index.signing);
    index.field = field;
    index.changes = keys.changes();
    return index;
}

int KeyIndex::find(const ExtPtrArray& keys, Field field, std::span<const std::uint8_t> value,
                   Among among, int from) {
    const FieldIndex& index = indexOf(keys, field);
    const auto& places = among == Among::All ? index.all : index.signing;
    const std::uint64_t hash = hashOf(value);
    auto at = std::ranges::lower_bound(places, Place{hash, from});
    for (; at != places.end() && at->hash == hash; ++at) {
        if (std::ranges::equal(formOf(*keyAt(keys, at->position), field).span(), value))
            return at->position;
    }
    return -1;
}

}  // namespace mervane
