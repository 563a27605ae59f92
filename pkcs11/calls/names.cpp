#include "pkcs11/calls/names.h"

#include <algorithm>
#include <array>

#include "foundation/text/hex.h"

namespace mervane {
namespace {

// PKCS#11 3.0 base specification, CKF_ values of CK_SLOT_INFO.
constexpr NamedValue kSlotFlags[] = {
    {0x1, "token-present"},
    {0x2, "removable-device"},
    {0x4, "hw-slot"},
};

// CKF_ values of CK_TOKEN_INFO.
constexpr NamedValue kTokenFlags[] = {
    {0x00000001, "rng"},
    {0x00000002, "write-protected"},
    {0x00000004, "login-required"},
    {0x00000008, "user-pin-initialized"},
    {0x00000020, "restore-key-not-needed"},
    {0x00000040, "clock-on-token"},
    {0x00000100, "protected-authentication-path"},
    {0x00000200, "dual-crypto-operations"},
    {0x00000400, "token-initialized"},
    {0x00000800, "secondary-authentication"},
    {0x00010000, "user-pin-count-low"},
    {0x00020000, "user-pin-final-try"},
    {0x00040000, "user-pin-locked"},
    {0x00080000, "user-pin-to-be-changed"},
    {0x00100000, "so-pin-count-low"},
    {0x00200000, "so-pin-final-try"},
    {0x00400000, "so-pin-locked"},
    {0x00800000, "so-pin-to-be-changed"},
    {0x01000000, "error-state"},
};

// CKF_ values of CK_MECHANISM_INFO.
constexpr NamedValue kMechanismFlags[] = {
    {0x00000001, "hw"},
    {0x00000002, "message-encrypt"},
    {0x00000004, "message-decrypt"},
    {0x00000008, "message-sign"},
    {0x00000010, "message-verify"},
    {0x00000020, "multi-message"},
    {0x00000040, "find-objects"},
    {0x00000100, "encrypt"},
    {0x00000200, "decrypt"},
    {0x00000400, "digest"},
    {0x00000800, "sign"},
    {0x00001000, "sign-recover"},
    {0x00002000, "verify"},
    {0x00004000, "verify-recover"},
    {0x00008000, "generate"},
    {0x00010000, "generate-key-pair"},
    {0x00020000, "wrap"},
    {0x00040000, "unwrap"},
    {0x00080000, "derive"},
    {0x00100000, "ec-f-p"},
    {0x00200000, "ec-f-2m"},
    {0x00400000, "ec-ecparameters"},
    {0x00800000, "ec-oid"},
    {0x01000000, "ec-uncompress"},
    {0x02000000, "ec-compress"},
    {0x04000000, "ec-curvename"},
    {0x80000000, "extension"},
};

// CKK_ values.
constexpr NamedValue kKeyTypes[] = {
    {0x00, "RSA"},
    {0x01, "DSA"},
    {0x02, "DH"},
    {0x03, "EC"},
    {0x04, "X9_42_DH"},
    {0x05, "KEA"},
    {0x10, "GENERIC_SECRET"},
    {0x11, "RC2"},
    {0x12, "RC4"},
    {0x13, "DES"},
    {0x14, "DES2"},
    {0x15, "DES3"},
    {0x16, "CAST"},
    {0x17, "CAST3"},
    {0x18, "CAST128"},
    {0x19, "RC5"},
    {0x1A, "IDEA"},
    {0x1B, "SKIPJACK"},
    {0x1C, "BATON"},
    {0x1D, "JUNIPER"},
    {0x1E, "CDMF"},
    {0x1F, "AES"},
    {0x20, "BLOWFISH"},
    {0x21, "TWOFISH"},
    {0x22, "SECURID"},
    {0x23, "HOTP"},
    {0x24, "ACTI"},
    {0x25, "CAMELLIA"},
    {0x26, "ARIA"},
    {0x27, "MD5_HMAC"},
    {0x28, "SHA_1_HMAC"},
    {0x29, "RIPEMD128_HMAC"},
    {0x2A, "RIPEMD160_HMAC"},
    {0x2B, "SHA256_HMAC"},
    {0x2C, "SHA384_HMAC"},
    {0x2D, "SHA512_HMAC"},
    {0x2E, "SHA224_HMAC"},
    {0x2F, "SEED"},
    {0x30, "GOSTR3410"},
    {0x31, "GOSTR3411"},
    {0x32, "GOST28147"},
    {0x33, "CHACHA20"},
    {0x34, "POLY1305"},
    {0x35, "AES_XTS"},
    {0x36, "SHA3_224_HMAC"},
    {0x37, "SHA3_256_HMAC"},
    {0x38, "SHA3_384_HMAC"},
    {0x39, "SHA3_512_HMAC"},
    {0x3A, "BLAKE2B_160_HMAC"},
    {0x3B, "BLAKE2B_256_HMAC"},
    {0x3C, "BLAKE2B_384_HMAC"},
    {0x3D, "BLAKE2B_512_HMAC"},
    {0x3E, "SALSA20"},
    {0x3F, "X2RATCHET"},
    {0x40, "EC_EDWARDS"},
    {0x41, "EC_MONTGOMERY"},
    {0x42, "HKDF"},
    {0x43, "SHA512_224_HMAC"},
    {0x44, "SHA512_256_HMAC"},
    {0x45, "SHA512_T_HMAC"},
};

constexpr PinState kPinStates[] = {
    {0x00080000, false, "userPinToBeChanged", "The user PIN has to be changed."},
    {0x00800000, true, "soPinToBeChanged", "The security officer's PIN has to be changed."},
    {0x00010000, false, "userPinCountLow",
     "A wrong user PIN has been entered at least once since the last right one."},
    {0x00100000, true, "soPinCountLow",
     "A wrong security officer's PIN has been entered at least once since the last right one."},
    {0x00020000, false, "userPinFinalTry", "One more wrong user PIN locks it."},
    {0x00200000, true, "soPinFinalTry", "One more wrong security officer's PIN locks it."},
    {0x00040000, false, "userPinLocked",
     "The user PIN is locked; the security officer can set a new one."},
    {0x00400000, true, "soPinLocked", "The security officer's PIN is locked."},
};

std::string nameOf(std::span<const NamedValue> names, CK_ULONG value) {
    const auto at = std::ranges::lower_bound(names, value, {}, &NamedValue::value);
    return at == names.end() || at->value != value ? toHexNumber(value) : std::string(at->name);
}

std::vector<std::string> flagNames(std::span<const NamedValue> names, CK_FLAGS flags) {
    std::vector<std::string> out;
    for (const NamedValue& flag : names) {
        if ((flags & flag.value) != 0) out.emplace_back(flag.name);
        flags &= ~flag.value;
    }
    if (flags != 0) out.push_back(toHexNumber(flags));
    return out;
}

}  // namespace

std::string mechanismName(CK_MECHANISM_TYPE type) {
    return nameOf(mechanismNames(), type);
}
std::string keyTypeName(CK_ULONG keyType) {
    return nameOf(kKeyTypes, keyType);
}
std::vector<std::string> slotFlagNames(CK_FLAGS flags) {
    return flagNames(kSlotFlags, flags);
}
std::vector<std::string> tokenFlagNames(CK_FLAGS flags) {
    return flagNames(kTokenFlags, flags);
}
std::vector<std::string> mechanismFlagNames(CK_FLAGS flags) {
    return flagNames(kMechanismFlags, flags);
}
CK_FLAGS tokenFlagNamed(std::string_view name) noexcept {
    const auto* const flag = std::ranges::find(kTokenFlags, name, &NamedValue::name);
    return flag == std::end(kTokenFlags) ? 0 : flag->value;
}
std::span<const PinState> pinStates() noexcept {
    return kPinStates;
}

}  // namespace mervane
