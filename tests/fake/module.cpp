// A PKCS#11 module that does what its world says. Otherwise it follows the standard, and it notes every
// violation of the standard by its caller.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <tuple>
#include <utility>

#include "pkcs11/calls/functions.h"
#include "tests/fake/world.h"

using namespace mervane;
using namespace mervane::fake;

namespace {

World& world() { return *fakeWorld(); }

constexpr CK_RV kSessionIsGone[] = {CKR_DEVICE_REMOVED, CKR_SESSION_CLOSED, CKR_SESSION_HANDLE_INVALID, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED};

// Counts a call as running for the length of a scope.
struct Presence {
    explicit Presence(World& w) : world(w), isMeeting(w.inside.fetch_add(1) != 0) {}
    ~Presence() { world.inside.fetch_sub(1); }
    Presence(const Presence&) = delete;
    Presence& operator=(const Presence&) = delete;
    World& world;
    bool isMeeting;  // another call is running
};

// Runs one call: journal, scripted answer, the function itself, the lie about its outputs.
template <class Body>
CK_RV call(const char* function, std::initializer_list<CK_ULONG> arguments, Outputs outputs, Body body, std::optional<CK_SESSION_HANDLE> session = {}) {
    World& w = world();
    const Presence presence(w);
    const std::lock_guard lock(w.mutex);
    if (presence.isMeeting && !w.isCallingBack) w.violations.emplace_back(std::string("two calls at once: ") + function);
    const std::size_t index = w.journal.size();
    const std::string name = function;
    // A search that was begun is ended, whatever has become of the module.
    const bool needsInitialization = name != "C_Initialize" && name != "C_GetFunctionList" && name != "C_FindObjectsFinal";
    if (!w.initialized && needsInitialization) w.violations.push_back("called without initialization: " + name);
    w.journal.push_back({name, arguments, CKR_GENERAL_ERROR});  // stands if the call throws
    if (session) w.journal.back().arguments.insert(w.journal.back().arguments.begin(), *session);
    if (session && (*session == 0 || *session > w.lastSession || w.closedByCaller.contains(*session))) {
        w.violations.push_back("on a session never given or closed: " + name);
    }
    if (w.callBack && !std::exchange(w.isCallingBack, true)) {
        w.callBack(index);
        w.isCallingBack = false;
    }
    const auto scripted = w.answer ? w.answer(name, index) : std::nullopt;
    CK_RV rv = scripted.value_or(CKR_OK);
    // A call that only changes the state and is scripted to succeed takes effect.
    const bool isStateOnly = name == "C_Initialize" || name == "C_Finalize" || name == "C_CloseSession";
    const bool happens = !scripted.has_value() || (isStateOnly && rv == CKR_OK);
    if (name == "C_Initialize" && rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) w.initialized = true;
    if (scripted && rv == CKR_CRYPTOKI_NOT_INITIALIZED) w.loseInitialization();
    if (scripted && session && std::ranges::count(kSessionIsGone, rv) != 0) w.loseSession(*session);
    if (happens) rv = body(w);
    outputs.function = name;
    outputs.index = index;
    outputs.result = rv;
    if (happens && w.lie) w.lie(outputs);
    // A handle given out counts as issued, even if it is a lie.
    const bool gaveHandles = name == "C_FindObjects" && outputs.result == CKR_OK;
    if (gaveHandles) w.issued.insert(outputs.ids, outputs.ids + std::min(*outputs.count, outputs.room));
    w.journal[index].result = outputs.result;
    return outputs.result;
}

// The same for a function on a session.
template <class Body>
CK_RV sessionCall(const char* function, CK_SESSION_HANDLE session, std::initializer_list<CK_ULONG> arguments, Outputs outputs, Body body) {
    return call(
        function, arguments, outputs,
        [&](World& w) -> CK_RV {
            const auto at = w.sessions.find(session);
            if (at == w.sessions.end()) return CKR_SESSION_HANDLE_INVALID;
            Slot* const slot = w.slot(at->second);
            return slot != nullptr && slot->tokenPresent ? body(w, *slot) : CKR_DEVICE_REMOVED;
        },
        session);
}

// The same for a function on a slot; `needsToken`: a token must be in it.
template <class Body>
CK_RV slotCall(const char* function, bool needsToken, std::initializer_list<CK_ULONG> arguments, Outputs outputs, Body body) {
    return call(function, arguments, outputs, [&](World& w) -> CK_RV {
        Slot* const slot = w.slot(*arguments.begin());
        if (slot == nullptr) return 0x003;  // CKR_SLOT_ID_INVALID
        return slot->tokenPresent || !needsToken ? body(w, *slot) : CKR_TOKEN_NOT_PRESENT;
    });
}

template <std::size_t N>
void pad(unsigned char (&field)[N], const std::string& text) {
    std::memset(field, ' ', N);
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

// Lists as in the standard: the length alone, CKR_BUFFER_TOO_SMALL, or the list.
CK_RV giveList(const std::vector<CK_ULONG>& all, CK_ULONG* list, CK_ULONG* count) {
    const CK_ULONG room = *count;
    *count = all.size();
    if (list == nullptr) return CKR_OK;
    if (room < all.size()) return CKR_BUFFER_TOO_SMALL;
    std::ranges::copy(all, list);
    return CKR_OK;
}

bool isSeen(const Object& object, const Slot& slot) { return !object.isPrivate || slot.loggedIn == CKU_USER; }

// NSS takes the reserved pointer for its text, and looks for a null behind it.
bool hasText(const void* args, const std::string& text) {
    struct WithNull {
        CK_C_INITIALIZE_ARGS args;
        void* behind;
    };
    const auto* const given = static_cast<const WithNull*>(args);
    return given != nullptr && given->args.pReserved != nullptr && given->behind == nullptr && text == static_cast<const char*>(given->args.pReserved);
}

CK_RV initialize(void* args) {
    return call("C_Initialize", {args == nullptr ? 0UL : 1UL}, {}, [&](World& w) -> CK_RV {
        if (w.needsNullArguments && args != nullptr) return CKR_ARGUMENTS_BAD;
        if (!w.wantsText.empty() && !hasText(args, w.wantsText)) return CKR_ARGUMENTS_BAD;
        const bool isDone = std::exchange(w.initialized, true) || w.initializedByOthers;
        return isDone ? CKR_CRYPTOKI_ALREADY_INITIALIZED : CKR_OK;
    });
}

CK_RV finalize(void*) {
    return call("C_Finalize", {}, {}, [](World& w) -> CK_RV {
        if (w.initializedByOthers) w.violations.emplace_back("finalized what others initialized");
        w.loseInitialization();
        return CKR_OK;
    });
}

CK_RV getInfo(CK_INFO* info) {
    return call("C_GetInfo", {}, {.info = info}, [&](World&) -> CK_RV {
        *info = {};
        info->cryptokiVersion = {2, 40};
        info->libraryVersion = {1, 7};
        pad(info->manufacturerID, "Fake maker");
        pad(info->libraryDescription, "Fake module");
        return CKR_OK;
    });
}

CK_RV getSlotList(CK_BBOOL present, CK_SLOT_ID* list, CK_ULONG* count) {
    return call("C_GetSlotList", {present, list == nullptr ? 0UL : *count}, {.ids = list, .room = *count, .count = count}, [&](World& w) {
        if (list == nullptr) w.slotsSeen.clear();
        for (const Slot& slot : w.slots) {
            if (list == nullptr && (present == CK_FALSE || slot.tokenPresent)) w.slotsSeen.push_back(slot.id);
        }
        return giveList(w.slotsSeen, list, count);
    });
}

CK_RV getSlotInfo(CK_SLOT_ID id, CK_SLOT_INFO* info) {
    return slotCall("C_GetSlotInfo", false, {id}, {.slotInfo = info}, [&](World&, Slot& slot) -> CK_RV {
        *info = {};
        pad(info->slotDescription, "Fake slot");
        pad(info->manufacturerID, "Fake maker");
        info->flags = (slot.tokenPresent ? 1U : 0U) | 0x6U;
        return CKR_OK;
    });
}

CK_RV getTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO* info) {
    return slotCall("C_GetTokenInfo", true, {id}, {.tokenInfo = info}, [&](World&, Slot& slot) -> CK_RV {
        *info = {};
        pad(info->label, slot.label);
        pad(info->manufacturerID, "Fake maker");
        pad(info->model, "Model F");
        pad(info->serialNumber, slot.id < 10 ? ("000" + std::to_string(slot.id)).c_str() : "0001");
        info->flags = slot.flags;
        info->ulMinPinLen = 4;
        info->ulMaxPinLen = 64;
        info->ulTotalPublicMemory = info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
        info->ulTotalPrivateMemory = info->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
        return CKR_OK;
    });
}

CK_RV getMechanismList(CK_SLOT_ID id, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
    return slotCall("C_GetMechanismList", false, {id, list == nullptr ? 0UL : *count}, {.ids = list, .room = *count, .count = count},
                    [&](World&, Slot& slot) { return giveList(slot.mechanisms, list, count); });
}

CK_RV getMechanismInfo(CK_SLOT_ID id, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
    return slotCall("C_GetMechanismInfo", false, {id, type}, {.mechanismInfo = info}, [&](World&, Slot&) -> CK_RV {
        *info = {512, 4096, 0x2800};
        return CKR_OK;
    });
}

CK_RV checkPin(Slot& slot, bool isOfficer, const unsigned char* pin, CK_ULONG size) {
    const CK_FLAGS low = isOfficer ? 0x100000 : 0x10000;
    const CK_FLAGS finalTry = low << 1;
    const CK_FLAGS locked = low << 2;
    if ((slot.flags & locked) != 0) return CKR_PIN_LOCKED;
    if (world().acceptsAnyPin) return CKR_OK;
    const std::string given = pin == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(pin), size);
    const bool asksItself = pin == nullptr && (slot.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    if (asksItself || given == (isOfficer ? slot.soPin : slot.userPin)) {
        slot.flags &= ~(low | finalTry | locked);
        return CKR_OK;
    }
    // The third wrong PIN locks it.
    slot.flags |= (slot.flags & finalTry) != 0 ? locked : (slot.flags & low) != 0 ? finalTry : low;
    return CKR_PIN_INCORRECT;
}

CK_RV initToken(CK_SLOT_ID id, CK_UTF8CHAR* pin, CK_ULONG size, CK_UTF8CHAR* label) {
    return slotCall("C_InitToken", false, {id}, {}, [&](World& w, Slot& slot) -> CK_RV {
        if (std::memchr(label, '\0', 32) != nullptr) w.violations.emplace_back("label not padded with blanks");
        if (const CK_RV rv = checkPin(slot, true, pin, size); rv != CKR_OK) return rv;
        slot.label.assign(reinterpret_cast<const char*>(label), 32);
        slot.objects.clear();
        return CKR_OK;
    });
}

CK_RV initPin(CK_SESSION_HANDLE session, CK_UTF8CHAR* pin, CK_ULONG size) {
    return sessionCall("C_InitPIN", session, {}, {}, [&](World&, Slot& slot) -> CK_RV {
        if (slot.loggedIn != CKU_SO) return CKR_USER_NOT_LOGGED_IN;
        if (size < 4) return CKR_PIN_LEN_RANGE;
        if (!world().acceptsAnyPin) slot.userPin.assign(reinterpret_cast<const char*>(pin), size);
        return CKR_OK;
    });
}

CK_RV setPin(CK_SESSION_HANDLE session, CK_UTF8CHAR* oldPin, CK_ULONG oldSize, CK_UTF8CHAR* newPin, CK_ULONG newSize) {
    return sessionCall("C_SetPIN", session, {}, {}, [&](World&, Slot& slot) -> CK_RV {
        const bool isOfficer = slot.loggedIn == CKU_SO;
        if (const CK_RV rv = checkPin(slot, isOfficer, oldPin, oldSize); rv != CKR_OK) return rv;
        if (newSize < 4) return CKR_PIN_LEN_RANGE;
        if (!world().acceptsAnyPin) (isOfficer ? slot.soPin : slot.userPin).assign(reinterpret_cast<const char*>(newPin), newSize);
        return CKR_OK;
    });
}

CK_RV openSession(CK_SLOT_ID id, CK_FLAGS flags, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) {
    return slotCall("C_OpenSession", true, {id, flags}, {.session = session}, [&](World& w, Slot&) -> CK_RV {
        if (w.sessions.size() >= w.maxSessions) return CKR_SESSION_COUNT;
        *session = ++w.lastSession;
        w.sessions[*session] = id;
        ++w.numOpened;
        return CKR_OK;
    });
}

CK_RV closeSession(CK_SESSION_HANDLE session) {
    const auto close = [&](World& w) -> CK_RV {
        if (!w.sessions.contains(session)) return CKR_SESSION_HANDLE_INVALID;
        w.closedByCaller.insert(session);
        w.loseSession(session);
        return CKR_OK;
    };
    return call("C_CloseSession", {}, {}, close, session);
}

CK_RV getSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
    return sessionCall("C_GetSessionInfo", session, {}, {}, [&](World&, Slot& slot) -> CK_RV {
        *info = {slot.id, slot.loggedIn == CKU_USER ? CKS_RW_USER_FUNCTIONS : 2, CKF_RW_SESSION | CKF_SERIAL_SESSION, 0};
        return CKR_OK;
    });
}

CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG size) {
    return sessionCall("C_Login", session, {user, pin == nullptr ? 0UL : 1UL, size}, {}, [&](World&, Slot& slot) -> CK_RV {
        if (user == CKU_CONTEXT_SPECIFIC) {
            const auto signing = world().signings.find(session);
            if (signing == world().signings.end()) return CKR_OPERATION_NOT_INITIALIZED;
            const CK_RV rv = checkPin(slot, false, pin, size);
            signing->second.pinGiven = rv == CKR_OK;
            return rv;
        }
        if (user > 1) return CKR_USER_TYPE_INVALID;
        if (slot.loggedIn) return slot.loggedIn == user ? CKR_USER_ALREADY_LOGGED_IN : 0x104;
        const CK_RV rv = checkPin(slot, user == CKU_SO, pin, size);
        if (rv == CKR_OK) slot.loggedIn = user;
        if (world().spoilsPins) std::memset(pin, '#', size);
        return rv;
    });
}

CK_RV logout(CK_SESSION_HANDLE session) {
    return sessionCall("C_Logout", session, {}, {}, [](World&, Slot& slot) -> CK_RV {
        if (!slot.loggedIn) return CKR_USER_NOT_LOGGED_IN;
        slot.loggedIn.reset();
        return CKR_OK;
    });
}

// PKCS#11 2.40 base, C_GetAttributeValue, the five cases.
CK_RV getAttributes(const Object& object, CK_ATTRIBUTE* attributes, CK_ULONG count) {
    CK_RV rv = CKR_OK;
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_ATTRIBUTE& wanted = attributes[i];
        const auto at = object.attributes.find(wanted.type);
        const CK_RV one = object.sensitive.contains(wanted.type)                              ? CKR_ATTRIBUTE_SENSITIVE
                          : at == object.attributes.end()                                     ? CKR_ATTRIBUTE_TYPE_INVALID
                          : wanted.pValue != nullptr && wanted.ulValueLen < at->second.size() ? CKR_BUFFER_TOO_SMALL
                                                                                              : CKR_OK;
        if (one == CKR_OK && wanted.pValue != nullptr) std::ranges::copy(at->second, static_cast<unsigned char*>(wanted.pValue));
        wanted.ulValueLen = one == CKR_OK ? at->second.size() : CK_UNAVAILABLE_INFORMATION;
        if (one != CKR_OK) rv = one;
    }
    return rv;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE* attributes, CK_ULONG count) {
    return sessionCall("C_GetAttributeValue", session, {handle, count}, {.attributes = attributes, .room = count}, [&](World& w, Slot& slot) -> CK_RV {
        if (!w.issued.contains(handle)) w.violations.emplace_back("unknown object handle");
        const auto at = std::ranges::find(slot.objects, handle, &Object::handle);
        if (at == slot.objects.end() || !isSeen(*at, slot)) return 0x082;  // CKR_OBJECT_HANDLE_INVALID
        return getAttributes(*at, attributes, count);
    });
}

CK_RV findObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count) {
    return sessionCall("C_FindObjectsInit", session, {count}, {}, [&](World& w, Slot& slot) -> CK_RV {
        if (w.searches.contains(session) || w.signings.contains(session)) return CKR_OPERATION_ACTIVE;
        std::vector<CK_OBJECT_HANDLE> found;
        for (const Object& object : slot.objects) {
            const bool fits = std::all_of(attributes, attributes + count, [&](const CK_ATTRIBUTE& a) {
                const auto at = object.attributes.find(a.type);
                const auto* const wanted = static_cast<const unsigned char*>(a.pValue);
                return at != object.attributes.end() && std::ranges::equal(at->second, std::span(wanted, a.ulValueLen));
            });
            if (fits && isSeen(object, slot)) found.push_back(object.handle);
        }
        std::ranges::reverse(found);  // given out from the back
        w.searches[session] = std::move(found);
        return CKR_OK;
    });
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* handles, CK_ULONG room, CK_ULONG* count) {
    return sessionCall("C_FindObjects", session, {room}, {.ids = handles, .room = room, .count = count}, [&](World& w, Slot&) -> CK_RV {
        const auto at = w.searches.find(session);
        if (at == w.searches.end()) return CKR_OPERATION_NOT_INITIALIZED;
        for (*count = 0; *count < room && !at->second.empty(); ++*count) {
            handles[*count] = at->second.back();
            w.issued.insert(at->second.back());
            at->second.pop_back();
        }
        return CKR_OK;
    });
}

CK_RV findObjectsFinal(CK_SESSION_HANDLE session) {
    return sessionCall("C_FindObjectsFinal", session, {}, {},
                       [&](World& w, Slot&) -> CK_RV { return w.searches.erase(session) == 1 ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED; });
}

bool flagOf(const Object& object, CK_ATTRIBUTE_TYPE type) {
    const auto at = object.attributes.find(type);
    return at != object.attributes.end() && at->second == bytesOf(true);
}

CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return sessionCall("C_SignInit", session, {mechanism == nullptr ? 0UL : mechanism->mechanism, key}, {}, [&](World& w, Slot& slot) -> CK_RV {
        if (!w.issued.contains(key)) w.violations.emplace_back("unknown object handle");
        if (w.searches.contains(session) || w.signings.contains(session)) return CKR_OPERATION_ACTIVE;
        const auto at = std::ranges::find(slot.objects, key, &Object::handle);
        if (at == slot.objects.end() || !isSeen(*at, slot)) return 0x060;  // CKR_KEY_HANDLE_INVALID
        if (!flagOf(*at, CKA_SIGN)) return CKR_KEY_FUNCTION_NOT_PERMITTED;
        Signing signing{.key = key, .mechanism = mechanism->mechanism};
        if (mechanism->ulParameterLen == sizeof(CK_RSA_PKCS_PSS_PARAMS)) signing.pss = *static_cast<CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter);
        w.signings[session] = signing;
        return CKR_OK;
    });
}

// The signature over what was handed over; ends the operation unless the room is too small.
CK_RV finishSigning(World& w, const Slot& slot, CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG* size) {
    const auto signing = w.signings.find(session);
    const auto key = std::ranges::find(slot.objects, signing->second.key, &Object::handle);
    const bool lacksPin = key == slot.objects.end() || (flagOf(*key, CKA_ALWAYS_AUTHENTICATE) && !signing->second.pinGiven);
    const Bytes made = lacksPin || !w.signer ? Bytes() : w.signer(*key, signing->second);
    const CK_RV rv = lacksPin ? CKR_USER_NOT_LOGGED_IN : made.size() > *size ? CKR_BUFFER_TOO_SMALL : CKR_OK;
    if (rv == CKR_OK) std::ranges::copy(made, signature);
    if (rv != CKR_USER_NOT_LOGGED_IN) *size = made.size();
    if (rv != CKR_BUFFER_TOO_SMALL) w.signings.erase(signing);
    return rv;
}

CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataSize, CK_BYTE* signature, CK_ULONG* size) {
    const Outputs outputs{.room = *size, .count = size, .signature = signature};
    return sessionCall("C_Sign", session, {dataSize, *size}, outputs, [&](World& w, Slot& slot) -> CK_RV {
        if (!w.signings.contains(session)) return CKR_OPERATION_NOT_INITIALIZED;
        w.signings[session].data.assign(data, data + dataSize);
        return finishSigning(w, slot, session, signature, size);
    });
}

CK_RV signUpdate(CK_SESSION_HANDLE session, CK_BYTE* part, CK_ULONG size) {
    return sessionCall("C_SignUpdate", session, {size}, {}, [&](World& w, Slot&) -> CK_RV {
        if (!w.signings.contains(session)) return CKR_OPERATION_NOT_INITIALIZED;
        w.signings[session].data.insert(w.signings[session].data.end(), part, part + size);
        return CKR_OK;
    });
}

CK_RV signFinal(CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG* size) {
    return sessionCall("C_SignFinal", session, {*size}, {.room = *size, .count = size, .signature = signature}, [&](World& w, Slot& slot) -> CK_RV {
        return w.signings.contains(session) ? finishSigning(w, slot, session, signature, size) : CKR_OPERATION_NOT_INITIALIZED;
    });
}

using std::pair;
constexpr std::tuple kFunctions(pair(function::kInitialize, &initialize), pair(function::kFinalize, &finalize), pair(function::kGetInfo, &getInfo),
                                pair(function::kGetSlotList, &getSlotList), pair(function::kGetSlotInfo, &getSlotInfo),
                                pair(function::kGetTokenInfo, &getTokenInfo), pair(function::kGetMechanismList, &getMechanismList),
                                pair(function::kGetMechanismInfo, &getMechanismInfo), pair(function::kInitToken, &initToken),
                                pair(function::kInitPin, &initPin), pair(function::kSetPin, &setPin), pair(function::kOpenSession, &openSession),
                                pair(function::kCloseSession, &closeSession), pair(function::kLogin, &login), pair(function::kLogout, &logout),
                                pair(function::kGetAttributeValue, &getAttributeValue), pair(function::kFindObjectsInit, &findObjectsInit),
                                pair(function::kFindObjects, &findObjects), pair(function::kFindObjectsFinal, &findObjectsFinal),
                                pair(function::kGetSessionInfo, &getSessionInfo), pair(function::kSignInit, &signInit), pair(function::kSign, &sign),
                                pair(function::kSignUpdate, &signUpdate), pair(function::kSignFinal, &signFinal));

}  // namespace

extern "C" World* fakeWorld() {
    static World* const instance = new World(std::getenv("MERVANE_FAKE_EMPTY_SLOT"), std::getenv("MERVANE_FAKE_FAILING"), std::getenv("MERVANE_FAKE_FLAGS"),
                                             std::getenv("MERVANE_FAKE_UNREADABLE"));  // NOLINT: lives as long as the module
    return instance;
}

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
    static CK_FUNCTION_LIST functions;
    World& w = world();
    const Presence presence(w);
    const std::lock_guard lock(w.mutex);
    w.journal.push_back({"C_GetFunctionList", {}, CKR_OK});
    if (const auto rv = w.answer ? w.answer("C_GetFunctionList", w.journal.size() - 1) : std::nullopt) return *rv;
    *list = w.nullList ? nullptr : &functions;
    if (std::exchange(w.listMade, true)) return CKR_OK;
    functions = {};
    functions.version = w.version;
    functions.C_GetFunctionList = C_GetFunctionList;
    const auto add = [&w](const auto& row) {
        w.functionNames.insert(row.first.name);
        functions.*row.first.member = w.nullEntries.contains(row.first.name) ? nullptr : row.second;
    };
    std::apply([&](const auto&... rows) { (add(rows), ...); }, kFunctions);
    return CKR_OK;
}
