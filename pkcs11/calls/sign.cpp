// One signature.
//
// The mechanism that needs least of the token comes first: the digest is made here, and the token
// does nothing but the key's own operation (CKM_RSA_PKCS, CKM_RSA_PKCS_PSS, CKM_ECDSA). Only where
// the token refuses that one, the mechanism that hashes as well is tried, and given the data. What
// was refused is remembered for the key. So a signature takes two calls, C_SignInit and C_Sign, and
// a third, C_Login, where the key wants its PIN each time (CKA_ALWAYS_AUTHENTICATE): between the
// two, and as the last call before C_Sign, since some tokens forget it at the next call.
//
// Tokens differ from the standard in these ways:
//
//     a key wants its PIN and does not say so    CKR_USER_NOT_LOGGED_IN from C_Sign or C_SignInit
//                                                although the user is logged in: once more, with it
//     the login at a signature is not known      it is refused with a code that is not about the
//                                                PIN: the signature is made without it
//     an operation is left active                C_SignInit answers CKR_OPERATION_ACTIVE
//
// An operation that was begun and cannot be finished is got rid of by closing its session, with
// another one open, so that the login stays; nothing else works with all modules.

#include "pkcs11/calls/sign.h"

#include <algorithm>
#include <array>

#include "foundation/digest/digest.h"
#include "pkcs11/calls/names.h"
#include "pkcs11/calls/pin.h"
#include "signing/algorithm.h"

namespace mervane {
namespace {

// Room for the signature of the largest RSA key. It is offered at once: some modules answer the
// question for the length with one that means nothing.
constexpr std::size_t kRoom = 2048;

struct Mechanism {
    CK_MECHANISM_TYPE type;
    bool isHashing;
};

// In the order in which they are tried.
std::array<Mechanism, 2> mechanismsFor(const Scheme& scheme) noexcept {
    const auto hash = static_cast<CK_MECHANISM_TYPE>(scheme.hash);  // the hashing ones are in a row
    if (scheme.keyType == kEcKey) return {{{CKM_ECDSA, false}, {CKM_ECDSA_SHA256 + hash, true}}};
    if (scheme.isPss) return {{{CKM_RSA_PKCS_PSS, false}, {CKM_SHA256_RSA_PKCS_PSS + hash, true}}};
    return {{{CKM_RSA_PKCS, false}, {CKM_SHA256_RSA_PKCS + hash, true}}};
}

CK_RSA_PKCS_PSS_PARAMS pssParameters(Hash hash) noexcept {
    constexpr std::array kHashes = {CKM_SHA256, CKM_SHA384, CKM_SHA512};
    const auto number = static_cast<std::size_t>(hash);
    return {kHashes[number], CKG_MGF1_SHA256 + number, digestSize(hash)};
}

bool isRefusal(CK_RV rv) noexcept {
    return rv == CKR_MECHANISM_INVALID || rv == CKR_MECHANISM_PARAM_INVALID;
}

class Signing {
  public:
    Signing(Calls& calls, const Scheme& scheme, bool wantsPin, KeyNotes& notes, SignInput& input,
            LogBase& log)
        : m_calls(calls),
          m_scheme(scheme),
          m_notes(notes),
          m_input(input),
          m_log(log),
          m_pinTime(wantsPin ? std::max(notes.pinTime, PinTime::AfterInit) : notes.pinTime),
          m_session(calls.use.session()) {}

    bool run(std::vector<std::uint8_t>& signature) {
        if (!m_calls.ready(m_log, function::kSignInit, function::kSign)) return false;
        for (;;) {
            if (m_pinTime != PinTime::Never && !hasPin()) return false;
            if (!begin() || (m_pinTime == PinTime::AfterInit && !logIn())) return false;
            const auto rv = finish(signature);
            if (!rv) return false;
            if (*rv == CKR_OK) return true;
            if (isRefusal(*rv) && !m_mechanism.isHashing && m_input.hasData()) {
                noteRefusal(*rv);  // late, but it is one
                continue;
            }
            const bool mayNeedPin = m_pinTime == PinTime::Never && mightHelp(*rv) &&
                                    (m_input.hasData() || !m_mechanism.isHashing);
            if (!mayNeedPin) return reportFailure(function::kSign, *rv);
            m_pinTime = m_notes.pinTime = PinTime::AfterInit;
        }
    }

  private:
    // A module may call back into the object, which has another session then.
    template <class Function, class... Args>
    std::optional<CK_RV> ask(const Function& function, Args... args) {
        if (m_calls.use.session() == m_session) return m_calls.ask(m_log, function, args...);
        if (m_calls.hasOpenSession()) {
            m_calls.sessionChanged(m_log);
        } else {
            m_calls.noSession(m_log);
        }
        return std::nullopt;
    }

    // --- Beginning

    std::optional<CK_RV> callInit(const Mechanism& mechanism) {
        CK_RSA_PKCS_PSS_PARAMS parameters = pssParameters(m_scheme.hash);
        CK_MECHANISM argument{mechanism.type, nullptr, 0};
        if (m_scheme.isPss) argument = {mechanism.type, &parameters, sizeof parameters};
        return ask(function::kSignInit, &argument, m_notes.key);
    }

    // What is left active by somebody else is cleared away once.
    std::optional<CK_RV> initialise(const Mechanism& mechanism) {
        const auto rv = callInit(mechanism);
        if (rv != CKR_OPERATION_ACTIVE || !discard()) return rv;
        return callInit(mechanism);
    }

    [[nodiscard]] bool isPossible(const Mechanism& mechanism) const {
        return (!mechanism.isHashing || m_input.hasData()) &&
               std::ranges::find(m_notes.refused, mechanism.type) == m_notes.refused.end();
    }

    bool begin() {
        std::optional<CK_RV> rv = CKR_MECHANISM_INVALID;  // all were refused before
        for (const Mechanism& mechanism : mechanismsFor(m_scheme)) {
            m_mechanism = mechanism;
            if (!isPossible(mechanism)) continue;
            rv = initialiseWithPin(mechanism);
            if (!rv) return false;
            if (!isRefusal(*rv)) break;
            noteRefusal(*rv);
        }
        return *rv == CKR_OK || reportFailure(function::kSignInit, *rv);
    }

    void noteRefusal(CK_RV rv) {
        m_log.LogInfo(mechanismName(m_mechanism.type) + " was refused with " + rvName(rv) + ".");
        m_notes.refused.push_back(m_mechanism.type);
    }

    std::optional<CK_RV> initialiseWithPin(const Mechanism& mechanism) {
        if (m_pinTime == PinTime::BeforeInit && !logIn()) return std::nullopt;
        const auto rv = initialise(mechanism);
        if (!rv || m_pinTime == PinTime::BeforeInit || !mightHelp(*rv)) return rv;
        m_pinTime = m_notes.pinTime = PinTime::BeforeInit;
        if (!hasPin() || !logIn()) return std::nullopt;
        return initialise(mechanism);
    }

    // --- The PIN at each signature

    // A key that does not say that it wants its PIN may want it all the same.
    [[nodiscard]] bool mightHelp(CK_RV rv) const {
        return rv == CKR_USER_NOT_LOGGED_IN && m_calls.state.m_userLoggedIn &&
               !m_calls.state.m_sigContextPin.isEmpty();
    }

    // Made before the signature is begun, since it may ask for the token's flags.
    bool hasPin() {
        Pkcs11State& state = m_calls.state;
        if (state.m_contextPinWasRefused) {
            m_calls.fail(m_log, FailureKind::PinWrong,
                         "The PIN for signatures was refused before, and is not tried again.");
            m_calls.hint(m_log, "Set another one (SigContextPin).");
            return false;
        }
        m_pin.emplace(m_calls, state.m_sigContextPin.getUtf8(), state.m_slotId, m_log);
        if (m_pin->bytes() == nullptr || m_pin->size() != 0) return true;
        m_calls.fail(m_log, FailureKind::PinMissing,
                     "The key asks for its PIN at each signature, and none is known.");
        m_calls.hint(m_log, "Set it first (SigContextPin).");
        return false;
    }

    bool logIn() {
        const CK_USER_TYPE user = CKU_CONTEXT_SPECIFIC;
        const auto rv = ask(function::kLogin, user, m_pin->bytes(), m_pin->size());
        if (!rv) return false;
        if (*rv == CKR_OK || *rv == CKR_USER_ALREADY_LOGGED_IN) return true;
        if (*rv == CKR_OPERATION_NOT_INITIALIZED || *rv == CKR_USER_TYPE_INVALID ||
            *rv == CKR_FUNCTION_NOT_SUPPORTED) {
            m_log.LogInfo("The token knows no login at a signature (" + rvName(*rv) + ").");
            return true;
        }
        Pkcs11State& state = m_calls.state;
        // Whatever the token says of it: trying it again might lock it.
        state.m_contextPinWasRefused = !endsSession(*rv);
        reportPinCall(m_calls, function::kLogin, *rv, state.m_slotId, false, m_log);
        if (discard()) noteLogout();
        return false;
    }

    // Some modules log the user out with a PIN that was wrong.
    void noteLogout() {
        CK_SESSION_INFO info{};
        Pkcs11State& state = m_calls.state;
        if (m_calls.use.functions()->C_GetSessionInfo == nullptr ||
            m_calls.attempt(m_log, function::kGetSessionInfo, &info) != CKR_OK ||
            info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS)
            return;
        state.m_userLoggedIn = false;
        state.clearPrivateKeyCaches();
        m_calls.hint(m_log, "The module has logged the user out.");
    }

    // --- Finishing

    std::optional<CK_RV> finish(std::vector<std::uint8_t>& signature) {
        signature.assign(kRoom, 0);
        CK_ULONG size = kRoom;
        const auto rv =
            m_mechanism.isHashing ? signData(signature, size) : signDigest(signature, size);
        const bool isWhole = rv == CKR_OK && size <= kRoom;
        signature.resize(isWhole ? size : 0);
        if (rv == CKR_BUFFER_TOO_SMALL) discard();  // the one failure that leaves it active
        if (rv != CKR_OK || isWhole) return rv;
        m_calls.fail(m_log, FailureKind::ModuleFailed,
                     "The module gave a signature that is longer than the room for it.");
        return std::nullopt;
    }

    std::optional<CK_RV> cannotRead() {
        m_calls.fail(m_log, FailureKind::Argument, "The data to sign cannot be read.");
        discard();
        return std::nullopt;
    }

    std::optional<CK_RV> signDigest(std::vector<std::uint8_t>& room, CK_ULONG& size) {
        const auto digest = m_input.digest(m_scheme.hash);
        if (!digest) return cannotRead();
        der::Octets data(digest->begin(), digest->end());
        if (m_scheme.keyType == kEcKey) {
            // Modules should take the leftmost bits, as many as the order has; not all do.
            data.resize(std::min(data.size(), m_scheme.signatureSize / 2));
        } else if (!m_scheme.isPss) {
            data = digestInfo(m_scheme.hash, *digest);
        }
        return ask(function::kSign, data.data(), static_cast<CK_ULONG>(data.size()), room.data(),
                   &size);
    }

    std::optional<CK_RV> signData(std::vector<std::uint8_t>& room, CK_ULONG& size) {
        const auto& data = m_input.data();
        if (data && data->size() <= SignInput::kPieceSize) {
            // C_Sign takes non-const pointers but only reads; not all modules take a null one.
            CK_BYTE none = 0;
            auto* const bytes = data->empty() ? &none : const_cast<CK_BYTE*>(data->data());
            return ask(function::kSign, bytes, static_cast<CK_ULONG>(data->size()), room.data(),
                       &size);
        }
        if (!m_calls.ready(m_log, function::kSignUpdate, function::kSignFinal)) {
            discard();
            return std::nullopt;
        }
        std::optional<CK_RV> rv = CKR_OK;
        const bool isPassed = m_input.pass(m_scheme.hash, [&](der::Bytes piece) {
            rv = ask(function::kSignUpdate, const_cast<CK_BYTE*>(piece.data()),
                     static_cast<CK_ULONG>(piece.size()));
            return rv == CKR_OK;
        });
        if (!rv || *rv != CKR_OK) return rv;
        if (!isPassed) return cannotRead();
        return ask(function::kSignFinal, room.data(), &size);
    }

    // --- After a failure

    // Gets rid of an operation that was begun.
    bool discard() {
        if (!m_calls.hasOpenSession() || m_calls.use.session() != m_session) return false;
        const Pkcs11State& state = m_calls.state;
        const CK_FLAGS flags =
            CKF_SERIAL_SESSION | (state.m_sessionIsReadWrite ? CKF_RW_SESSION : 0);
        CK_SESSION_HANDLE session = 0;
        const auto rv = ask(function::kOpenSession, state.m_slotId, flags,
                            static_cast<void*>(nullptr), static_cast<CK_NOTIFY>(nullptr), &session);
        if (rv == CKR_OK && session != 0 && m_calls.use.session() == m_session) {
            m_calls.use.exchangeSession(session, m_log);
            return true;
        }
        m_log.LogInfo("The unfinished signature could not be cleared away: the session is closed.");
        m_calls.attempt(m_log, function::kCloseSession);
        if (m_calls.hasOpenSession()) m_calls.use.dropSession(m_log);
        return false;
    }

    template <Needs N, class Signature>
    bool reportFailure(const ModuleFunction<N, Signature>& function, CK_RV rv) {
        // Two codes for one thing.
        const bool mayNotSign = rv == CKR_KEY_FUNCTION_NOT_PERMITTED ||
                                (rv == CKR_KEY_TYPE_INCONSISTENT && isKeyOfScheme());
        m_calls.report(function, rv, m_log);
        if (mayNotSign) {
            m_calls.failure.kind = FailureKind::KeyMayNotSign;
            m_calls.hint(m_log, "The private key may not sign: the token does not permit it.");
        } else if (m_calls.hasOpenSession() && rv != CKR_USER_NOT_LOGGED_IN) {
            explain();
        }
        return false;
    }

    [[nodiscard]] bool isKeyOfScheme() const {
        return keyKindOf(m_notes.verifier->cert()->spki()).type == m_scheme.keyType;
    }

    // What the mechanism's description tells of the failure.
    void explain() {
        CK_MECHANISM_INFO info{};
        const std::string name = mechanismName(m_mechanism.type);
        const auto rv = m_calls.attempt(m_log, function::kGetMechanismInfo, m_calls.state.m_slotId,
                                        m_mechanism.type, &info);
        if (rv == CKR_MECHANISM_INVALID)
            m_calls.hint(m_log, "The token does not offer " + name + ".");
        if (rv != CKR_OK) return;
        const auto bits = static_cast<CK_ULONG>(keyKindOf(m_notes.verifier->cert()->spki()).bits);
        const bool isInRange = info.ulMinKeySize <= bits && bits <= info.ulMaxKeySize;
        if (isInRange || info.ulMinKeySize > info.ulMaxKeySize) return;
        m_calls.hint(m_log, name + " takes " + std::to_string(info.ulMinKeySize) + " to " +
                                std::to_string(info.ulMaxKeySize) + " bits, this key has " +
                                std::to_string(bits) + ".");
    }

    Calls& m_calls;
    const Scheme& m_scheme;
    KeyNotes& m_notes;
    SignInput& m_input;
    LogBase& m_log;
    PinTime m_pinTime;
    std::uint64_t m_session;
    Mechanism m_mechanism{};  // of the operation that runs, or was tried last
    std::optional<PinArgument> m_pin;
};

}  // namespace

std::optional<der::Bytes> SignInput::digest(Hash hash) {
    if (m_digest.empty() && !pass(hash, [](der::Bytes) { return true; })) return std::nullopt;
    return m_digest;
}

bool sign(Calls& calls, const Scheme& scheme, bool wantsPin, KeyNotes& notes, SignInput& input,
          std::vector<std::uint8_t>& signature, LogBase& log) {
    return Signing(calls, scheme, wantsPin, notes, input, log).run(signature);
}

}  // namespace mervane
