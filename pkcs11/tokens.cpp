#include "pkcs11/tokens.h"

#include "pkcs11/calls/cryptoki.h"

namespace mervane {

TokenInfo::TokenInfo() noexcept = default;
TokenInfo::TokenInfo(const TokenInfo& other) = default;
TokenInfo::TokenInfo(TokenInfo&& other) noexcept = default;
TokenInfo& TokenInfo::operator=(const TokenInfo& other) = default;
TokenInfo& TokenInfo::operator=(TokenInfo&& other) noexcept = default;
TokenInfo::~TokenInfo() = default;

void TokenInfo::setFlags(CK_ULONG bits) noexcept {
    const auto has = [&](CK_FLAGS flag) { return (bits & flag) != 0; };
    flags = bits;
    isInitialised = has(CKF_TOKEN_INITIALIZED);
    isUserPinSet = has(CKF_USER_PIN_INITIALIZED);
    needsLogin = has(CKF_LOGIN_REQUIRED);
    hasPinPad = has(CKF_PROTECTED_AUTHENTICATION_PATH);
    isWriteProtected = has(CKF_WRITE_PROTECTED);
    userPin = {has(CKF_USER_PIN_COUNT_LOW), has(CKF_USER_PIN_FINAL_TRY), has(CKF_USER_PIN_LOCKED),
               has(CKF_USER_PIN_TO_BE_CHANGED)};
    officerPin = {has(CKF_SO_PIN_COUNT_LOW), has(CKF_SO_PIN_FINAL_TRY), has(CKF_SO_PIN_LOCKED),
                  has(CKF_SO_PIN_TO_BE_CHANGED)};
}

}  // namespace mervane
