#ifndef MERVANE_PKCS11_CALLS_RV_H
#define MERVANE_PKCS11_CALLS_RV_H

#include <string>
#include <string_view>

#include "pkcs11/calls/cktypes.h"
#include "pkcs11/failure.h"

namespace mervane {

// Return values that steer this code (PKCS#11 3.0 base specification, section 5.1).
inline constexpr CK_RV CKR_OK = 0x000;
inline constexpr CK_RV CKR_HOST_MEMORY = 0x002;
inline constexpr CK_RV CKR_SLOT_ID_INVALID = 0x003;
inline constexpr CK_RV CKR_GENERAL_ERROR = 0x005;
inline constexpr CK_RV CKR_ARGUMENTS_BAD = 0x007;
inline constexpr CK_RV CKR_NEED_TO_CREATE_THREADS = 0x009;
inline constexpr CK_RV CKR_CANT_LOCK = 0x00A;
inline constexpr CK_RV CKR_ATTRIBUTE_SENSITIVE = 0x011;
inline constexpr CK_RV CKR_ATTRIBUTE_TYPE_INVALID = 0x012;
inline constexpr CK_RV CKR_DEVICE_REMOVED = 0x032;
inline constexpr CK_RV CKR_FUNCTION_NOT_SUPPORTED = 0x054;
inline constexpr CK_RV CKR_KEY_SIZE_RANGE = 0x062;
inline constexpr CK_RV CKR_KEY_TYPE_INCONSISTENT = 0x063;
inline constexpr CK_RV CKR_KEY_FUNCTION_NOT_PERMITTED = 0x068;
inline constexpr CK_RV CKR_MECHANISM_INVALID = 0x070;
inline constexpr CK_RV CKR_MECHANISM_PARAM_INVALID = 0x071;
inline constexpr CK_RV CKR_OPERATION_ACTIVE = 0x090;
inline constexpr CK_RV CKR_OPERATION_NOT_INITIALIZED = 0x091;
inline constexpr CK_RV CKR_PIN_INCORRECT = 0x0A0;
inline constexpr CK_RV CKR_PIN_INVALID = 0x0A1;
inline constexpr CK_RV CKR_PIN_LEN_RANGE = 0x0A2;
inline constexpr CK_RV CKR_PIN_EXPIRED = 0x0A3;
inline constexpr CK_RV CKR_PIN_LOCKED = 0x0A4;
inline constexpr CK_RV CKR_SESSION_CLOSED = 0x0B0;
inline constexpr CK_RV CKR_SESSION_COUNT = 0x0B1;
inline constexpr CK_RV CKR_SESSION_HANDLE_INVALID = 0x0B3;
inline constexpr CK_RV CKR_TOKEN_NOT_PRESENT = 0x0E0;
inline constexpr CK_RV CKR_TOKEN_NOT_RECOGNIZED = 0x0E1;
inline constexpr CK_RV CKR_USER_ALREADY_LOGGED_IN = 0x100;
inline constexpr CK_RV CKR_USER_NOT_LOGGED_IN = 0x101;
inline constexpr CK_RV CKR_USER_PIN_NOT_INITIALIZED = 0x102;
inline constexpr CK_RV CKR_USER_TYPE_INVALID = 0x103;
inline constexpr CK_RV CKR_BUFFER_TOO_SMALL = 0x150;
inline constexpr CK_RV CKR_CRYPTOKI_NOT_INITIALIZED = 0x190;
inline constexpr CK_RV CKR_CRYPTOKI_ALREADY_INITIALIZED = 0x191;
inline constexpr CK_RV CKR_PIN_TOO_WEAK = 0x1B8;

/// The standard's name of a return value; "0x..." for one that it does not define.
std::string rvName(CK_RV rv);

/// One sentence on what usually helps; empty if no single thing does.
std::string_view rvHint(CK_RV rv) noexcept;

/// What kind of failure a return value other than CKR_OK is.
FailureKind rvKind(CK_RV rv) noexcept;

/// The PIN that was given is wrong, locked, expired, or not in the form the token wants.
bool isAboutPin(CK_RV rv) noexcept;

/// The session that the call was made on, or its token, no longer exists.
bool endsSession(CK_RV rv) noexcept;

}  // namespace mervane

#endif
