#ifndef MERVANE_PKCS11_WRAPPERS_H
#define MERVANE_PKCS11_WRAPPERS_H

#include <memory>

#include "../foundation/json/clsjsonobject.h"
#include "../foundation/x509/sessionanchor.h"
#include "state.h"

namespace mervane {

class Calls;

/// The call layer as ClsPkcs11 sees it: one method an operation, under the name of the standard's
/// function where there is one. None takes a lock; the caller holds the object's critical section.
/// The unnamed flags are reserved.
class Pkcs11Wrappers : protected Pkcs11State {
  protected:
    explicit Pkcs11Wrappers(std::shared_ptr<Pkcs11SessionAnchor> anchor);
    ~Pkcs11Wrappers();

    bool getPkcs11Functions(LogBase& log);
    bool noFunc(const char* functionName, LogBase& log);
    bool noFuncs(LogBase& log);
    bool noSession(LogBase& log);
    bool getSlotIdsWithTokenPresent(unsigned long* slotIds, unsigned int& count, LogBase& log);
    bool C_OpenSession(unsigned long slotId, bool flag, bool readWrite, LogBase& log);
    bool C_CloseSession(LogBase& log);
    bool C_Login(int userType, const char* pin, bool flag, LogBase& log);
    bool C_Logout(LogBase& log);
    bool C_SetPIN(const char* oldPin, const char* newPin, LogBase& log);
    bool C_InitPIN(const char* pin, LogBase& log);
    bool C_InitToken(unsigned long slotId, const char* soPin, const char* label, LogBase& log);
    int findObject(ClsJsonObject& json, LogBase& log);
    bool findAllKeys(const XString& selector, ClsJsonObject& json, LogBase& log);
    bool getCryptokiInfo(ClsJsonObject& json, LogBase& log);
    bool getSlotsInfo(bool onlyTokensPresent, bool secondFlag, bool skipMechanisms,
                      ClsJsonObject& json, LogBase& log);
    bool findAllCerts(LogBase& log);
    bool cacheRsaPrivateKeys(bool withSubjectAndModulus, bool notQuick, LogBase& log);
    bool cacheEcdsaPrivateKeys(bool withEcPoints, LogBase& log);

    std::unique_ptr<Calls> m_calls;
};

}  // namespace mervane

#endif
