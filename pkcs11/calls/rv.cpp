#include "pkcs11/calls/rv.h"

#include <algorithm>
#include <array>

#include "foundation/text/hex.h"

namespace mervane {
namespace {

struct Row {
    CK_RV rv;
    std::string_view name;
    std::string_view hint;
};

// PKCS#11 3.0 base specification, section 5.1, in the order of the values.
constexpr std::array kRows = {
    Row{0x000, "CKR_OK", ""},
    Row{0x001, "CKR_CANCEL", ""},
    Row{0x002, "CKR_HOST_MEMORY", ""},
    Row{0x003, "CKR_SLOT_ID_INVALID", "Discover lists the slots that the module has now."},
    Row{0x005, "CKR_GENERAL_ERROR", ""},
    Row{0x006, "CKR_FUNCTION_FAILED", ""},
    Row{0x007, "CKR_ARGUMENTS_BAD", ""},
    Row{0x008, "CKR_NO_EVENT", ""},
    Row{0x009, "CKR_NEED_TO_CREATE_THREADS", ""},
    Row{0x00A, "CKR_CANT_LOCK", ""},
    Row{0x010, "CKR_ATTRIBUTE_READ_ONLY", ""},
    Row{0x011, "CKR_ATTRIBUTE_SENSITIVE", ""},
    Row{0x012, "CKR_ATTRIBUTE_TYPE_INVALID", ""},
    Row{0x013, "CKR_ATTRIBUTE_VALUE_INVALID", ""},
    Row{0x01B, "CKR_ACTION_PROHIBITED", ""},
    Row{0x020, "CKR_DATA_INVALID", ""},
    Row{0x021, "CKR_DATA_LEN_RANGE", ""},
    Row{0x030, "CKR_DEVICE_ERROR",
        "The token or its reader reports a fault; reconnecting it often helps."},
    Row{0x031, "CKR_DEVICE_MEMORY", ""},
    Row{0x032, "CKR_DEVICE_REMOVED", "Insert the token again."},
    Row{0x040, "CKR_ENCRYPTED_DATA_INVALID", ""},
    Row{0x041, "CKR_ENCRYPTED_DATA_LEN_RANGE", ""},
    Row{0x042, "CKR_AEAD_DECRYPT_FAILED", ""},
    Row{0x050, "CKR_FUNCTION_CANCELED", ""},
    Row{0x051, "CKR_FUNCTION_NOT_PARALLEL", ""},
    Row{0x054, "CKR_FUNCTION_NOT_SUPPORTED",
        "The module does not offer this function for this token."},
    Row{0x060, "CKR_KEY_HANDLE_INVALID", ""},
    Row{0x062, "CKR_KEY_SIZE_RANGE", ""},
    Row{0x063, "CKR_KEY_TYPE_INCONSISTENT", ""},
    Row{0x064, "CKR_KEY_NOT_NEEDED", ""},
    Row{0x065, "CKR_KEY_CHANGED", ""},
    Row{0x066, "CKR_KEY_NEEDED", ""},
    Row{0x067, "CKR_KEY_INDIGESTIBLE", ""},
    Row{0x068, "CKR_KEY_FUNCTION_NOT_PERMITTED", ""},
    Row{0x069, "CKR_KEY_NOT_WRAPPABLE", ""},
    Row{0x06A, "CKR_KEY_UNEXTRACTABLE", ""},
    Row{0x070, "CKR_MECHANISM_INVALID", ""},
    Row{0x071, "CKR_MECHANISM_PARAM_INVALID", ""},
    Row{0x082, "CKR_OBJECT_HANDLE_INVALID",
        "The object is gone from the token; read the objects again."},
    Row{0x090, "CKR_OPERATION_ACTIVE", ""},
    Row{0x091, "CKR_OPERATION_NOT_INITIALIZED", ""},
    Row{0x0A0, "CKR_PIN_INCORRECT", "The PIN is wrong; too many wrong attempts lock it."},
    Row{0x0A1, "CKR_PIN_INVALID", "The new PIN holds characters that the token does not accept."},
    Row{0x0A2, "CKR_PIN_LEN_RANGE", "The PIN is too short or too long for the token."},
    Row{0x0A3, "CKR_PIN_EXPIRED", "The PIN has to be changed before it can be used."},
    Row{0x0A4, "CKR_PIN_LOCKED", "The PIN is locked; the security officer can set a new one."},
    Row{0x0B0, "CKR_SESSION_CLOSED", ""},
    Row{0x0B1, "CKR_SESSION_COUNT",
        "The token allows no more sessions; close those of other programs."},
    Row{0x0B3, "CKR_SESSION_HANDLE_INVALID", ""},
    Row{0x0B4, "CKR_SESSION_PARALLEL_NOT_SUPPORTED", ""},
    Row{0x0B5, "CKR_SESSION_READ_ONLY", "Open the session for reading and writing."},
    Row{0x0B6, "CKR_SESSION_EXISTS",
        "Close all sessions with the token first, those of other programs too."},
    Row{0x0B7, "CKR_SESSION_READ_ONLY_EXISTS",
        "The security officer cannot log in while a read-only session is open."},
    Row{0x0B8, "CKR_SESSION_READ_WRITE_SO_EXISTS",
        "While the security officer is logged in, open sessions for reading and writing."},
    Row{0x0D0, "CKR_TEMPLATE_INCOMPLETE", ""},
    Row{0x0D1, "CKR_TEMPLATE_INCONSISTENT", ""},
    Row{0x0E0, "CKR_TOKEN_NOT_PRESENT", "Insert the token."},
    Row{0x0E1, "CKR_TOKEN_NOT_RECOGNIZED",
        "The module does not know this kind of token, or it is not initialised."},
    Row{0x0E2, "CKR_TOKEN_WRITE_PROTECTED", "The token is write-protected."},
    Row{0x0F0, "CKR_UNWRAPPING_KEY_HANDLE_INVALID", ""},
    Row{0x0F1, "CKR_UNWRAPPING_KEY_SIZE_RANGE", ""},
    Row{0x0F2, "CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT", ""},
    Row{0x100, "CKR_USER_ALREADY_LOGGED_IN", ""},
    Row{0x101, "CKR_USER_NOT_LOGGED_IN", "Log in first."},
    Row{0x102, "CKR_USER_PIN_NOT_INITIALIZED",
        "The user PIN is not set yet; the security officer sets it with InitPin."},
    Row{0x103, "CKR_USER_TYPE_INVALID", "The token does not know this type of user."},
    Row{0x104, "CKR_USER_ANOTHER_ALREADY_LOGGED_IN", "Log the other user out first."},
    Row{0x105, "CKR_USER_TOO_MANY_TYPES", ""},
    Row{0x110, "CKR_WRAPPED_KEY_INVALID", ""},
    Row{0x112, "CKR_WRAPPED_KEY_LEN_RANGE", ""},
    Row{0x113, "CKR_WRAPPING_KEY_HANDLE_INVALID", ""},
    Row{0x114, "CKR_WRAPPING_KEY_SIZE_RANGE", ""},
    Row{0x115, "CKR_WRAPPING_KEY_TYPE_INCONSISTENT", ""},
    Row{0x120, "CKR_RANDOM_SEED_NOT_SUPPORTED", ""},
    Row{0x121, "CKR_RANDOM_NO_RNG", ""},
    Row{0x130, "CKR_DOMAIN_PARAMS_INVALID", ""},
    Row{0x140, "CKR_CURVE_NOT_SUPPORTED", ""},
    Row{0x150, "CKR_BUFFER_TOO_SMALL", ""},
    Row{0x160, "CKR_SAVED_STATE_INVALID", ""},
    Row{0x170, "CKR_INFORMATION_SENSITIVE", ""},
    Row{0x180, "CKR_STATE_UNSAVEABLE", ""},
    Row{0x190, "CKR_CRYPTOKI_NOT_INITIALIZED", ""},
    Row{0x191, "CKR_CRYPTOKI_ALREADY_INITIALIZED", ""},
    Row{0x1A0, "CKR_MUTEX_BAD", ""},
    Row{0x1A1, "CKR_MUTEX_NOT_LOCKED", ""},
    Row{0x1B0, "CKR_NEW_PIN_MODE", ""},
    Row{0x1B1, "CKR_NEXT_OTP", ""},
    Row{0x1B5, "CKR_EXCEEDED_MAX_ITERATIONS", ""},
    Row{0x1B6, "CKR_FIPS_SELF_TEST_FAILED", ""},
    Row{0x1B7, "CKR_LIBRARY_LOAD_FAILED", "The module could not load a library that it needs."},
    Row{0x1B8, "CKR_PIN_TOO_WEAK", "The token asks for a stronger PIN."},
    Row{0x1B9, "CKR_PUBLIC_KEY_INVALID", ""},
    Row{0x200, "CKR_FUNCTION_REJECTED", "The request was refused, by the user or by the token."},
    Row{0x201, "CKR_TOKEN_RESOURCE_EXCEEDED", ""},
    Row{0x202, "CKR_OPERATION_CANCEL_FAILED", ""},
};

static_assert(std::ranges::is_sorted(kRows, {}, &Row::rv));

const Row* findRow(CK_RV rv) noexcept {
    const auto* const row = std::ranges::lower_bound(kRows, rv, {}, &Row::rv);
    return row == kRows.end() || row->rv != rv ? nullptr : row;
}

}  // namespace

std::string rvName(CK_RV rv) {
    const Row* const row = findRow(rv);
    return row == nullptr ? toHexNumber(rv) : std::string(row->name);
}

std::string_view rvHint(CK_RV rv) noexcept {
    const Row* const row = findRow(rv);
    return row == nullptr ? std::string_view() : row->hint;
}

FailureKind rvKind(CK_RV rv) noexcept {
    using enum FailureKind;
    switch (rv) {
        case CKR_HOST_MEMORY:
            return NoMemory;
        case CKR_SLOT_ID_INVALID:
        case CKR_TOKEN_NOT_PRESENT:
        case CKR_TOKEN_NOT_RECOGNIZED:
            return NoToken;
        case CKR_FUNCTION_NOT_SUPPORTED:
        case CKR_MECHANISM_INVALID:
        case CKR_MECHANISM_PARAM_INVALID:
            return NotSupported;
        case CKR_KEY_FUNCTION_NOT_PERMITTED:
            return KeyMayNotSign;
        case CKR_PIN_INCORRECT:
            return PinWrong;
        case CKR_PIN_INVALID:
        case CKR_PIN_LEN_RANGE:
        case CKR_PIN_TOO_WEAK:
            return PinLength;
        case CKR_PIN_EXPIRED:
            return PinExpired;
        case CKR_PIN_LOCKED:
            return PinLocked;
        case CKR_USER_NOT_LOGGED_IN:
            return NotLoggedIn;
        case CKR_USER_PIN_NOT_INITIALIZED:
            return PinMissing;
        default:
            return endsSession(rv) ? TokenGone : ModuleFailed;
    }
}

bool isAboutPin(CK_RV rv) noexcept {
    return rv >= CKR_PIN_INCORRECT && rv <= CKR_PIN_LOCKED;
}

bool endsSession(CK_RV rv) noexcept {
    return rv == CKR_SESSION_HANDLE_INVALID || rv == CKR_SESSION_CLOSED ||
           rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_TOKEN_NOT_RECOGNIZED ||
           rv == CKR_DEVICE_REMOVED;
}

}  // namespace mervane
