#ifndef MERVANE_PKCS11_CALLS_LEDGER_H
#define MERVANE_PKCS11_CALLS_LEDGER_H

#include <memory>

#include "foundation/core/critsec.h"

namespace mervane {
struct CK_FUNCTION_LIST;
}

namespace mervane::ledger {

// Initialisation is process-wide in a module, so the objects of this process that use one are
// counted here, keyed by the module's function list. The last one out calls C_Finalize, and only if
// one of them initialised the module.
//
// Modules do not survive being initialised by two threads at once, so C_Initialize and C_Finalize
// of one library run one after the other: whoever calls either holds the library's Turn meanwhile.
// Turns of different libraries do not wait for each other, and no other call waits for a Turn. A
// thread that holds one may take it again: a module may call back into the application from within
// C_Initialize.

/// Holds a library's initialisation and finalisation for the length of a scope, waiting for whoever
/// holds it, as long as that takes.
class Turn {
  public:
    /// `library` is the handle from dlopen.
    explicit Turn(const void* library);

  private:
    std::shared_ptr<MervaneCritSec> m_section;
    CritSecExitor m_lock;
};

// The functions below are called while the Turn is held.

/// Counts one more user of the module, which has been initialised: by this user, or before.
void enter(const CK_FUNCTION_LIST* module, bool initialisedByUs);

/// One user fewer. True if the caller has to call C_Finalize.
[[nodiscard]] bool leave(const CK_FUNCTION_LIST* module) noexcept;

/// One user fewer and no C_Finalize to follow, because somebody else has finalised the module.
/// Needs no Turn.
void forget(const CK_FUNCTION_LIST* module) noexcept;

}  // namespace mervane::ledger

#endif
