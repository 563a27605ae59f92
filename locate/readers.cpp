// Card readers through PC/SC. The library's functions are looked up at run time, so that ours does
// not depend on it: a machine without readers has no use for it.
//
// Declared here is what is used of the interface of PC/SC Lite, as its headers define it on Linux.

#include "locate/readers.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "foundation/core/guarded.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "pkcs11/calls/guard.h"

namespace mervane {
namespace {

using Context = long;         // SCARDCONTEXT
using Dword = unsigned long;  // DWORD
using Result = long;          // LONG

constexpr std::size_t kMaxAtr = 33;  // MAX_ATR_SIZE

struct ReaderState {  // SCARD_READERSTATE
    const char* name = nullptr;
    void* userData = nullptr;
    Dword currentState = 0;  // SCARD_STATE_UNAWARE
    Dword eventState = 0;
    Dword atrSize = 0;
    std::array<unsigned char, kMaxAtr> atr{};
};

using EstablishContext = Result (*)(Dword scope, const void*, const void*, Context*);
using ReleaseContext = Result (*)(Context);
using ListReaders = Result (*)(Context, const char* groups, char* readers, Dword* size);
using GetStatusChange = Result (*)(Context, Dword timeout, ReaderState*, Dword count);

constexpr Dword kScopeSystem = 2;  // SCARD_SCOPE_SYSTEM

// SCARD_STATE_*
constexpr Dword kEmpty = 0x0010;
constexpr Dword kPresent = 0x0020;
constexpr Dword kExclusive = 0x0080;
constexpr Dword kInUse = 0x0100;
constexpr Dword kMute = 0x0200;

constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kInsufficientBuffer = 0x80100008;  // SCARD_E_INSUFFICIENT_BUFFER
constexpr std::uint32_t kNoService = 0x8010001D;           // SCARD_E_NO_SERVICE
constexpr std::uint32_t kServiceStopped = 0x8010001E;      // SCARD_E_SERVICE_STOPPED
constexpr std::uint32_t kNoReaders = 0x8010002E;           // SCARD_E_NO_READERS_AVAILABLE

constexpr Dword kMaxNames = 65536;        // bytes of all readers' names
constexpr std::size_t kMaxReaders = 256;  // the daemon has room for 16

constexpr const char* kLibrary = "libpcsclite.so.1";

// The codes fit 32 bits, in whatever way the library widened them.
std::uint32_t codeOf(Result result) {
    return static_cast<std::uint32_t>(result);
}

class Pcsc {
  public:
    explicit Pcsc(ReaderList& list) : m_list(list) {}
    Pcsc(const Pcsc&) = delete;
    Pcsc& operator=(const Pcsc&) = delete;
    ~Pcsc() {
        if (m_isConnected) m_release(m_context);
    }

    void run() {
        if (!load() || !connect() || !readNames() || !readStates()) return;
        m_list.state = m_list.readers.empty() ? PcscState::NoReader : PcscState::Ready;
    }

  private:
    template <class Function>
    bool find(const char* name, Function& function) {
        function = reinterpret_cast<Function>(::dlsym(m_library, name));
        return function != nullptr ||
               fail(PcscState::NoLibrary, std::string(kLibrary) + " has no " + name);
    }

    bool fail(PcscState state, std::string_view reason) {
        m_list.state = state;
        appendOneLine(m_list.reason, reason);
        return false;
    }

    bool check(const char* function, Result result) {
        const std::uint32_t code = codeOf(result);
        if (code == kSuccess) return true;
        const PcscState state = code == kNoService || code == kServiceStopped ? PcscState::NoDaemon
                                : code == kNoReaders                          ? PcscState::NoReader
                                                                              : PcscState::Failed;
        return fail(state, std::string(function) + " failed with " + toHexNumber(code));
    }

    bool load() {
        m_library = ::dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
        if (m_library == nullptr) {
            const char* const said = ::dlerror();
            return fail(PcscState::NoLibrary, said == nullptr ? "" : said);
        }
        return find("SCardEstablishContext", m_establish) &&
               find("SCardReleaseContext", m_release) && find("SCardListReaders", m_listReaders) &&
               find("SCardGetStatusChange", m_getStatusChange);
    }

    bool connect() {
        m_isConnected =
            check("SCardEstablishContext", m_establish(kScopeSystem, nullptr, nullptr, &m_context));
        return m_isConnected;
    }

    // The names stand one behind the other, each ended by a NUL, and another NUL ends the list.
    bool readNames() {
        constexpr int kTries = 3;  // a reader may be plugged in between the two questions
        std::uint32_t code = kInsufficientBuffer;
        for (int i = 0; i < kTries && code == kInsufficientBuffer; ++i) {
            Dword size = 0;
            if (!check("SCardListReaders", m_listReaders(m_context, nullptr, nullptr, &size)))
                return false;
            m_names.assign(std::min(size, kMaxNames), '\0');
            size = m_names.size();
            code = codeOf(m_listReaders(m_context, nullptr, m_names.data(), &size));
            m_names.resize(std::min<std::size_t>(size, m_names.size()));
        }
        if (!check("SCardListReaders", static_cast<Result>(code))) return false;
        for (std::string_view rest = m_names; !rest.empty() && rest.front() != '\0';) {
            const auto end = rest.find('\0');
            if (end == std::string_view::npos || m_states.size() == kMaxReaders) break;
            m_states.emplace_back().name = rest.data();
            rest.remove_prefix(end + 1);
        }
        return true;
    }

    bool readStates() {
        if (m_states.empty()) return true;
        if (!check("SCardGetStatusChange",
                   m_getStatusChange(m_context, 0, m_states.data(), m_states.size()))) {
            return false;
        }
        std::ranges::transform(m_states, std::back_inserter(m_list.readers), toReader);
        return true;
    }

    static CardReader toReader(const ReaderState& state) {
        using enum CardReader::Card;
        const auto has = [&](Dword flag) { return (state.eventState & flag) != 0; };
        CardReader reader;
        reader.name = toValidUtf8(state.name);
        const std::span atr(state.atr.data(), std::min<std::size_t>(state.atrSize, kMaxAtr));
        const bool isPresent = has(kPresent) && !has(kMute) && !atr.empty();
        reader.card = has(kEmpty) ? None : isPresent ? Present : has(kPresent) ? Mute : Unknown;
        reader.isInUse = has(kInUse) || has(kExclusive);
        if (isPresent) reader.atr = toHex(atr);
        return reader;
    }

    ReaderList& m_list;
    void* m_library = nullptr;
    EstablishContext m_establish = nullptr;
    ReleaseContext m_release = nullptr;
    ListReaders m_listReaders = nullptr;
    GetStatusChange m_getStatusChange = nullptr;
    Context m_context = 0;
    bool m_isConnected = false;
    std::string m_names;
    std::vector<ReaderState> m_states;  // their names lie in m_names
};

}  // namespace

std::string_view nameOf(PcscState state) noexcept {
    constexpr std::array<std::string_view, 5> kNames = {"ready", "noLibrary", "noDaemon",
                                                        "noReader", "failed"};
    return kNames[static_cast<std::size_t>(state)];
}

std::string_view nameOf(CardReader::Card card) noexcept {
    constexpr std::array<std::string_view, 4> kNames = {"none", "mute", "present", "unknown"};
    return kNames[static_cast<std::size_t>(card)];
}

bool listReaders(ReaderList& list, LogBase& log) {
    const LogContextExitor context(log, "listReaders");
    return guarded(log, [&] {
        const CancellationPause pause;  // the library waits for the daemon
        ReaderList found;
        Pcsc(found).run();
        log.LogData("pcsc", nameOf(found.state));
        if (!found.reason.empty()) log.LogData("reason", found.reason);
        list = std::move(found);
        return true;
    });
}

}  // namespace mervane
