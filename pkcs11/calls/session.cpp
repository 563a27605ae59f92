// Initialisation, slots, sessions and login.

#include <dlfcn.h>

#include <algorithm>
#include <vector>

#include "foundation/core/forkwatch.h"
#include "foundation/system/filesys.h"
#include "foundation/x509/sessionanchor.h"
#include "pkcs11/calls/invoke.h"
#include "pkcs11/calls/ledger.h"
#include "pkcs11/calls/lists.h"
#include "pkcs11/calls/pin.h"

namespace mervane {
namespace {

using GetFunctionList = CK_RV (*)(CK_FUNCTION_LIST**);

// Modules keep the pointer, so the arguments live as long as the process.
CK_C_INITIALIZE_ARGS initializeArgs = {nullptr, nullptr,           nullptr,
                                       nullptr, CKF_OS_LOCKING_OK, nullptr};

// More than any reader set-up has; bounds what a module can make us allocate.
constexpr CK_ULONG kMaxSlots = 65536;

}  // namespace

bool ClsPkcs11::getPkcs11Functions(LogBase& log) {
    if (m_funcs != nullptr) return true;
    // POSIX has dlsym's void* convert to a function pointer.
    const auto getList =
        reinterpret_cast<GetFunctionList>(::dlsym(m_libHandle, "C_GetFunctionList"));
    if (getList == nullptr) return noFunc("C_GetFunctionList", log);
    CK_FUNCTION_LIST* list = nullptr;
    const CK_RV rv = callModule(log, getList, &list);
    if (rv != CKR_OK) return reportCode("C_GetFunctionList", Needs::Table, rv, log);
    if (list == nullptr || (list->version.major != 2 && list->version.major != 3)) {
        log.LogError(list == nullptr
                         ? "C_GetFunctionList gave no function list."
                         : "The function list is not of a PKCS#11 version 2 or 3 module.");
        log.LogDataX("sharedLibPath", m_loadedLibPath);
        return false;
    }
    // What the members say of an earlier module does not hold for this one.
    if (m_initialized) dropSession(log);
    m_initialized = false;
    m_funcs = list;
    return true;
}

bool ClsPkcs11::C_Initialize(LogBase& log) {
    if (!loadPkcs11Dll_2(log)) {
        // The loader is silent about a missing file, since it tries two ways.
        const char* const path = m_sharedLibPath.getUtf8();
        if (!m_sharedLibPath.isEmpty() && !FileSys::fileExistsUtf8(path, nullptr, nullptr)) {
            log.LogError("The PKCS11 module is missing: the SharedLibPath names no regular file.");
            log.LogDataX("sharedLibPath", m_sharedLibPath);
        }
        return false;
    }
    if (m_initialized) return true;
    ledger::enter(m_funcs);
    auto rv = ask(log, entry::kInitialize, static_cast<void*>(&initializeArgs));
    if (rv == CKR_CANT_LOCK || rv == CKR_NEED_TO_CREATE_THREADS || rv == CKR_ARGUMENTS_BAD) {
        // Some modules take no arguments at all; the object's critical section serialises the
        // calls.
        rv = ask(log, entry::kInitialize, static_cast<void*>(nullptr));
    }
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        ledger::forget(m_funcs);
        return rv && report(entry::kInitialize, *rv, log);
    }
    if (rv == CKR_OK) {
        ledger::markOurs(m_funcs);
    } else {
        log.LogInfo("The module was initialized already, by another user in this process.");
    }
    m_holdsModule = true;
    m_initialized = true;
    watchProcessExit(this, m_funcs);
    return true;
}

void ClsPkcs11::releaseModule(LogBase& log) noexcept {
    m_anchor->setSession(0);  // links end before what they lead to does
    if (m_funcs == nullptr || !m_holdsModule) return;
    if (m_hSession != 0) closeQuietly(m_hSession, log);
    m_holdsModule = false;
    if (!ledger::leave(m_funcs)) return;
    if (m_funcs->C_Finalize != nullptr) callModule(log, m_funcs->C_Finalize, nullptr);
    ledger::finalized(m_funcs);
}

bool ClsPkcs11::getSlotIdsWithTokenPresent(unsigned long* slotIds, unsigned int& count,
                                           LogBase& log) {
    const std::span<CK_SLOT_ID> room(slotIds, count);
    std::ranges::fill(room, CK_UNAVAILABLE_INFORMATION);
    CK_ULONG numSlots = count;
    const auto rv = ask(log, entry::kGetSlotList, CK_TRUE, slotIds, &numSlots);
    if (rv == CKR_OK) {
        count = static_cast<unsigned int>(numWritten(room, numSlots));
        return true;
    }
    if (rv != CKR_BUFFER_TOO_SMALL) return rv && report(entry::kGetSlotList, *rv, log);

    // More than fit: all are fetched, since the standard fills nothing in that case.
    std::vector<CK_SLOT_ID> all;
    if (!getSlotList(true, all, log)) return false;
    count = static_cast<unsigned int>(std::min<std::size_t>(all.size(), count));
    std::copy_n(all.begin(), count, slotIds);
    if (all.size() > count) {
        log.LogInfo(
            "The module has more slots with a token than are looked at; the first ones count.");
        log.LogDataUnsigned("numSlots", all.size());
    }
    return true;
}

bool ClsPkcs11::getSlotList(bool onlyTokensPresent, std::vector<CK_SLOT_ID>& slots, LogBase& log) {
    return fetchList(entry::kGetSlotList, kMaxSlots, slots, log,
                     onlyTokensPresent ? CK_TRUE : CK_FALSE);
}

void ClsPkcs11::setSession(CK_SESSION_HANDLE session) noexcept {
    m_hSession = session;
    m_anchor->setSession(session == 0 ? 0 : ++m_lastSessionNumber);
}

bool ClsPkcs11::C_OpenSession(unsigned long slotId, bool, bool readWrite, LogBase& log) {
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
    CK_SESSION_HANDLE session = 0;
    const auto open = [&] {
        session = 0;
        return ask(log, entry::kOpenSession, slotId, flags, static_cast<void*>(nullptr),
                   static_cast<CK_NOTIFY>(nullptr), &session);
    };
    // A session that cannot be closed is not opened.
    if (m_funcs != nullptr && m_funcs->C_CloseSession == nullptr)
        return noFunc(entry::kCloseSession.name, log);
    auto rv = open();
    if (rv == CKR_SESSION_COUNT && m_hSession != 0) {
        // The token has no room for two: the old one has to go first.
        if (!C_CloseSession(log)) return false;
        rv = open();
    }
    if (!rv || !report(entry::kOpenSession, *rv, log)) {
        log.LogDataUnsigned("slotId", slotId);
        return false;
    }
    if (session == 0) {
        log.LogError("C_OpenSession gave no session handle.");
        return false;
    }
    if (m_hSession != 0) {
        // A login belongs to the token: it holds for the new session there, and nowhere else.
        const bool sameToken = slotId == m_slotId;
        const bool user = sameToken && m_userLoggedIn;
        const bool officer = sameToken && m_soLoggedIn;
        const CK_SESSION_HANDLE old = m_hSession;
        dropSession(log);
        setSession(session);
        m_userLoggedIn = user;
        m_soLoggedIn = officer;
        // A module that gave the old handle again means the one session.
        if (old != session) closeQuietly(old, log);
        return true;
    }
    setSession(session);
    return true;
}

void ClsPkcs11::closeQuietly(CK_SESSION_HANDLE session, LogBase& log) noexcept {
    if (m_funcs->C_CloseSession == nullptr) return;
    const CK_RV rv = callModule(log, m_funcs->C_CloseSession, session);
    if (rv != CKR_OK) log.LogDataUnsigned("closeSessionResult", rv);
}

bool ClsPkcs11::C_CloseSession(LogBase& log) {
    if (!invoke(log, entry::kCloseSession)) return false;
    dropSession(log);
    return true;
}

bool ClsPkcs11::C_Login(int userType, const char* pin, bool, LogBase& log) {
    if (!ready(log, entry::kLogin)) return false;
    PinArgument argument = pinArgument(pin, m_slotId, log);
    const auto rv = ask(log, entry::kLogin, static_cast<CK_USER_TYPE>(userType), argument.bytes(),
                        argument.size());
    if (!rv) return false;
    if (rv == CKR_USER_ALREADY_LOGGED_IN) {
        log.LogInfo("The user was logged in already; the PIN was not tried.");
    } else if (rv != CKR_OK) {
        return reportPinCall(entry::kLogin, *rv, m_slotId,
                             static_cast<CK_USER_TYPE>(userType) == CKU_SO, log);
    }
    if (static_cast<CK_USER_TYPE>(userType) == CKU_USER) m_userLoggedIn = true;
    if (static_cast<CK_USER_TYPE>(userType) == CKU_SO) m_soLoggedIn = true;
    // What can be seen on the token has changed: keys are read anew, and so are certificates at the
    // next selection. Those read so far stay countable until then.
    clearPrivateKeyCaches();
    m_certsLoaded = false;
    return true;
}

bool ClsPkcs11::C_Logout(LogBase& log) {
    const auto rv = ask(log, entry::kLogout);
    if (!rv) return false;
    if (rv == CKR_OK || rv == CKR_USER_NOT_LOGGED_IN) {
        const CK_SESSION_HANDLE session = m_hSession;
        dropSession(log);
        setSession(session);  // goes on under another number: links that need the login are void
    }
    return report(entry::kLogout, *rv, log);
}

}  // namespace mervane
