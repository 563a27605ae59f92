#include "pkcs11/wrappers.h"

#include "pkcs11/calls/operations.h"

namespace mervane {

Pkcs11Wrappers::Pkcs11Wrappers(std::shared_ptr<Pkcs11SessionAnchor> anchor)
    : m_calls(std::make_unique<Calls>(static_cast<Pkcs11State&>(*this), std::move(anchor))) {}

Pkcs11Wrappers::~Pkcs11Wrappers() = default;

bool Pkcs11Wrappers::noFunc(const char* functionName, LogBase& log) {
    return m_calls->noFunc(functionName, log);
}

bool Pkcs11Wrappers::noFuncs(LogBase& log) {
    return m_calls->noFuncs(log);
}

bool Pkcs11Wrappers::noSession(LogBase& log) {
    return m_calls->noSession(log);
}

bool Pkcs11Wrappers::getPkcs11Functions(LogBase& log) {
    return operation::getFunctions(*m_calls, log);
}

bool Pkcs11Wrappers::getSlotIdsWithTokenPresent(unsigned long* slotIds, unsigned int& count,
                                                LogBase& log) {
    return operation::getSlotsWithToken(*m_calls, slotIds, count, log);
}

bool Pkcs11Wrappers::C_OpenSession(unsigned long slotId, bool, bool readWrite, LogBase& log) {
    return operation::openSession(*m_calls, slotId, readWrite, log);
}

bool Pkcs11Wrappers::C_CloseSession(LogBase& log) {
    return operation::closeSession(*m_calls, log);
}

bool Pkcs11Wrappers::C_Login(int userType, const char* pin, bool, LogBase& log) {
    return operation::login(*m_calls, userType, pin, log);
}

bool Pkcs11Wrappers::C_Logout(LogBase& log) {
    return operation::logout(*m_calls, log);
}

bool Pkcs11Wrappers::C_SetPIN(const char* oldPin, const char* newPin, LogBase& log) {
    return operation::setPin(*m_calls, oldPin, newPin, log);
}

bool Pkcs11Wrappers::C_InitPIN(const char* pin, LogBase& log) {
    return operation::initPin(*m_calls, pin, log);
}

bool Pkcs11Wrappers::C_InitToken(unsigned long slotId, const char* soPin, const char* label,
                                 LogBase& log) {
    return operation::initToken(*m_calls, slotId, soPin, label, log);
}

int Pkcs11Wrappers::findObject(ClsJsonObject& json, LogBase& log) {
    return operation::findObject(*m_calls, json, log);
}

bool Pkcs11Wrappers::findAllKeys(const XString& selector, ClsJsonObject& json, LogBase& log) {
    return operation::findAllKeys(*m_calls, selector, json, log);
}

bool Pkcs11Wrappers::getCryptokiInfo(ClsJsonObject& json, LogBase& log) {
    return operation::describeModule(*m_calls, json, log);
}

bool Pkcs11Wrappers::getSlotsInfo(bool onlyTokensPresent, bool, bool skipMechanisms,
                                  ClsJsonObject& json, LogBase& log) {
    return operation::describeSlots(*m_calls, onlyTokensPresent, skipMechanisms, json, log);
}

bool Pkcs11Wrappers::findAllCerts(LogBase& log) {
    return operation::cacheCerts(*m_calls, log);
}

bool Pkcs11Wrappers::cacheRsaPrivateKeys(bool withSubjectAndModulus, bool notQuick, LogBase& log) {
    return operation::cacheRsaKeys(*m_calls, withSubjectAndModulus || notQuick, log);
}

bool Pkcs11Wrappers::cacheEcdsaPrivateKeys(bool withEcPoints, LogBase& log) {
    return operation::cacheEcKeys(*m_calls, withEcPoints, log);
}

}  // namespace mervane
