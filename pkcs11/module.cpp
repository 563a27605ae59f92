// The object: its construction and properties, loading the module, sessions and login, PIN and
// token administration, and queries. The module's own functions are called in calls/ alone.
//
// Loading tries the path as it was set and then its bare file name, which the dynamic loader looks
// up on its own search path. The second attempt asks for the file in the working directory first,
// as the first does for the full path: callers rely on a missing file being told without a dlopen.

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <utility>

#include "foundation/core/forkwatch.h"
#include "foundation/system/filesys.h"
#include "foundation/system/sharedobject.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"

namespace mervane {
namespace {

// Part of the file name of modules whose certificate handles double as private key handles.
constexpr std::string_view kCertHandleModule = "libkeyfactorpkcs11";

constexpr int kContextSpecific = 2;  // CKU_CONTEXT_SPECIFIC

// PINs and labels travel as C strings from here on; a NUL would cut them short.
bool areCStrings(Calls& calls, std::initializer_list<const XString*> texts, LogBase& log) {
    const auto hasNul = [](const XString* text) {
        return text->view().find('\0') != std::string_view::npos;
    };
    return std::ranges::none_of(texts, hasNul) ||
           calls.fail(log, FailureKind::Argument,
                      "A PIN or label with a NUL character in it is refused.");
}

// The module was found by its file name alone, and nothing stands at its path since.
bool isLoadedByBareName(const Pkcs11State& state) {
    StringBuffer bare(state.m_sharedLibPath.view());
    return state.m_libHandle != nullptr && bare.stripDirectory() &&
           bare.equals(state.m_loadedLibPath.view()) &&
           !FileSys::fileExistsUtf8(state.m_sharedLibPath.getUtf8(), nullptr, nullptr);
}

// Part of the summary of every method that needs the module: a path that was set since does not
// count until the next load.
void noteOtherModule(const Pkcs11State& state, LogBase& log) {
    StringBuffer bare(state.m_sharedLibPath.view());
    bare.stripDirectory();
    const std::string_view loaded = state.m_loadedLibPath.view();
    if (loaded.empty() || bare.isEmpty() || loaded == state.m_sharedLibPath.view() ||
        isLoadedByBareName(state))
        return;
    log.LogInfo("The module in use is " + std::string(loaded) + "; SharedLibPath names " +
                std::string(state.m_sharedLibPath.view()) + ", which is loaded by Discover.");
}

std::string whyMissing(const XString& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path.view(), error);
    const std::string name(path.view());
    if (std::filesystem::exists(status)) return name + " is no regular file.";
    if (status.type() == std::filesystem::file_type::not_found) return name + " does not exist.";
    return name + " cannot be looked at (" + error.message() + ").";
}

// A path that could not be loaded has taken the module away that was initialised.
bool isInUse(const Calls& calls) noexcept {
    return calls.state.m_initialized && calls.use.functions() != nullptr;
}

}  // namespace

ClsPkcs11::ClsPkcs11() : Pkcs11Wrappers(sessionAnchor()) {}

ClsPkcs11* ClsPkcs11::createNewCls() noexcept {
    try {
        return std::make_unique<ClsPkcs11>().release();
    } catch (const std::exception&) {
        return nullptr;
    }
}

ClsPkcs11::~ClsPkcs11() {
    LogNull log;
    {
        const CritSecExitor lock(*this);
        settleAfterFork(*this, *m_calls);
    }
    if (!m_calls->use.hasForked() && !processIsExiting()) m_calls->use.release(log);
    sessionAnchor()->setSession(0);  // unlinks what was handed out
    clearCertCache(log);
    // The library stays mapped: modules with threads or exit handlers are known to crash when they
    // are unloaded.
}

// --- Properties

// No log context. If there is no memory for the copy, the target keeps its value.
void ClsPkcs11::copyProperty(const XString& from, XString& to) {
    const CritSecExitor lock(*this);
    settleAfterFork(*this, *m_calls);
    LogNull log;
    m_isSettingProperty = true;
    guarded(log, [&] { to.copyFromX(from); });
    m_isSettingProperty = false;
}

void ClsPkcs11::get_SharedLibPath(XString& out) {
    copyProperty(m_sharedLibPath, out);
}
void ClsPkcs11::put_SharedLibPath(const XString& path) {
    copyProperty(path, m_sharedLibPath);
}
void ClsPkcs11::get_InitArgs(XString& out) {
    copyProperty(m_initArgs, out);
}
void ClsPkcs11::put_InitArgs(const XString& args) {
    copyProperty(args, m_initArgs);
}
void ClsPkcs11::get_SigContextPin(XString& out) {
    copyProperty(m_sigContextPin, out);
}
void ClsPkcs11::put_SigContextPin(const XString& pin) {
    const CritSecExitor lock(*this);
    copyProperty(pin, m_sigContextPin);
    m_contextPinWasRefused = false;
}

// --- Loading

bool ClsPkcs11::Initialize() {
    return publicCall(*this, *m_calls, "Initialize", Record::Yes, [this](LogBase& log) {
        if (!isInUse(*m_calls)) return C_Initialize(log);
        log.LogInfo("Already initialized.");
        noteOtherModule(*this, log);
        return true;
    });
}

Failure ClsPkcs11::lastFailure() {
    const CritSecExitor lock(*this);
    settleAfterFork(*this, *m_calls);
    return m_calls->failure;
}

int ClsPkcs11::get_NumLeftOut() {
    const CritSecExitor lock(*this);
    settleAfterFork(*this, *m_calls);
    return m_calls->numLeftOut;
}

bool ClsPkcs11::loadPkcs11Dll(bool bareFileName, LogBase& log) {
    const LogContextExitor context(log, "loadPkcs11Dll_nonWindows");
    StringBuffer path(m_sharedLibPath.view());
    if (bareFileName && path.stripDirectory()) log.LogDataSb("filename", path);
    if (m_libHandle != nullptr && path.equals(m_loadedLibPath.view())) return true;

    log.LogDataX("sharedLib", m_sharedLibPath);
    if (m_libHandle != nullptr) unload(log);
    if (path.isEmpty()) {
        return m_calls->fail(log, FailureKind::ModuleMissing,
                             "The SharedLibPath property is not yet set.");
    }
    // Silent, because a second attempt may follow.
    if (!FileSys::fileExistsUtf8(path.getString(), nullptr, nullptr)) return false;
    if (!open(path.view(), log)) return false;
    checkSetSpecial(log);
    return true;
}

void ClsPkcs11::unload(LogBase& log) {
    const CancellationPause pause;
    // Called from within the module, its code is still on the stack.
    const bool isRunning = m_calls->use.isInsideModule();
    m_calls->use.abandon(log);
    if (!isRunning) ::dlclose(m_libHandle);
    m_libHandle = nullptr;
    m_loadedLibPath.clear();
}

bool ClsPkcs11::open(std::string_view path, LogBase& log) {
    const CancellationPause pause;
    XString loadedPath(path);
    const auto misfit = whyNotLoadable(loadedPath.getUtf8());
    std::string reason = misfit.value_or("");
    if (!misfit) {
        m_libHandle = ::dlopen(loadedPath.getUtf8(), RTLD_NOW);
        const char* const said = m_libHandle == nullptr ? ::dlerror() : nullptr;
        if (said != nullptr) reason = said;
    }
    if (m_libHandle == nullptr) {
        m_calls->noteFailure(FailureKind::ModuleNotLoadable,
                             std::string(path) + (misfit ? " is no shared library (" + reason + ")."
                                                         : " cannot be loaded: " + reason + "."));
        m_calls->fail(log, FailureKind::ModuleNotLoadable, "Failed to load PKCS11 shared library.");
        log.LogData("dlerror", reason);
        return false;
    }
    m_loadedLibPath.swap(loadedPath);
    return true;
}

bool ClsPkcs11::loadPkcs11Dll_2(LogBase& log) {
    const bool isLoaded =
        isLoadedByBareName(*this) || loadPkcs11Dll(false, log) || loadPkcs11Dll(true, log);
    if (!isLoaded) m_calls->noteFailure(FailureKind::ModuleMissing, whyMissing(m_sharedLibPath));
    return isLoaded && getPkcs11Functions(log);
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

void ClsPkcs11::checkSetSpecial(LogBase& log) {
    m_certHandleIsKeyHandle =
        m_loadedLibPath.view().find(kCertHandleModule) != std::string_view::npos;
    if (m_certHandleIsKeyHandle) {
        log.LogInfo("Will use the certificate handle as the private key handle...");
    }
}

// --- Discovery

bool ClsPkcs11::Discover(bool onlyTokensPresent, ClsJsonObject& json) {
    return publicCall(*this, *m_calls, "Discover", Record::Yes,
                      [&](LogBase& log) { return discover(onlyTokensPresent, json, log); });
}

bool ClsPkcs11::discover(bool onlyTokensPresent, ClsJsonObject& json, LogBase& log) {
    const LogContextExitor context(log, "discover");
    const auto failed = [&](std::string_view sentence) {
        return m_calls->fail(log, FailureKind::ModuleFailed, sentence);
    };
    json.clear(log);
    if (m_sharedLibPath.isEmpty()) {
        return m_calls->fail(log, FailureKind::ModuleMissing,
                             "The SharedLibPath has not yet been set.");
    }
    log.LogDataX("sharedLibPath", m_sharedLibPath);
    if (!loadPkcs11Dll_2(log)) return failed("Failed to load the PKCS11 shared library.");
    if (!m_initialized && !C_Initialize(log)) return failed("Failed to Initialize");
    // The caller's document is filled at the end: a module may call back into the object.
    ClsJsonObject report;
    if (!getCryptokiInfo(report, log)) return failed("Failed to GetInfo");
    const bool skipMechanisms = log.hasOption("Pkcs11DiscoverSkipMechanisms");
    const bool hasSlots = getSlotsInfo(onlyTokensPresent, false, skipMechanisms, report, log);
    json.root() = std::move(report.root());
    return hasSlots || failed("Failed to GetSlotsInfo");
}

// --- Sessions and login

bool ClsPkcs11::OpenSession(int slotId, bool readWrite) {
    return publicCall(*this, *m_calls, "OpenSession", Record::Yes,
                      [&](LogBase& log) { return openSession(slotId, readWrite, log); });
}

bool ClsPkcs11::openSession(int slotId, bool readWrite, LogBase& log) {
    const CritSecExitor lock(*this);
    settleAfterFork(*this, *m_calls);
    const LogContextExitor context(log, "openSession");
    noteOtherModule(*this, log);
    m_calls->use.dropAfterFork(log);
    unsigned int count = 100;
    const auto slotIds = std::make_unique<std::array<unsigned long, 100>>();
    if (!getSlotIdsWithTokenPresent(slotIds->data(), count, log))
        return m_calls->fail(log, FailureKind::ModuleFailed, "Failed to get slot IDs");
    if (count == 0) {
        log.LogInfo("No slot holds a token.");
        m_calls->noteFailure(FailureKind::NoToken, "No slot holds a token.");
        m_calls->hint(log, operation::kNoTokenHint);
    }
    const std::span<const unsigned long> present(slotIds->data(), count);
    const auto open = [&](unsigned long id) {
        if (!C_OpenSession(id, false, readWrite, log)) return false;
        m_slotId = id;
        return true;
    };
    if (slotId == -1) return std::ranges::any_of(present, open);

    log.LogDataLong("desiredSlotId", slotId);
    // The argument carries IDs above 31 bits as the int with the same bits. If no slot has that
    // 32-bit ID, the sign-extended 64-bit one is meant.
    auto wanted = std::ranges::find(present, static_cast<unsigned int>(slotId));
    if (wanted == present.end())
        wanted = std::ranges::find(present, static_cast<unsigned long>(slotId));
    if (wanted == present.end())
        return m_calls->fail(log, FailureKind::NoToken, "Did not find desired slot ID.");
    return open(*wanted);
}

bool ClsPkcs11::ListTokens(std::vector<TokenInfo>& tokens) {
    return publicCall(*this, *m_calls, "ListTokens", Record::Yes, [&](LogBase& log) {
        std::vector<TokenInfo> found;
        if (!beInUse(log) || !operation::readTokens(*m_calls, std::nullopt, found, log))
            return false;
        tokens.swap(found);
        return true;
    });
}

bool ClsPkcs11::OpenToken(const TokenChoice& choice, bool readWrite) {
    return publicCall(*this, *m_calls, "OpenToken", Record::Yes, [&](LogBase& log) {
        TokenInfo token;
        if (!beInUse(log) || !operation::chooseToken(*m_calls, choice, token, log)) return false;
        log.LogDataUnsigned("slotId", token.slotId);
        log.LogData("label", token.label);
        log.LogData("serialNumber", token.serialNumber);
        if (!C_OpenSession(token.slotId, false, readWrite, log)) return false;
        m_slotId = token.slotId;
        // A session belongs to one token. Where that is another than the one described, no PIN is
        // to reach it.
        if (!operation::isStillThere(*m_calls, token, log)) {
            C_CloseSession(log);
            return false;
        }
        m_token = std::move(token);
        m_tokenSession = m_calls->use.session();
        return true;
    });
}

bool ClsPkcs11::GetToken(TokenInfo& token) {
    return publicCall(*this, *m_calls, "GetToken", Record::Yes, [&](LogBase& log) {
        if (!hasOpenSession()) return noSession(log);
        if (m_tokenSession != m_calls->use.session()) {
            std::vector<TokenInfo> tokens;
            if (!operation::readTokens(*m_calls, m_slotId, tokens, log)) return false;
            if (tokens.empty() || !tokens.front().isReadable)
                return m_calls->fail(log, FailureKind::ModuleFailed, "The token cannot be read.");
            m_token = std::move(tokens.front());
            m_tokenSession = m_calls->use.session();
        }
        token = m_token;
        return true;
    });
}

// Initialises the module unless that is done already.
bool ClsPkcs11::beInUse(LogBase& log) {
    if (isInUse(*m_calls)) {
        noteOtherModule(*this, log);
        return true;
    }
    return C_Initialize(log) ||
           m_calls->fail(log, FailureKind::ModuleFailed, "Failed to initialize");
}

bool ClsPkcs11::CloseSession() {
    return publicCall(*this, *m_calls, "CloseSession", Record::No,
                      [this](LogBase& log) { return C_CloseSession(log); });
}

bool ClsPkcs11::QuickSession(int userType, const XString& pin) {
    // Only a success is recorded.
    return publicCall(*this, *m_calls, "QuickSession", Record::No, [&](LogBase& log) {
        const auto failed = [&](std::string_view sentence) {
            return m_calls->fail(log, FailureKind::ModuleFailed, sentence);
        };
        if (!isInUse(*m_calls) && !C_Initialize(log)) return failed("Failed to initialize");
        if (!areCStrings(*m_calls, {&pin}, log)) return false;
        if (!openSession(-1, true, log)) return failed("Failed to open session.");
        if (pin.isEmpty()) {
            log.LogInfo("PIN is empty, not logging in.");
        } else if (!C_Login(userType, pin.getUtf8(), false, log)) {
            return failed("Failed to login.");
        }
        logSuccessFailure(true);
        return true;
    });
}

bool ClsPkcs11::Login(int userType, const XString& pin) {
    // Only the branch that keeps the PIN records its outcome.
    return publicCall(*this, *m_calls, "Login", Record::No, [&](LogBase& log) {
        if (userType != kContextSpecific) {
            return m_calls->ready(log, function::kLogin) && areCStrings(*m_calls, {&pin}, log) &&
                   C_Login(userType, pin.getUtf8(), false, log);
        }
        setContextSpecificPin(pin, log);
        logSuccessFailure2(true, log);
        return true;
    });
}

bool ClsPkcs11::login(int userType, const char* pin, LogBase& log) {
    const CritSecExitor lock(*this);
    settleAfterFork(*this, *m_calls);
    const LogContextExitor context(log, "Login");
    m_calls->use.dropAfterFork(log);
    return C_Login(userType, pin, false, log);
}

void ClsPkcs11::setContextSpecificPin(const XString& pin, LogBase& log) {
    m_sigContextPin.copyFromX(pin);
    m_contextPinWasRefused = false;
    log.LogInfo("This is a context-specific PIN, so we're not actually logging in right now...");
    log.LogInfo(
        "The context-specific PIN is saved for the time when each signing operation occurs.");
    log.LogInfo("At that point, the PIN is used within the context of signing.");
}

bool ClsPkcs11::Logout() {
    return publicCall(*this, *m_calls, "Logout", Record::No,
                      [this](LogBase& log) { return C_Logout(log); });
}

bool ClsPkcs11::alreadyLoggedIn(int userType, LogBase&) const noexcept {
    if (!hasOpenSession()) return false;
    if (userType == 0) return m_soLoggedIn;
    return (userType < 0 || userType == 1) && m_userLoggedIn;
}

// --- Administration and queries

bool ClsPkcs11::SetPin(const XString& oldPin, const XString& newPin) {
    return publicCall(*this, *m_calls, "SetPin", Record::Yes, [&](LogBase& log) {
        return m_calls->ready(log, function::kSetPin) &&
               areCStrings(*m_calls, {&oldPin, &newPin}, log) &&
               C_SetPIN(oldPin.getUtf8(), newPin.getUtf8(), log);
    });
}

bool ClsPkcs11::InitPin(const XString& pin) {
    return publicCall(*this, *m_calls, "InitPin", Record::Yes, [&](LogBase& log) {
        return m_calls->ready(log, function::kInitPin) && areCStrings(*m_calls, {&pin}, log) &&
               C_InitPIN(pin.getUtf8(), log);
    });
}

bool ClsPkcs11::InitToken(int slotId, const XString& soPin, const XString& label) {
    // Logs the context of FindCert; log readers know token initialisations by that name.
    return publicCall(*this, *m_calls, "FindCert_pkcs11", Record::Yes, [&](LogBase& log) {
        // -1 does not mean "any slot" here: a negative number is a 32-bit ID like any other.
        const auto id = static_cast<unsigned long>(static_cast<unsigned int>(slotId));
        return m_calls->ready(log, function::kInitToken) &&
               areCStrings(*m_calls, {&soPin, &label}, log) &&
               C_InitToken(id, soPin.getUtf8(), label.getUtf8(), log);
    });
}

int ClsPkcs11::FindObject(ClsJsonObject& json) {
    return publicCall(*this, *m_calls, "FindObject", Record::No,
                      [&](LogBase& log) { return findObject(json, log); });
}

bool ClsPkcs11::CountObjects(int& count) {
    return publicCall(*this, *m_calls, "CountObjects", Record::Yes,
                      [&](LogBase& log) { return operation::countObjects(*m_calls, count, log); });
}

bool ClsPkcs11::FindAllKeys(const XString& selector, ClsJsonObject& json) {
    return publicCall(*this, *m_calls, "FindAllKeys", Record::Yes, [&](LogBase& log) {
        json.clear(log);
        return findAllKeys(selector, json, log);
    });
}

}  // namespace mervane
