// Filling the caches of private keys.
//
// A quick fill reads what settles most searches: CKA_ID and CKA_SIGN. Subjects and moduli are added
// by a full fill, EC points by a separate pass over the public keys with the same CKA_ID. A cache
// filled with more is never refilled with less; what it holds stands in the Have flags. Where a key
// could not be read, the Unread flag says so, and the caller may have the cache filled again.

#include <algorithm>
#include <array>
#include <map>

#include "foundation/x509/curves.h"
#include "pkcs11/calls/attrs.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/calls/search.h"

namespace mervane::operation {
namespace {

// A quick fill reads the first rows only.
enum KeyRow : std::size_t { kId, kSign, kAlwaysAuthenticate, kSubject, kModulus };
constexpr std::size_t kNumQuickRows = 3;
constexpr std::array kKeyRows = {
    AttrRow{CKA_ID, AttrKind::Bytes, 1024},           AttrRow{CKA_SIGN, AttrKind::Flag},
    AttrRow{CKA_ALWAYS_AUTHENTICATE, AttrKind::Flag}, AttrRow{CKA_SUBJECT, AttrKind::Bytes, 1024},
    AttrRow{CKA_MODULUS, AttrKind::Bytes, 2048},  // 16384 bits, the largest key supported
};

enum PointRow : std::size_t { kPointId, kPoint, kParams };
constexpr std::array kPointRows = {
    AttrRow{CKA_ID, AttrKind::Bytes, 1024},
    AttrRow{CKA_EC_POINT, AttrKind::Bytes, 1024},
    AttrRow{CKA_EC_PARAMS, AttrKind::Bytes, 1024},
};

Pkcs11_PrivateKey* keyAt(const ExtPtrArray& keys, int i) noexcept {
    return static_cast<Pkcs11_PrivateKey*>(keys.elementAt(i));
}

// The point of the object read last; empty unless it fits its curve.
DataBuffer pointOf(const ObjectReader& reader) {
    const auto curve = findCurve(reader.bytesOrNone(kParams));
    return DataBuffer(unwrapEcPoint(reader.bytesOrNone(kPoint), curve));
}

// What the attribute reader found of one key. One that cannot be read keeps its place with its
// handle alone: it counts, and may be the key that is looked for.
std::unique_ptr<Pkcs11_PrivateKey> toRecord(const ObjectReader* reader, CK_OBJECT_HANDLE handle,
                                            bool isFull) {
    auto key = std::make_unique<Pkcs11_PrivateKey>();
    key->m_handle = handle;
    if (reader == nullptr) return key;
    key->m_keyId.assign(reader->bytesOrNone(kId));
    const bool maySign = reader->flag(kSign).value_or(false);
    key->m_signState = maySign ? Pkcs11_PrivateKey::kMaySign : Pkcs11_PrivateKey::kMayNotSign;
    if (const auto always = reader->flag(kAlwaysAuthenticate))
        key->m_auxData.appendByte(*always ? 1 : 0);
    if (isFull) {
        key->m_subjectDer.assign(reader->bytesOrNone(kSubject));
        key->m_modulus.assign(reader->bytesOrNone(kModulus));
    }
    return key;
}

bool readPrivateKeys(Calls& calls, CK_ULONG keyType, bool isFull, ExtPtrArray& keys,
                     bool& isAnyUnread, LogBase& log) {
    ObjectQuery query(CKO_PRIVATE_KEY);
    query.add(CKA_KEY_TYPE, keyType);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!calls.ready(log, function::kGetAttributeValue) ||
        !findObjects(calls, query.attributes(), kMaxObjects, handles, log)) {
        return false;
    }
    ObjectReader reader(calls, std::span(kKeyRows).first(isFull ? kKeyRows.size() : kNumQuickRows));
    const std::uint64_t session = calls.use.session();
    keys.reserve(handles.size());
    for (const CK_OBJECT_HANDLE handle : handles) {
        const bool isRead = reader.read(handle, log);
        if (!calls.hasOpenSession()) return false;
        isAnyUnread = isAnyUnread || !isRead;
        keys.appendObject(toRecord(isRead ? &reader : nullptr, handle, isFull));
    }
    return calls.use.session() == session || calls.sessionChanged(log);
}

// The points of the token's public EC keys by CKA_ID. Where two keys with one ID have different
// points, the ID says nothing of the point.
struct PublicPoints {
    struct Entry {
        DataBuffer point;
        bool isAmbiguous = false;
    };
    std::map<std::vector<std::uint8_t>, Entry> byId;
    bool isAnyUnread = false;

    void add(der::Bytes id, const DataBuffer& point) {
        if (id.empty() || point.isEmpty()) return;
        const auto [at, isNew] = byId.try_emplace({id.begin(), id.end()}, Entry{point, false});
        if (!isNew && !at->second.point.equals(point)) at->second.isAmbiguous = true;
    }
    [[nodiscard]] const Entry* find(der::Bytes id) const {
        const auto at = byId.find({id.begin(), id.end()});
        return at == byId.end() ? nullptr : &at->second;
    }
};

bool readPublicPoints(Calls& calls, ObjectReader& reader, PublicPoints& points, LogBase& log) {
    ObjectQuery query(CKO_PUBLIC_KEY);
    query.add(CKA_KEY_TYPE, CKK_EC);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!findObjects(calls, query.attributes(), kMaxObjects, handles, log)) return false;
    for (const CK_OBJECT_HANDLE handle : handles) {
        if (reader.read(handle, log)) {
            points.add(reader.bytesOrNone(kPointId), pointOf(reader));
        } else {
            if (!calls.hasOpenSession()) return false;
            points.isAnyUnread = true;
        }
    }
    return true;
}

// The point of each key, in their order: that of the public key with the same ID; its own, which
// some modules show on the private key, where there is no such public key or more than one; else
// none. Read into a list of its own: a module may call back into the object, and the cache change
// meanwhile. `isAnyUnread` is set where a key has no point and a public key, or the key itself,
// could not be read.
bool readEcPoints(Calls& calls, const ExtPtrArray& keys, std::vector<DataBuffer>& points,
                  bool& isAnyUnread, LogBase& log) {
    struct Key {
        CK_OBJECT_HANDLE handle;
        DataBuffer id;
    };
    std::vector<Key> wanted;
    wanted.reserve(static_cast<std::size_t>(keys.getSize()));
    for (int i = 0; i < keys.getSize(); ++i)
        wanted.push_back({keyAt(keys, i)->m_handle, keyAt(keys, i)->m_keyId});
    PublicPoints publicPoints;
    ObjectReader reader(calls, kPointRows);
    if (!wanted.empty() && !readPublicPoints(calls, reader, publicPoints, log)) return false;
    for (const Key& key : wanted) {
        DataBuffer& point = points.emplace_back();
        const PublicPoints::Entry* const known = publicPoints.find(key.id.span());
        if (known != nullptr && !known->isAmbiguous) {
            point = known->point;
            continue;
        }
        const bool isRead = reader.read(key.handle, log);
        if (!calls.hasOpenSession()) return false;
        if (isRead) point = pointOf(reader);
        if (point.isEmpty()) isAnyUnread = isAnyUnread || !isRead || publicPoints.isAnyUnread;
    }
    return true;
}

void setPoints(ExtPtrArray& keys, std::vector<DataBuffer>& points) {
    for (int i = 0; i < keys.getSize(); ++i)
        keyAt(keys, i)->m_ecPoint = std::move(points[static_cast<std::size_t>(i)]);
    keys.noteChange();
}

}  // namespace

bool cacheRsaKeys(Calls& calls, bool withSubjectAndModulus, LogBase& log) {
    Pkcs11State& state = calls.state;
    const bool hasBoth = state.m_rsaKeysHaveSubject && state.m_rsaKeysHaveModulus;
    if (state.m_rsaKeysLoaded && (!withSubjectAndModulus || hasBoth)) return true;
    const LogContextExitor context(log, "cacheRsaPrivateKeys");
    ExtPtrArray keys;
    bool isAnyUnread = false;
    if (!readPrivateKeys(calls, CKK_RSA, withSubjectAndModulus, keys, isAnyUnread, log))
        return false;
    state.m_rsaPrivKeys.swap(keys);
    state.m_isRsaKeyUnread = isAnyUnread;
    state.m_rsaKeysHaveSubject = state.m_rsaKeysHaveModulus = withSubjectAndModulus;
    state.m_rsaKeysLoaded = true;
    return true;
}

bool cacheEcKeys(Calls& calls, bool withEcPoints, LogBase& log) {
    Pkcs11State& state = calls.state;
    if (state.m_ecdsaKeysLoaded && (!withEcPoints || state.m_ecdsaKeysHavePoints)) return true;
    const LogContextExitor context(log, "cacheEcdsaPrivateKeys");
    if (!state.m_ecdsaKeysLoaded) {
        ExtPtrArray keys;
        bool isAnyUnread = false;
        if (!readPrivateKeys(calls, CKK_EC, false, keys, isAnyUnread, log)) return false;
        state.m_ecdsaPrivKeys.swap(keys);
        state.m_isEcdsaKeyUnread = isAnyUnread;
        state.m_ecdsaKeysLoaded = true;
        state.m_ecdsaKeysHavePoints = false;
    }
    if (!withEcPoints) return true;
    const std::uint64_t changes = state.m_ecdsaPrivKeys.changes();
    std::vector<DataBuffer> points;
    bool isAnyUnread = state.m_isEcdsaKeyUnread;
    if (!readEcPoints(calls, state.m_ecdsaPrivKeys, points, isAnyUnread, log)) return false;
    if (state.m_ecdsaPrivKeys.changes() != changes) return calls.sessionChanged(log);
    setPoints(state.m_ecdsaPrivKeys, points);
    state.m_isEcdsaKeyUnread = isAnyUnread;
    state.m_ecdsaKeysHavePoints = true;
    return true;
}

}  // namespace mervane::operation
