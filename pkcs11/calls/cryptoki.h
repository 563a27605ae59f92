#ifndef MERVANE_PKCS11_CALLS_CRYPTOKI_H
#define MERVANE_PKCS11_CALLS_CRYPTOKI_H

#include <cstddef>

#include "pkcs11/calls/cktypes.h"

// The binary interface of PKCS#11 2.40, as far as it is used here. Structures have the platform's
// natural layout, like the standard's own headers on Linux.

namespace mervane {

using CK_BYTE = unsigned char;
using CK_BBOOL = CK_BYTE;
using CK_UTF8CHAR = CK_BYTE;
using CK_CHAR = CK_BYTE;
using CK_FLAGS = CK_ULONG;
using CK_USER_TYPE = CK_ULONG;
using CK_NOTIFICATION = CK_ULONG;
using CK_ATTRIBUTE_TYPE = CK_ULONG;
using CK_MECHANISM_TYPE = CK_ULONG;
using CK_NOTIFY = CK_RV (*)(CK_SESSION_HANDLE, CK_NOTIFICATION, void*);

inline constexpr CK_ULONG CK_UNAVAILABLE_INFORMATION = ~CK_ULONG{0};
inline constexpr CK_ULONG CK_EFFECTIVELY_INFINITE = 0;
inline constexpr CK_BBOOL CK_TRUE = 1;
inline constexpr CK_BBOOL CK_FALSE = 0;

struct CK_VERSION {
    CK_BYTE major;
    CK_BYTE minor;
};

struct CK_INFO {
    CK_VERSION cryptokiVersion;
    CK_UTF8CHAR manufacturerID[32];
    CK_FLAGS flags;
    CK_UTF8CHAR libraryDescription[32];
    CK_VERSION libraryVersion;
};

struct CK_SLOT_INFO {
    CK_UTF8CHAR slotDescription[64];
    CK_UTF8CHAR manufacturerID[32];
    CK_FLAGS flags;
    CK_VERSION hardwareVersion;
    CK_VERSION firmwareVersion;
};

struct CK_TOKEN_INFO {
    CK_UTF8CHAR label[32];
    CK_UTF8CHAR manufacturerID[32];
    CK_UTF8CHAR model[16];
    CK_CHAR serialNumber[16];
    CK_FLAGS flags;
    CK_ULONG ulMaxSessionCount;
    CK_ULONG ulSessionCount;
    CK_ULONG ulMaxRwSessionCount;
    CK_ULONG ulRwSessionCount;
    CK_ULONG ulMaxPinLen;
    CK_ULONG ulMinPinLen;
    CK_ULONG ulTotalPublicMemory;
    CK_ULONG ulFreePublicMemory;
    CK_ULONG ulTotalPrivateMemory;
    CK_ULONG ulFreePrivateMemory;
    CK_VERSION hardwareVersion;
    CK_VERSION firmwareVersion;
    CK_CHAR utcTime[16];
};

struct CK_SESSION_INFO {
    CK_SLOT_ID slotID;
    CK_ULONG state;
    CK_FLAGS flags;
    CK_ULONG ulDeviceError;
};

struct CK_MECHANISM_INFO {
    CK_ULONG ulMinKeySize;
    CK_ULONG ulMaxKeySize;
    CK_FLAGS flags;
};

struct CK_MECHANISM {
    CK_MECHANISM_TYPE mechanism;
    void* pParameter;
    CK_ULONG ulParameterLen;
};

struct CK_RSA_PKCS_PSS_PARAMS {
    CK_MECHANISM_TYPE hashAlg;
    CK_ULONG mgf;
    CK_ULONG sLen;  // bytes
};

struct CK_ATTRIBUTE {
    CK_ATTRIBUTE_TYPE type;
    void* pValue;
    CK_ULONG ulValueLen;
};

struct CK_C_INITIALIZE_ARGS {
    CK_RV (*CreateMutex)(void**);
    CK_RV (*DestroyMutex)(void*);
    CK_RV (*LockMutex)(void*);
    CK_RV (*UnlockMutex)(void*);
    CK_FLAGS flags;
    void* pReserved;
};

inline constexpr CK_FLAGS CKF_OS_LOCKING_OK = 0x2;
inline constexpr CK_FLAGS CKF_RW_SESSION = 0x2;
inline constexpr CK_FLAGS CKF_SERIAL_SESSION = 0x4;

// Token flags that steer this code; names.cpp has them all.
inline constexpr CK_FLAGS CKF_WRITE_PROTECTED = 0x2;
inline constexpr CK_FLAGS CKF_LOGIN_REQUIRED = 0x4;
inline constexpr CK_FLAGS CKF_USER_PIN_INITIALIZED = 0x8;
inline constexpr CK_FLAGS CKF_PROTECTED_AUTHENTICATION_PATH = 0x100;
inline constexpr CK_FLAGS CKF_TOKEN_INITIALIZED = 0x400;
inline constexpr CK_FLAGS CKF_USER_PIN_COUNT_LOW = 0x10000;
inline constexpr CK_FLAGS CKF_USER_PIN_FINAL_TRY = 0x20000;
inline constexpr CK_FLAGS CKF_USER_PIN_LOCKED = 0x40000;
inline constexpr CK_FLAGS CKF_USER_PIN_TO_BE_CHANGED = 0x80000;
inline constexpr CK_FLAGS CKF_SO_PIN_COUNT_LOW = 0x100000;
inline constexpr CK_FLAGS CKF_SO_PIN_FINAL_TRY = 0x200000;
inline constexpr CK_FLAGS CKF_SO_PIN_LOCKED = 0x400000;
inline constexpr CK_FLAGS CKF_SO_PIN_TO_BE_CHANGED = 0x800000;
// A slot flag.
inline constexpr CK_FLAGS CKF_TOKEN_PRESENT = 0x1;

inline constexpr CK_USER_TYPE CKU_SO = 0;
inline constexpr CK_USER_TYPE CKU_USER = 1;
inline constexpr CK_USER_TYPE CKU_CONTEXT_SPECIFIC = 2;

// Session states with the user logged in.
inline constexpr CK_ULONG CKS_RO_USER_FUNCTIONS = 1;
inline constexpr CK_ULONG CKS_RW_USER_FUNCTIONS = 3;

inline constexpr CK_ULONG CKO_DATA = 0;
inline constexpr CK_ULONG CKO_CERTIFICATE = 1;
inline constexpr CK_ULONG CKO_PUBLIC_KEY = 2;
inline constexpr CK_ULONG CKO_PRIVATE_KEY = 3;
inline constexpr CK_ULONG CKO_SECRET_KEY = 4;

inline constexpr CK_ULONG CKK_RSA = 0;
inline constexpr CK_ULONG CKK_EC = 3;

inline constexpr CK_ULONG CKC_X_509 = 0;

inline constexpr CK_ATTRIBUTE_TYPE CKA_CLASS = 0x000;
inline constexpr CK_ATTRIBUTE_TYPE CKA_TOKEN = 0x001;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIVATE = 0x002;
inline constexpr CK_ATTRIBUTE_TYPE CKA_LABEL = 0x003;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE = 0x011;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CERTIFICATE_TYPE = 0x080;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SERIAL_NUMBER = 0x082;
inline constexpr CK_ATTRIBUTE_TYPE CKA_KEY_TYPE = 0x100;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUBJECT = 0x101;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ID = 0x102;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SENSITIVE = 0x103;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ENCRYPT = 0x104;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DECRYPT = 0x105;
inline constexpr CK_ATTRIBUTE_TYPE CKA_WRAP = 0x106;
inline constexpr CK_ATTRIBUTE_TYPE CKA_UNWRAP = 0x107;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SIGN = 0x108;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VERIFY = 0x10A;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DERIVE = 0x10C;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS = 0x120;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS_BITS = 0x121;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE_LEN = 0x161;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EXTRACTABLE = 0x162;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EC_PARAMS = 0x180;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EC_POINT = 0x181;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ALWAYS_AUTHENTICATE = 0x202;

// Mechanisms that sign (PKCS#11 2.40 mechanisms 2.1 and 2.3; the SHA-2 forms of ECDSA 3.0).
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS = 0x0001;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS_PSS = 0x000D;
inline constexpr CK_MECHANISM_TYPE CKM_SHA256_RSA_PKCS = 0x0040;  // the next two: 384, 512
inline constexpr CK_MECHANISM_TYPE CKM_SHA256_RSA_PKCS_PSS = 0x0043;
inline constexpr CK_MECHANISM_TYPE CKM_ECDSA = 0x1041;
inline constexpr CK_MECHANISM_TYPE CKM_ECDSA_SHA256 = 0x1044;
// The hash functions of PSS's parameters and their mask generation functions.
inline constexpr CK_MECHANISM_TYPE CKM_SHA256 = 0x0250;
inline constexpr CK_MECHANISM_TYPE CKM_SHA384 = 0x0260;
inline constexpr CK_MECHANISM_TYPE CKM_SHA512 = 0x0270;
inline constexpr CK_ULONG CKG_MGF1_SHA256 = 2;

// A function that is never called; only its place in the list matters.
using CK_UNCALLED = CK_RV (*)();

// Section 3.6; the order is part of the interface.
struct CK_FUNCTION_LIST {
    CK_VERSION version;
    CK_RV (*C_Initialize)(void* initArgs);
    CK_RV (*C_Finalize)(void* reserved);
    CK_RV (*C_GetInfo)(CK_INFO* info);
    CK_RV (*C_GetFunctionList)(CK_FUNCTION_LIST** list);
    CK_RV (*C_GetSlotList)(CK_BBOOL tokenPresent, CK_SLOT_ID* list, CK_ULONG* count);
    CK_RV (*C_GetSlotInfo)(CK_SLOT_ID slot, CK_SLOT_INFO* info);
    CK_RV (*C_GetTokenInfo)(CK_SLOT_ID slot, CK_TOKEN_INFO* info);
    CK_RV (*C_GetMechanismList)(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count);
    CK_RV (*C_GetMechanismInfo)(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info);
    CK_RV (*C_InitToken)(CK_SLOT_ID slot, CK_UTF8CHAR* pin, CK_ULONG pinLen, CK_UTF8CHAR* label);
    CK_RV (*C_InitPIN)(CK_SESSION_HANDLE session, CK_UTF8CHAR* pin, CK_ULONG pinLen);
    CK_RV(*C_SetPIN)
    (CK_SESSION_HANDLE session, CK_UTF8CHAR* oldPin, CK_ULONG oldLen, CK_UTF8CHAR* newPin,
     CK_ULONG newLen);
    CK_RV(*C_OpenSession)
    (CK_SLOT_ID slot, CK_FLAGS flags, void* application, CK_NOTIFY notify,
     CK_SESSION_HANDLE* session);
    CK_RV (*C_CloseSession)(CK_SESSION_HANDLE session);
    CK_UNCALLED C_CloseAllSessions;
    CK_RV (*C_GetSessionInfo)(CK_SESSION_HANDLE session, CK_SESSION_INFO* info);
    CK_UNCALLED C_GetOperationState;
    CK_UNCALLED C_SetOperationState;
    CK_RV(*C_Login)
    (CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR* pin, CK_ULONG pinLen);
    CK_RV (*C_Logout)(CK_SESSION_HANDLE session);
    CK_UNCALLED C_CreateObject;
    CK_UNCALLED C_CopyObject;
    CK_UNCALLED C_DestroyObject;
    CK_UNCALLED C_GetObjectSize;
    CK_RV(*C_GetAttributeValue)
    (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG count);
    CK_UNCALLED C_SetAttributeValue;
    CK_RV (*C_FindObjectsInit)(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count);
    CK_RV(*C_FindObjects)
    (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG maxCount, CK_ULONG* count);
    CK_RV (*C_FindObjectsFinal)(CK_SESSION_HANDLE session);
    CK_UNCALLED C_EncryptInit, C_Encrypt, C_EncryptUpdate, C_EncryptFinal;
    CK_UNCALLED C_DecryptInit, C_Decrypt, C_DecryptUpdate, C_DecryptFinal;
    CK_UNCALLED C_DigestInit, C_Digest, C_DigestUpdate, C_DigestKey, C_DigestFinal;
    CK_RV (*C_SignInit)(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
    CK_RV(*C_Sign)
    (CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLen, CK_BYTE* signature,
     CK_ULONG* signatureLen);
    CK_RV (*C_SignUpdate)(CK_SESSION_HANDLE session, CK_BYTE* part, CK_ULONG partLen);
    CK_RV (*C_SignFinal)(CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG* signatureLen);
    CK_UNCALLED C_SignRecoverInit, C_SignRecover;
    CK_UNCALLED C_VerifyInit, C_Verify, C_VerifyUpdate, C_VerifyFinal, C_VerifyRecoverInit,
        C_VerifyRecover;
    CK_UNCALLED C_DigestEncryptUpdate, C_DecryptDigestUpdate, C_SignEncryptUpdate,
        C_DecryptVerifyUpdate;
    CK_UNCALLED C_GenerateKey, C_GenerateKeyPair, C_WrapKey, C_UnwrapKey, C_DeriveKey;
    CK_UNCALLED C_SeedRandom, C_GenerateRandom;
    CK_UNCALLED C_GetFunctionStatus, C_CancelFunction;
    CK_UNCALLED C_WaitForSlotEvent;
};

// 68 pointers after the version, which alignment pads to the size of a pointer. Each function that
// is called stands at its number in the standard's list.
static_assert(sizeof(CK_FUNCTION_LIST) == 69 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_Initialize) == 1 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_Finalize) == 2 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetInfo) == 3 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetSlotList) == 5 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetSlotInfo) == 6 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetTokenInfo) == 7 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetMechanismList) == 8 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetMechanismInfo) == 9 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_InitToken) == 10 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_InitPIN) == 11 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_SetPIN) == 12 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_OpenSession) == 13 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_CloseSession) == 14 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetSessionInfo) == 16 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_Login) == 19 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_Logout) == 20 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_GetAttributeValue) == 25 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_FindObjectsInit) == 27 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_FindObjects) == 28 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_FindObjectsFinal) == 29 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_SignInit) == 43 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_Sign) == 44 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_SignUpdate) == 45 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_SignFinal) == 46 * sizeof(void*));

}  // namespace mervane

#endif
