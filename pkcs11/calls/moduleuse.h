#ifndef MERVANE_PKCS11_CALLS_MODULEUSE_H
#define MERVANE_PKCS11_CALLS_MODULEUSE_H

#include <cstdint>
#include <memory>

#include "foundation/x509/sessionanchor.h"
#include "pkcs11/calls/cryptoki.h"
#include "pkcs11/state.h"

namespace mervane {

/// One object's use of a module, and the life of its session:
///
///     opened      beginSession()     the session gets a number; certificates are linked under it
///     replaced    replaceSession()   the new one stands before the old one is closed: a failed
///     open
///                                    loses nothing, and a login on the same token is kept
///     exchanged   exchangeSession()  for another one on the same token, with all that belongs to
///     it logged out  restartSession()   goes on under another number: earlier links are void
///     closed      dropSession()      after C_CloseSession
///     gone        dropSession()      the module says that session or token are not there; nothing
///                                    is called any more
///     forked      dropAfterFork()    the session is the parent's: forgotten without a call
///     finalised   release()          closes the session, and calls C_Finalize when that is ours to
///                                    do; dropInitialisation() when somebody else has done it
///
/// What the next reader would get wrong: a session can end in the middle of any call that is made
/// on it, so code that calls the module twice looks at hasOpenSession() in between; and a handle is
/// of no use once its session has ended, even where the module still takes it.
class ModuleUse {
  public:
    ModuleUse(Pkcs11State& state, std::shared_ptr<Pkcs11SessionAnchor> anchor);

    /// The module's own; null while none is loaded.
    [[nodiscard]] CK_FUNCTION_LIST* functions() const noexcept { return m_functions; }
    /// Takes over the list of the module just loaded. What the members say of an earlier module
    /// does not hold for this one.
    void adopt(CK_FUNCTION_LIST* functions, LogBase& log);
    /// Gives the module up before it is unmapped.
    void abandon(LogBase& log) noexcept;

    // --- Initialisation
    /// The module has been initialised, by us or before. The caller holds the library's Turn.
    void initialised(bool byUs);
    /// Somebody else has finalised the module, or its library is not loaded.
    void dropInitialisation(LogBase& log);
    /// Closes the session and gives up the share in the module, finalising it when that is ours to
    /// do. The members that tell of session and initialisation are left alone.
    void release(LogBase& log) noexcept;

    // --- Session
    /// Which of this object's sessions is open, counted from 1; 0 while none is. Code that calls
    /// the module more than once compares it: the object may have been called again from within.
    [[nodiscard]] std::uint64_t session() const noexcept {
        return m_state.m_hSession == 0 ? 0 : m_lastSessionNumber;
    }
    void beginSession(CK_SESSION_HANDLE session) noexcept;
    void replaceSession(CK_SESSION_HANDLE session, bool onSameToken, LogBase& log);
    /// Goes on with another session on the same token: logins, handles and links stay.
    void exchangeSession(CK_SESSION_HANDLE session, LogBase& log) noexcept;
    void restartSession(LogBase& log);
    void dropSession(LogBase& log);

    // --- Fork
    /// The process is a fork of the one that the session and the module's state belong to.
    [[nodiscard]] bool hasForked() const noexcept;
    void dropAfterFork(LogBase& log);
    /// Before dropAfterFork(), if another thread was inside the object at the fork: lists and texts
    /// may be half changed, so they are abandoned with the module, not freed.
    void abandonAfterFork();

    /// A function of the module is running: its library must stay mapped.
    [[nodiscard]] bool isInsideModule() const noexcept { return m_depth > 0; }
    /// Counts a call of the module for the length of a scope.
    class Inside {
      public:
        explicit Inside(ModuleUse& use) noexcept : m_use(use) { ++m_use.m_depth; }
        ~Inside() { --m_use.m_depth; }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

      private:
        ModuleUse& m_use;
    };

  private:
    void closeQuietly(CK_SESSION_HANDLE session, LogBase& log) noexcept;

    Pkcs11State& m_state;
    std::shared_ptr<Pkcs11SessionAnchor> m_anchor;
    CK_FUNCTION_LIST* m_functions = nullptr;  // dies with the library
    bool m_hasShare = false;                  // counted in the ledger for m_functions
    std::uint32_t m_forkGeneration;           // of the process that session and share belong to
    std::uint64_t m_lastSessionNumber = 0;
    int m_depth = 0;  // calls of the module that are running; more than one after a call back
};

}  // namespace mervane

#endif
