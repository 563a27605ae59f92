// Filling the caches of private keys.
//
// A quick fill reads what settles most searches: CKA_ID and CKA_SIGN. Subjects and moduli are added
// by a full fill, EC points by a separate pass over the public keys with the same CKA_ID. A cache
// filled with more is never refilled with less; what it holds stands in the Have flags.

#include <array>
#include <map>

#include "foundation/x509/publickey.h"
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
der::Bytes pointOf(const ObjectReader& reader) {
    return unwrapEcPoint(reader.bytesOrNone(kPoint), findCurve(reader.bytesOrNone(kParams)));
}

bool readPrivateKeys(Calls& calls, CK_ULONG keyType, std::size_t numRows, ExtPtrArray& keys,
                     LogBase& log) {
    ObjectQuery query(CKO_PRIVATE_KEY);
    query.add(CKA_KEY_TYPE, keyType);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!calls.ready(log, function::kGetAttributeValue) ||
        !findObjects(calls, query.attributes(), kMaxObjects, handles, log)) {
        return false;
    }
    ObjectReader reader(calls, std::span(kKeyRows).first(numRows));
    keys.reserve(handles.size());
    for (const CK_OBJECT_HANDLE handle : handles) {
        if (!reader.read(handle, log)) {
            if (!calls.hasOpenSession()) return false;
            continue;
        }
        auto key = std::make_unique<Pkcs11_PrivateKey>();
        key->m_handle = handle;
        key->m_keyId.assign(reader.bytesOrNone(kId));
        const bool maySign = reader.flag(kSign).value_or(false);
        key->m_signState = maySign ? Pkcs11_PrivateKey::kMaySign : Pkcs11_PrivateKey::kMayNotSign;
        if (const auto always = reader.flag(kAlwaysAuthenticate))
            key->m_auxData.appendByte(*always ? 1 : 0);
        if (numRows > kNumQuickRows) {
            key->m_subjectDer.assign(reader.bytesOrNone(kSubject));
            key->m_modulus.assign(reader.bytesOrNone(kModulus));
        }
        keys.appendObject(std::move(key));
    }
    return true;
}

bool fillEcPoints(Calls& calls, ExtPtrArray& keys, LogBase& log) {
    if (keys.getSize() == 0) return true;
    ObjectQuery query(CKO_PUBLIC_KEY);
    query.add(CKA_KEY_TYPE, CKK_EC);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!findObjects(calls, query.attributes(), kMaxObjects, handles, log)) return false;
    std::map<std::vector<std::uint8_t>, DataBuffer> pointsById;
    ObjectReader reader(calls, kPointRows);
    for (const CK_OBJECT_HANDLE handle : handles) {
        if (!reader.read(handle, log)) {
            if (!calls.hasOpenSession()) return false;
            continue;
        }
        const der::Bytes id = reader.bytesOrNone(kPointId);
        const der::Bytes point = pointOf(reader);
        if (id.empty() || point.empty()) continue;
        pointsById.try_emplace({id.begin(), id.end()}, point);
    }
    for (int i = 0; i < keys.getSize(); ++i) {
        Pkcs11_PrivateKey& key = *keyAt(keys, i);
        const der::Bytes id = key.m_keyId.span();
        const auto known = pointsById.find({id.begin(), id.end()});
        if (known != pointsById.end()) {
            key.m_ecPoint = known->second;
        } else if (reader.read(key.m_handle, log)) {
            // No public key has this ID; some modules show the point on the private key.
            key.m_ecPoint.assign(pointOf(reader));
        } else if (!calls.hasOpenSession()) {
            return false;
        }
    }
    keys.noteChange();
    return true;
}

}  // namespace

bool cacheRsaKeys(Calls& calls, bool withSubjectAndModulus, LogBase& log) {
    Pkcs11State& state = calls.state;
    if (state.m_rsaKeysLoaded &&
        (!withSubjectAndModulus || (state.m_rsaKeysHaveSubject && state.m_rsaKeysHaveModulus)))
        return true;
    const LogContextExitor context(log, "cacheRsaPrivateKeys");
    ExtPtrArray keys;
    if (!readPrivateKeys(calls, CKK_RSA, withSubjectAndModulus ? kKeyRows.size() : kNumQuickRows,
                         keys, log))
        return false;
    state.m_rsaPrivKeys.swap(keys);
    state.m_rsaKeysHaveSubject = state.m_rsaKeysHaveModulus = withSubjectAndModulus;
    state.m_rsaKeysLoaded = true;
    return true;
}

bool cacheEcKeys(Calls& calls, bool withEcPoints, LogBase& log) {
    Pkcs11State& state = calls.state;
    if (state.m_ecdsaKeysLoaded && (!withEcPoints || state.m_ecdsaKeysHavePoints)) return true;
    const LogContextExitor context(log, "cacheEcdsaPrivateKeys");
    if (state.m_ecdsaKeysLoaded) {
        // Only the points are missing.
        if (!fillEcPoints(calls, state.m_ecdsaPrivKeys, log)) return false;
    } else {
        ExtPtrArray keys;
        if (!readPrivateKeys(calls, CKK_EC, kNumQuickRows, keys, log)) return false;
        if (withEcPoints && !fillEcPoints(calls, keys, log)) return false;
        state.m_ecdsaPrivKeys.swap(keys);
    }
    state.m_ecdsaKeysHavePoints = withEcPoints;
    state.m_ecdsaKeysLoaded = true;
    return true;
}

}  // namespace mervane::operation
