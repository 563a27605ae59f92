#ifndef MERVANE_PKCS11_CALLS_LEDGER_H
#define MERVANE_PKCS11_CALLS_LEDGER_H

namespace mervane {
struct CK_FUNCTION_LIST;
}

namespace mervane::ledger {

// Initialisation is process-wide in a module, so the objects of this process that use one are
// counted here, by the module's function list. The last one out calls C_Finalize, and only when one
// of them had initialised the module. No lock is held while a module is called.

/// Counts one more user, before it calls C_Initialize. When the last user is just finalising the
/// module, waits for that, five seconds at most.
void enter(const CK_FUNCTION_LIST* module);

/// The user that entered has initialised the module (and did not find it initialised).
void markOurs(const CK_FUNCTION_LIST* module) noexcept;

/// One user less. True when the caller has to call C_Finalize and then finalized().
[[nodiscard]] bool leave(const CK_FUNCTION_LIST* module) noexcept;
void finalized(const CK_FUNCTION_LIST* module) noexcept;

/// One user less, without a C_Finalize to follow: its C_Initialize failed, or somebody else has
/// finalised the module.
void forget(const CK_FUNCTION_LIST* module) noexcept;

}  // namespace mervane::ledger

#endif
