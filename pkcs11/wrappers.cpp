// The call layer as the rest of ClsPkcs11 sees it: one method an operation, under the name of the
// standard's function where there is one. The flags that are not passed on are reserved.

#include "foundation/system/filesys.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {

bool ClsPkcs11::noFunc(const char* functionName, LogBase& log) {
    return m_calls->noFunc(functionName, log);
}

bool ClsPkcs11::noFuncs(LogBase& log) {
    return m_calls->noFuncs(log);
}

bool ClsPkcs11::noSession(LogBase& log) {
    return m_calls->noSession(log);
}

bool ClsPkcs11::getPkcs11Functions(LogBase& log) {
    return operation::getFunctions(*m_calls, log);
}

bool ClsPkcs11::C_Initialize(LogBase& log) {
    if (!loadPkcs11Dll_2(log)) {
        // The loader is silent about a missing file, since it tries two ways.
        const char* const path = m_sharedLibPath.getUtf8();
        if (!m_sharedLibPath.isEmpty() && !FileSys::fileExistsUtf8(path, nullptr, nullptr)) {
            m_calls->fail(log, FailureKind::ModuleMissing,
                          "The PKCS11 module is missing: the SharedLibPath names no regular file.");
            log.LogDataX("sharedLibPath", m_sharedLibPath);
        }
        return false;
    }
    return m_initialized || operation::initialise(*m_calls, log);
}

bool ClsPkcs11::getSlotIdsWithTokenPresent(unsigned long* slotIds, unsigned int& count,
                                           LogBase& log) {
    return operation::getSlotsWithToken(*m_calls, slotIds, count, log);
}

bool ClsPkcs11::C_OpenSession(unsigned long slotId, bool, bool readWrite, LogBase& log) {
    return operation::openSession(*m_calls, slotId, readWrite, log);
}

bool ClsPkcs11::C_CloseSession(LogBase& log) {
    return operation::closeSession(*m_calls, log);
}

bool ClsPkcs11::C_Login(int userType, const char* pin, bool, LogBase& log) {
    return operation::login(*m_calls, userType, pin, log);
}

bool ClsPkcs11::C_Logout(LogBase& log) {
    return operation::logout(*m_calls, log);
}

bool ClsPkcs11::C_SetPIN(const char* oldPin, const char* newPin, LogBase& log) {
    return operation::setPin(*m_calls, oldPin, newPin, log);
}

bool ClsPkcs11::C_InitPIN(const char* pin, LogBase& log) {
    return operation::initPin(*m_calls, pin, log);
}

bool ClsPkcs11::C_InitToken(unsigned long slotId, const char* soPin, const char* label,
                            LogBase& log) {
    return operation::initToken(*m_calls, slotId, soPin, label, log);
}

int ClsPkcs11::findObject(ClsJsonObject& json, LogBase& log) {
    return operation::findObject(*m_calls, json, log);
}

bool ClsPkcs11::findAllKeys(const XString& selector, ClsJsonObject& json, LogBase& log) {
    return operation::findAllKeys(*m_calls, selector, json, log);
}

bool ClsPkcs11::getCryptokiInfo(ClsJsonObject& json, LogBase& log) {
    return operation::describeModule(*m_calls, json, log);
}

bool ClsPkcs11::getSlotsInfo(bool onlyTokensPresent, bool, bool skipMechanisms, ClsJsonObject& json,
                             LogBase& log) {
    return operation::describeSlots(*m_calls, onlyTokensPresent, skipMechanisms, json, log);
}

bool ClsPkcs11::findAllCerts(LogBase& log) {
    return operation::cacheCerts(*m_calls, log);
}

bool ClsPkcs11::cacheRsaPrivateKeys(bool withSubjectAndModulus, bool notQuick, LogBase& log) {
    return operation::cacheRsaKeys(*m_calls, withSubjectAndModulus || notQuick, log);
}

bool ClsPkcs11::cacheEcdsaPrivateKeys(bool withEcPoints, LogBase& log) {
    return operation::cacheEcKeys(*m_calls, withEcPoints, log);
}

}  // namespace mervane
