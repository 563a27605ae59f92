#ifndef MERVANE_PKCS11_CALLS_LEDGER_H
#define MERVANE_PKCS11_CALLS_LEDGER_H

namespace mervane {
struct CK_FUNCTION_LIST;
}

namespace mervane::ledger {

// Initialisation is process-wide in a module, so the objects of this process that use one are
// counted here, keyed by the module's function list. The last one out calls C_Finalize, and only if
// one of them initialised the module. No lock is held while a module is called.

/// Counts one more user, about to call C_Initialize. While the last user is finalising the module,
/// waits for that to end, five seconds at most.
void enter(const CK_FUNCTION_LIST* module);

/// The user that entered has initialised the module, rather than found it initialised.
void markOurs(const CK_FUNCTION_LIST* module) noexcept;

/// One user fewer. True if the caller has to call C_Finalize and then finalized().
[[nodiscard]] bool leave(const CK_FUNCTION_LIST* module) noexcept;
void finalized(const CK_FUNCTION_LIST* module) noexcept;

/// One user fewer and no C_Finalize to follow: its C_Initialize failed, or somebody else has
/// finalised the module.
void forget(const CK_FUNCTION_LIST* module) noexcept;

}  // namespace mervane::ledger

#endif
