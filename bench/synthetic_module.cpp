// A PKCS#11 module that costs next to nothing, so that whatever a client takes on it is the
// client's own work.
//
// It has one token with N certificates and N private keys, each pair with an ID of its own. Nothing
// is stored: a certificate is one template with the serial number patched, an ID is the number of
// the object, computed from the handle. Only the functions that listing and matching call exist.
//
// Environment: SYNTHETIC_OBJECTS is N (default 1000); SYNTHETIC_CERT is the template, DER in
// hexadecimal, whose serial number must be 7A7A7A7A.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/text/hex.h"
#include "pkcs11/calls/cryptoki.h"
#include "pkcs11/calls/rv.h"

using namespace mervane;

namespace {

CK_ULONG numObjects = 0;
std::vector<unsigned char> certTemplate;
std::size_t serialAt = 0;  // offset of the four octets of the serial number in the template
CK_ULONG nextFound = 0;
CK_ULONG lastFound = 0;

CK_RV initialize(void*) {
    const char* const number = std::getenv("SYNTHETIC_OBJECTS");
    const char* const cert = std::getenv("SYNTHETIC_CERT");
    numObjects = number == nullptr ? 1000 : std::strtoul(number, nullptr, 10);
    const auto bytes = cert == nullptr ? std::nullopt : fromHex(cert);
    if (!bytes) return CKR_GENERAL_ERROR;
    certTemplate = *bytes;
    constexpr unsigned char kSerial[] = {0x02, 0x04, 0x7A, 0x7A, 0x7A, 0x7A};
    const auto at = std::search(certTemplate.begin(), certTemplate.end(), std::begin(kSerial),
                                std::end(kSerial));
    serialAt = static_cast<std::size_t>(at - certTemplate.begin()) + 2;
    return at == certTemplate.end() ? CKR_GENERAL_ERROR : CKR_OK;
}

CK_RV finalize(void*) {
    return CKR_OK;
}

CK_RV getSlotList(CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count) {
    if (list != nullptr) *list = 1;
    *count = 1;
    return CKR_OK;
}

CK_RV getTokenInfo(CK_SLOT_ID, CK_TOKEN_INFO* info) {
    std::memset(info, ' ', sizeof *info);  // labels are padded with spaces
    info->flags = 0x400;                   // CKF_TOKEN_INITIALIZED
    return CKR_OK;
}

CK_RV openSession(CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) {
    *session = 1;
    return CKR_OK;
}

CK_RV closeSession(CK_SESSION_HANDLE) {
    return CKR_OK;
}
CK_RV login(CK_SESSION_HANDLE, CK_USER_TYPE, CK_UTF8CHAR*, CK_ULONG) {
    return CKR_OK;
}

// Handles: 1 to N are certificates, N + 1 to 2 N keys.
CK_RV findObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE* query, CK_ULONG count) {
    CK_ULONG objectClass = CKO_DATA;
    CK_ULONG keyType = CKK_RSA;
    for (CK_ULONG i = 0; i < count; ++i) {
        std::memcpy(query[i].type == CKA_CLASS ? &objectClass : &keyType, query[i].pValue,
                    sizeof(CK_ULONG));
    }
    const bool isCert = objectClass == CKO_CERTIFICATE;
    const bool isKey = objectClass == CKO_PRIVATE_KEY && keyType == CKK_RSA;
    nextFound = isKey ? numObjects + 1 : 1;
    lastFound = isCert || isKey ? nextFound + numObjects - 1 : 0;
    return CKR_OK;
}

CK_RV findObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* handles, CK_ULONG room, CK_ULONG* count) {
    for (*count = 0; *count < room && nextFound <= lastFound; ++*count)
        handles[*count] = nextFound++;
    return CKR_OK;
}

CK_RV findObjectsFinal(CK_SESSION_HANDLE) {
    return CKR_OK;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE* attributes,
                        CK_ULONG count) {
    const bool isCert = handle <= numObjects;
    const CK_ULONG number = isCert ? handle : handle - numObjects;
    unsigned char id[4];
    for (int i = 0; i < 4; ++i) id[i] = static_cast<unsigned char>(number >> (24 - 8 * i));
    CK_RV rv = CKR_OK;
    const auto give = [](CK_ATTRIBUTE& attribute, const void* value, std::size_t size) {
        std::memcpy(attribute.pValue, value, size);
        attribute.ulValueLen = size;
    };
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_ATTRIBUTE& attribute = attributes[i];
        constexpr CK_BBOOL kYes = CK_TRUE;
        if (attribute.type == CKA_ID) {
            give(attribute, id, sizeof id);
        } else if (attribute.type == CKA_VALUE && isCert) {
            give(attribute, certTemplate.data(), certTemplate.size());
            std::memcpy(static_cast<unsigned char*>(attribute.pValue) + serialAt + 1, id + 1, 3);
        } else if (attribute.type == CKA_SIGN && !isCert) {
            give(attribute, &kYes, sizeof kYes);
        } else {
            // As real modules answer for an attribute that the object lacks (PKCS#11 2.40 5.7).
            attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            rv = CKR_ATTRIBUTE_TYPE_INVALID;
        }
    }
    return rv;
}

}  // namespace

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
    static CK_FUNCTION_LIST functions{};
    functions.version = {2, 40};
    functions.C_Initialize = initialize;
    functions.C_Finalize = finalize;
    functions.C_GetSlotList = getSlotList;
    functions.C_GetTokenInfo = getTokenInfo;
    functions.C_OpenSession = openSession;
    functions.C_CloseSession = closeSession;
    functions.C_Login = login;
    functions.C_FindObjectsInit = findObjectsInit;
    functions.C_FindObjects = findObjects;
    functions.C_FindObjectsFinal = findObjectsFinal;
    functions.C_GetAttributeValue = getAttributeValue;
    *list = &functions;
    return CKR_OK;
}
