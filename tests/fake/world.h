#ifndef MERVANE_TESTS_FAKE_WORLD_H
#define MERVANE_TESTS_FAKE_WORLD_H

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pkcs11/calls/cryptoki.h"
#include "pkcs11/calls/rv.h"

// The world of the scriptable module: what it holds, what it answers, and what was asked of it. A
// test reaches it through fakeWorld(), exported by the module; a copy of the module under another
// file name has a world of its own.

namespace mervane::fake {

using Bytes = std::vector<unsigned char>;

inline Bytes bytesOf(CK_ULONG number) {
    const auto* const at = reinterpret_cast<const unsigned char*>(&number);
    return {at, at + sizeof number};
}
inline Bytes bytesOf(bool flag) { return {static_cast<unsigned char>(flag ? 1 : 0)}; }
inline Bytes bytesOf(const char* text) { return {text, text + std::strlen(text)}; }

struct Object {
    CK_OBJECT_HANDLE handle = 0;
    std::map<CK_ATTRIBUTE_TYPE, Bytes> attributes;
    std::set<CK_ATTRIBUTE_TYPE> sensitive;
    bool isPrivate = false;  // seen by a user who is logged in
};

struct Slot {
    CK_SLOT_ID id = 0;
    bool tokenPresent = true;
    std::string label = "fake";
    CK_FLAGS flags = 0x40D;  // rng, login required, user PIN set, initialised
    std::string userPin = "1234-secret-user-pin-987";
    std::string soPin = "5678-secret-officer-pin-3";
    std::vector<Object> objects;
    std::vector<CK_MECHANISM_TYPE> mechanisms = {0x1, 0x1041, 0x80000001};
    std::optional<CK_USER_TYPE> loggedIn;
};

// A signature that was begun.
struct Signing {
    CK_OBJECT_HANDLE key = 0;
    CK_MECHANISM_TYPE mechanism = 0;
    std::optional<CK_RSA_PKCS_PSS_PARAMS> pss;
    Bytes data;
    bool pinGiven = false;
};

struct Call {
    std::string function;
    std::vector<CK_ULONG> arguments;  // numbers and handles; PINs and texts never
    CK_RV result = CKR_OK;
};

// A call's outputs, which a lie may change before the caller sees them; null where there are none.
struct Outputs {
    std::string function;
    std::size_t index = 0;  // of the call in the journal
    CK_RV result = CKR_OK;
    CK_ATTRIBUTE* attributes = nullptr;
    CK_ULONG* ids = nullptr;  // slots, mechanisms or objects
    CK_ULONG room = 0;        // for ids or attributes
    CK_ULONG* count = nullptr;
    unsigned char* signature = nullptr;
    CK_SESSION_HANDLE* session = nullptr;
    CK_INFO* info = nullptr;
    CK_SLOT_INFO* slotInfo = nullptr;
    CK_TOKEN_INFO* tokenInfo = nullptr;
    CK_MECHANISM_INFO* mechanismInfo = nullptr;
};

struct State {
    // --- What exists
    std::vector<Slot> slots{{.id = 1}};
    bool nullList = false;  // C_GetFunctionList gives a null list
    CK_VERSION version = {2, 40};
    std::set<std::string> nullEntries;  // functions missing from the list
    bool initializedByOthers = false;   // C_Initialize finds the module initialised
    bool acceptsAnyPin = false;         // and keeps no copy
    bool spoilsPins = false;            // C_Login writes over the PIN it is given
    bool needsNullArguments = false;    // C_Initialize refuses arguments
    std::string wantsText;              // in the reserved argument of C_Initialize, as NSS reads it
    CK_ULONG maxSessions = 10;

    // --- What is answered: a code instead of the call (it may throw), and changes to its outputs
    std::function<std::optional<CK_RV>(const std::string& function, std::size_t index)> answer;
    std::function<void(Outputs& outputs)> lie;
    std::function<Bytes(const Object& key, const Signing& signing)> signer;
    std::function<void(std::size_t index)> callBack;  // runs within each call, as an application's event loop would

    // --- What happened
    std::vector<Call> journal;
    std::vector<std::string> violations;  // of the standard, by the caller
    bool isCallingBack = false;
    bool initialized = false;
    std::vector<CK_ULONG> slotsSeen;      // by C_GetSlotList with a null buffer; without one it does not look again
    bool listMade = false;                // the function list stays as it is until the next reset
    std::set<std::string> functionNames;  // all but C_GetFunctionList
    std::map<CK_SESSION_HANDLE, CK_SLOT_ID> sessions;
    std::map<CK_SESSION_HANDLE, std::vector<CK_OBJECT_HANDLE>> searches;
    std::map<CK_SESSION_HANDLE, Signing> signings;
    std::set<CK_OBJECT_HANDLE> issued;  // object handles given out
    std::set<CK_SESSION_HANDLE> closedByCaller;
    CK_SESSION_HANDLE lastSession = 0;
    int numOpened = 0;
    int numClosed = 0;
};

struct World : State {
    // For the command-line tool, which cannot reach the world: an empty slot, "FUNCTION CODE" for a function that always
    // fails ("crash", "hang", "print" and "steal" are codes, too), the flags of the token, a certificate without a value.
    World(const char* withEmptySlot, const char* failing, const char* flags, const char* withUnreadable) {
        if (withUnreadable != nullptr) slots.front().objects = {{1, {{CKA_CLASS, bytesOf(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, bytesOf(CKC_X_509)}}}};
        if (withEmptySlot != nullptr) slots.push_back({.id = 2, .tokenPresent = false});
        if (flags != nullptr) slots.front().flags = std::stoul(flags, nullptr, 0);
        if (failing == nullptr) return;
        answer = [this, failing = std::string(failing)](const std::string& function, std::size_t) -> std::optional<CK_RV> {
            if (!failing.starts_with(function + " ")) return std::nullopt;
            if (failing.ends_with("print")) return std::puts("{") < 0 ? std::optional<CK_RV>(0) : std::nullopt;
            if (failing.ends_with("steal")) return steal();
            if (failing.ends_with("crash")) std::raise(SIGSEGV);
            while (failing.ends_with("hang")) ::pause();
            return std::stoul(failing.substr(function.size()), nullptr, 0);
        };
    }
    // Reads from whatever descriptor has been left open, and shows it as the token's label.
    std::optional<CK_RV> steal() {
        for (int descriptor = 3; descriptor < 64; ++descriptor) {
            char room[16];
            const auto size = ::read(descriptor, room, sizeof room);
            if (size > 0) slots.front().label.assign(room, static_cast<std::size_t>(size));
        }
        return std::nullopt;
    }
    std::atomic<int> inside{0};  // calls running
    std::recursive_mutex mutex;  // guards the state

    [[nodiscard]] std::size_t count(const std::string& function) const {
        return static_cast<std::size_t>(std::ranges::count(journal, function, &Call::function));
    }
    // Null where there is none.
    Slot* slot(CK_SLOT_ID id) {
        const auto at = std::ranges::find(slots, id, &Slot::id);
        return at == slots.end() ? nullptr : &*at;
    }
    // Takes the tokens out, and their sessions with them.
    void removeTokens() {
        for (Slot& s : slots) s.tokenPresent = false, s.loggedIn.reset();
        while (!sessions.empty()) loseSession(sessions.begin()->first);
    }
    void loseSession(CK_SESSION_HANDLE session) {
        const auto lost = sessions.extract(session);
        if (lost.empty()) return;
        searches.erase(session);
        signings.erase(session);
        ++numClosed;
        const bool isLast = std::ranges::none_of(sessions, [&](const auto& s) { return s.second == lost.mapped(); });
        Slot* const of = slot(lost.mapped());
        if (isLast && of != nullptr) of->loggedIn.reset();
    }
    void loseInitialization() {
        initialized = false;
        while (!sessions.empty()) loseSession(sessions.begin()->first);
    }
    // The state as after loading.
    void reset() {
        const std::lock_guard lock(mutex);
        static_cast<State&>(*this) = State();
    }
};

}  // namespace mervane::fake

extern "C" mervane::fake::World* fakeWorld();

#endif
