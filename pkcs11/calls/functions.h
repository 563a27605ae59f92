#ifndef MERVANE_PKCS11_CALLS_FUNCTIONS_H
#define MERVANE_PKCS11_CALLS_FUNCTIONS_H

#include "pkcs11/calls/cryptoki.h"

namespace mervane {

/// What must exist before a function may be called.
enum class Needs : unsigned char {
    Table,        ///< the function table: before C_Initialize
    Initialized,  ///< and the module initialised by this object
    Session,      ///< and an open session, whose handle is the function's first argument
};

/// One function of the module: its place in the table, and its name.
template <Needs N, class Signature>
struct ModuleFunction {
    Signature CK_FUNCTION_LIST::*member;
    const char* name;
};

template <Needs N, class Signature>
constexpr ModuleFunction<N, Signature> make(Signature CK_FUNCTION_LIST::*member,
                                            const char* name) noexcept {
    return {member, name};
}

namespace function {

using List = CK_FUNCTION_LIST;

inline constexpr auto kInitialize = make<Needs::Table>(&List::C_Initialize, "C_Initialize");
inline constexpr auto kFinalize = make<Needs::Table>(&List::C_Finalize, "C_Finalize");
inline constexpr auto kGetInfo = make<Needs::Initialized>(&List::C_GetInfo, "C_GetInfo");
inline constexpr auto kGetSlotList =
    make<Needs::Initialized>(&List::C_GetSlotList, "C_GetSlotList");
inline constexpr auto kGetSlotInfo =
    make<Needs::Initialized>(&List::C_GetSlotInfo, "C_GetSlotInfo");
inline constexpr auto kGetTokenInfo =
    make<Needs::Initialized>(&List::C_GetTokenInfo, "C_GetTokenInfo");
inline constexpr auto kGetMechanismList =
    make<Needs::Initialized>(&List::C_GetMechanismList, "C_GetMechanismList");
inline constexpr auto kGetMechanismInfo =
    make<Needs::Initialized>(&List::C_GetMechanismInfo, "C_GetMechanismInfo");
inline constexpr auto kInitToken = make<Needs::Initialized>(&List::C_InitToken, "C_InitToken");
inline constexpr auto kInitPin = make<Needs::Session>(&List::C_InitPIN, "C_InitPIN");
inline constexpr auto kSetPin = make<Needs::Session>(&List::C_SetPIN, "C_SetPIN");
inline constexpr auto kOpenSession =
    make<Needs::Initialized>(&List::C_OpenSession, "C_OpenSession");
inline constexpr auto kCloseSession = make<Needs::Session>(&List::C_CloseSession, "C_CloseSession");
inline constexpr auto kGetSessionInfo =
    make<Needs::Session>(&List::C_GetSessionInfo, "C_GetSessionInfo");
inline constexpr auto kLogin = make<Needs::Session>(&List::C_Login, "C_Login");
inline constexpr auto kLogout = make<Needs::Session>(&List::C_Logout, "C_Logout");
inline constexpr auto kGetAttributeValue =
    make<Needs::Session>(&List::C_GetAttributeValue, "C_GetAttributeValue");
inline constexpr auto kFindObjectsInit =
    make<Needs::Session>(&List::C_FindObjectsInit, "C_FindObjectsInit");
inline constexpr auto kFindObjects = make<Needs::Session>(&List::C_FindObjects, "C_FindObjects");
inline constexpr auto kFindObjectsFinal =
    make<Needs::Session>(&List::C_FindObjectsFinal, "C_FindObjectsFinal");
inline constexpr auto kSignInit = make<Needs::Session>(&List::C_SignInit, "C_SignInit");
inline constexpr auto kSign = make<Needs::Session>(&List::C_Sign, "C_Sign");
inline constexpr auto kSignUpdate = make<Needs::Session>(&List::C_SignUpdate, "C_SignUpdate");
inline constexpr auto kSignFinal = make<Needs::Session>(&List::C_SignFinal, "C_SignFinal");

}  // namespace function
}  // namespace mervane

#endif
