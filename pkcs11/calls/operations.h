#ifndef MERVANE_PKCS11_CALLS_OPERATIONS_H
#define MERVANE_PKCS11_CALLS_OPERATIONS_H

#include <vector>

#include "foundation/json/clsjsonobject.h"
#include "foundation/text/xstring.h"
#include "pkcs11/calls/calls.h"
#include "pkcs11/tokens.h"

// What the call layer does for ClsPkcs11, a file a topic. Each operation expects the object's
// critical section to be held, reports its failure in the log, and says by its result whether it
// succeeded; a list is changed only by a success.

namespace mervane::operation {

// --- session.cpp: the function table, initialisation, slots, sessions and login

/// Gets the function table of the library that is loaded, unless it is there.
bool getFunctions(Calls& calls, LogBase& log);
/// Initialises the module whose function table is there.
bool initialise(Calls& calls, LogBase& log);
/// Fills `slotIds`, whose room is `count`, with the slots that hold a token.
bool getSlotsWithToken(Calls& calls, CK_SLOT_ID* slotIds, unsigned int& count, LogBase& log);
bool getSlots(Calls& calls, bool onlyTokensPresent, std::vector<CK_SLOT_ID>& slots, LogBase& log);
bool openSession(Calls& calls, CK_SLOT_ID slotId, bool readWrite, LogBase& log);
bool closeSession(Calls& calls, LogBase& log);
bool login(Calls& calls, int userType, const char* pin, LogBase& log);
bool logout(Calls& calls, LogBase& log);

// --- tokens.cpp

/// What usually helps when no slot holds a token.
inline constexpr std::string_view kNoTokenHint =
    "Is the card or token plugged in? Smart cards need the daemon pcscd to be running.";

/// Adds the tokens in the slot named, or in all. One that the module cannot describe is not
/// readable, and counts as left out.
bool readTokens(Calls& calls, std::optional<CK_SLOT_ID> slotId, std::vector<TokenInfo>& tokens,
                LogBase& log);
/// The one token that fits the choice.
bool chooseToken(Calls& calls, const TokenChoice& choice, TokenInfo& chosen, LogBase& log);
/// Whether the slot of a token still holds it.
bool isStillThere(Calls& calls, const TokenInfo& chosen, LogBase& log);

// --- admin.cpp
bool setPin(Calls& calls, const char* oldPin, const char* newPin, LogBase& log);
bool initPin(Calls& calls, const char* pin, LogBase& log);
bool initToken(Calls& calls, CK_SLOT_ID slotId, const char* soPin, const char* label, LogBase& log);

// --- findobject.cpp, keylist.cpp
int findObject(Calls& calls, ClsJsonObject& json, LogBase& log);
bool countObjects(Calls& calls, int& count, LogBase& log);
bool findAllKeys(Calls& calls, const XString& selector, ClsJsonObject& json, LogBase& log);

// --- report.cpp
bool describeModule(Calls& calls, ClsJsonObject& json, LogBase& log);
bool describeSlots(Calls& calls, bool onlyTokensPresent, bool skipMechanisms, ClsJsonObject& json,
                   LogBase& log);

// --- tokencerts.cpp, tokenkeys.cpp: filling the caches
bool cacheCerts(Calls& calls, LogBase& log);
bool cacheRsaKeys(Calls& calls, bool withSubjectAndModulus, LogBase& log);
bool cacheEcKeys(Calls& calls, bool withEcPoints, LogBase& log);

}  // namespace mervane::operation

#endif
