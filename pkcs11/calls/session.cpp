// The function table, initialisation, slots, sessions and login.

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>

#include "pkcs11/calls/ledger.h"
#include "pkcs11/calls/lists.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/calls/pin.h"

namespace mervane::operation {
namespace {

using GetFunctionList = CK_RV (*)(CK_FUNCTION_LIST**);

// NSS's modules take the reserved pointer for one to their text, and look for a null behind it.
struct InitializeArgs {
    CK_C_INITIALIZE_ARGS args = {nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
    void* behind = nullptr;
};

// Modules keep the pointer, so the arguments must outlive them: one for each text, for good.
struct KeptArguments {
    std::string text;
    InitializeArgs arguments;
    KeptArguments* next = nullptr;
};
constinit InitializeArgs plainArguments;
constinit std::atomic<KeptArguments*> keptArguments{nullptr};

void* argumentsFor(std::string_view text) {
    if (text.empty()) return &plainArguments;
    KeptArguments* const first = keptArguments.load(std::memory_order_acquire);
    for (KeptArguments* kept = first; kept != nullptr; kept = kept->next) {
        if (kept->text == text) return &kept->arguments;
    }
    auto kept = std::make_unique<KeptArguments>();
    kept->text = text;
    kept->arguments.args.pReserved = kept->text.data();
    kept->next = first;
    while (!keptArguments.compare_exchange_weak(kept->next, kept.get())) {
    }
    return &kept.release()->arguments;
}

constexpr std::string_view kNoArgumentsHint =
    "The module may need initialisation arguments of its own (InitArgs, --init-args), as NSS's do: "
    "configdir='sql:FOLDER'.";
constexpr std::string_view kArgumentsHint = "The module refuses these initialisation arguments.";

// More slots than any machine has; bounds what a module can make us allocate.
constexpr CK_ULONG kMaxSlots = 65536;

std::optional<CK_RV> tryToOpen(Calls& calls, CK_SLOT_ID slotId, bool readWrite,
                               CK_SESSION_HANDLE& session, LogBase& log) {
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
    session = 0;
    return calls.ask(log, function::kOpenSession, slotId, flags, static_cast<void*>(nullptr),
                     static_cast<CK_NOTIFY>(nullptr), &session);
}

}  // namespace

bool getFunctions(Calls& calls, LogBase& log) {
    if (calls.use.functions() != nullptr) return true;
    // POSIX guarantees that dlsym's void* converts to a function pointer.
    const auto getList =
        reinterpret_cast<GetFunctionList>(::dlsym(calls.state.m_libHandle, "C_GetFunctionList"));
    if (getList == nullptr) return calls.noFunc("C_GetFunctionList", log);
    CK_FUNCTION_LIST* list = nullptr;
    const CK_RV rv = [&] {
        const ModuleUse::Inside inside(calls.use);
        return callModule(log, getList, &list);
    }();
    if (rv != CKR_OK) return calls.reportCode("C_GetFunctionList", Needs::Table, rv, log);
    if (list == nullptr || (list->version.major != 2 && list->version.major != 3)) {
        calls.fail(log, FailureKind::NotAModule,
                   list == nullptr
                       ? "C_GetFunctionList gave no function list."
                       : "The function list is not of a PKCS#11 version 2 or 3 module.");
        log.LogDataX("sharedLibPath", calls.state.m_loadedLibPath);
        return false;
    }
    calls.use.adopt(list, log);
    return true;
}

bool initialise(Calls& calls, LogBase& log) {
    const ledger::Turn turn(calls.state.m_libHandle);
    const std::string_view text = calls.state.m_initArgs.view();
    auto rv = calls.ask(log, function::kInitialize, argumentsFor(text));
    const bool isRefused =
        rv == CKR_CANT_LOCK || rv == CKR_NEED_TO_CREATE_THREADS || rv == CKR_ARGUMENTS_BAD;
    if (isRefused && text.empty()) {
        // Some modules accept no arguments; the object's critical section serialises its calls.
        rv = calls.ask(log, function::kInitialize, static_cast<void*>(nullptr));
    }
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        if (rv) calls.report(function::kInitialize, *rv, log);
        if (rv == CKR_ARGUMENTS_BAD)
            calls.hint(log, text.empty() ? kNoArgumentsHint : kArgumentsHint);
        return false;
    }
    if (rv != CKR_OK)
        log.LogInfo("The module was initialised already, by another user in this process.");
    calls.use.initialised(rv == CKR_OK);
    return true;
}

bool getSlotsWithToken(Calls& calls, CK_SLOT_ID* slotIds, unsigned int& count, LogBase& log) {
    // Modules may look for readers that were plugged in since only when asked with a null buffer.
    CK_ULONG numSlots = 0;
    if (!calls.invoke(log, function::kGetSlotList, CK_TRUE, static_cast<CK_SLOT_ID*>(nullptr),
                      &numSlots)) {
        return false;
    }
    const std::span<CK_SLOT_ID> room(slotIds, count);
    std::ranges::fill(room, CK_UNAVAILABLE_INFORMATION);
    numSlots = count;
    const auto rv = calls.ask(log, function::kGetSlotList, CK_TRUE, slotIds, &numSlots);
    if (rv == CKR_OK) {
        count = static_cast<unsigned int>(numWritten(room, numSlots));
        return true;
    }
    if (rv != CKR_BUFFER_TOO_SMALL) return rv && calls.report(function::kGetSlotList, *rv, log);

    // The standard fills nothing if the room is too small, so all are fetched.
    std::vector<CK_SLOT_ID> all;
    if (!getSlots(calls, true, all, log)) return false;
    count = static_cast<unsigned int>(std::min<std::size_t>(all.size(), count));
    std::copy_n(all.begin(), count, slotIds);
    if (all.size() > count) {
        log.LogInfo(
            "The module has more slots with a token than are looked at; the first ones count.");
        log.LogDataUnsigned("numSlots", all.size());
    }
    return true;
}

bool getSlots(Calls& calls, bool onlyTokensPresent, std::vector<CK_SLOT_ID>& slots, LogBase& log) {
    return fetchList(calls, function::kGetSlotList, kMaxSlots, slots, log,
                     onlyTokensPresent ? CK_TRUE : CK_FALSE);
}

bool openSession(Calls& calls, CK_SLOT_ID slotId, bool readWrite, LogBase& log) {
    // Never open a session that cannot be closed.
    const CK_FUNCTION_LIST* const functions = calls.use.functions();
    if (functions != nullptr && functions->C_CloseSession == nullptr)
        return calls.noFunc(function::kCloseSession.name, log);
    CK_SESSION_HANDLE session = 0;
    auto rv = tryToOpen(calls, slotId, readWrite, session, log);
    if (rv == CKR_SESSION_COUNT && calls.hasOpenSession() && slotId == calls.state.m_slotId) {
        log.LogInfo("The token takes no second session: the open one is closed first.");
        if (!closeSession(calls, log)) return false;
        rv = tryToOpen(calls, slotId, readWrite, session, log);
    }
    if (!rv || !calls.report(function::kOpenSession, *rv, log)) {
        calls.concerns(slotId);
        log.LogDataUnsigned("slotId", slotId);
        return false;
    }
    if (calls.use.functions() != functions) {
        // The module called back, and another one has taken its place.
        callModule(log, functions->C_CloseSession, session);
        return calls.sessionChanged(log);
    }
    if (session == 0)
        return calls.fail(log, FailureKind::ModuleFailed, "C_OpenSession gave no session handle.");
    calls.state.m_sessionIsReadWrite = readWrite;
    if (calls.hasOpenSession()) {
        calls.use.replaceSession(session, slotId == calls.state.m_slotId, log);
    } else {
        calls.use.beginSession(session);
    }
    return true;
}

bool closeSession(Calls& calls, LogBase& log) {
    if (!calls.invoke(log, function::kCloseSession)) return false;
    calls.use.dropSession(log);
    return true;
}

bool login(Calls& calls, int userType, const char* pin, LogBase& log) {
    if (!calls.ready(log, function::kLogin)) return false;
    Pkcs11State& state = calls.state;
    const auto user = static_cast<CK_USER_TYPE>(userType);
    PinArgument argument(calls, pin, state.m_slotId, log);
    const auto rv = calls.ask(log, function::kLogin, user, argument.bytes(), argument.size());
    if (!rv) return false;
    if (rv == CKR_USER_ALREADY_LOGGED_IN) {
        log.LogInfo("The user was logged in already; the PIN was not tried.");
    } else if (rv != CKR_OK) {
        return reportPinCall(calls, function::kLogin, *rv, state.m_slotId, user == CKU_SO, log);
    }
    // A login at a signature changes nothing that can be seen.
    if (user == CKU_CONTEXT_SPECIFIC) return true;
    if (user == CKU_USER) state.m_userLoggedIn = true;
    if (user == CKU_SO) state.m_soLoggedIn = true;
    // More of the token is visible now: keys are read again, and certificates at the next
    // selection. Those read so far stay countable until then.
    state.clearPrivateKeyCaches();
    state.m_certsLoaded = false;
    return true;
}

bool logout(Calls& calls, LogBase& log) {
    const auto rv = calls.ask(log, function::kLogout);
    if (!rv) return false;
    if (rv == CKR_OK || rv == CKR_USER_NOT_LOGGED_IN) calls.use.restartSession(log);
    return calls.report(function::kLogout, *rv, log);
}

}  // namespace mervane::operation
