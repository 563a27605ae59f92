// The discovery report: what a module says about itself, its slots, tokens and mechanisms. Layout:
// docs/json.md. A slot, token or mechanism that cannot be described stays in the report with what
// is known of it; only a module that is no longer initialised ends the report.

#include <algorithm>

#include "foundation/text/hex.h"
#include "pkcs11/calls/fixedtext.h"
#include "pkcs11/calls/lists.h"
#include "pkcs11/calls/names.h"
#include "pkcs11/calls/operations.h"

namespace mervane::operation {
namespace {

constexpr CK_ULONG kMaxMechanisms = 4096;           // about nine times what the standard defines
constexpr std::size_t kMaxMechanismsInAll = 65536;  // bounds the report as a whole

std::string versionOf(const CK_VERSION& version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor);
}

JsonValue namesOf(const std::vector<std::string>& names) {
    JsonValue list = JsonValue::array();
    for (const std::string& name : names) list.append(JsonValue(name));
    return list;
}

// A count or size that a token may keep to itself.
JsonValue knownOrNull(CK_ULONG value) {
    return value == CK_UNAVAILABLE_INFORMATION ? JsonValue() : JsonValue(value);
}

// A session limit; unlimited is null too.
JsonValue limitOrNull(CK_ULONG value) {
    return value == CK_EFFECTIVELY_INFINITE ? JsonValue() : knownOrNull(value);
}

std::size_t numMechanismsOf(const JsonValue& slot) {
    const JsonValue* const token = slot.find("token");
    const JsonValue* const list = token == nullptr ? nullptr : token->find("mechanisms");
    return list == nullptr ? 0 : list->asArray()->size();
}

JsonValue tokenToJson(const CK_TOKEN_INFO& info) {
    JsonValue token = JsonValue::object();
    token.set("label", textOf(info.label));
    token.set("manufacturer", textOf(info.manufacturerID));
    token.set("model", textOf(info.model));
    token.set("serialNumber", textOf(info.serialNumber));
    token.set("flags", namesOf(tokenFlagNames(info.flags)));
    JsonValue& pin = token.set("pin", JsonValue::object());
    pin.set("min", knownOrNull(info.ulMinPinLen));
    pin.set("max", knownOrNull(info.ulMaxPinLen));
    JsonValue& sessions = token.set("sessions", JsonValue::object());
    sessions.set("open", knownOrNull(info.ulSessionCount));
    sessions.set("max", limitOrNull(info.ulMaxSessionCount));
    sessions.set("rwOpen", knownOrNull(info.ulRwSessionCount));
    sessions.set("rwMax", limitOrNull(info.ulMaxRwSessionCount));
    JsonValue& memory = token.set("memory", JsonValue::object());
    memory.set("publicTotal", knownOrNull(info.ulTotalPublicMemory));
    memory.set("publicFree", knownOrNull(info.ulFreePublicMemory));
    memory.set("privateTotal", knownOrNull(info.ulTotalPrivateMemory));
    memory.set("privateFree", knownOrNull(info.ulFreePrivateMemory));
    token.set("hardwareVersion", versionOf(info.hardwareVersion));
    token.set("firmwareVersion", versionOf(info.firmwareVersion));
    return token;
}

bool describeMechanisms(Calls& calls, CK_SLOT_ID id, JsonValue& token, LogBase& log) {
    std::vector<CK_MECHANISM_TYPE> types;
    if (!fetchList(calls, function::kGetMechanismList, kMaxMechanisms, types, log, id)) {
        log.LogDataUnsigned("slotId", id);
        return calls.state.m_initialized;
    }
    JsonValue& list = token.set("mechanisms", JsonValue::array());
    for (const CK_MECHANISM_TYPE type : types) {
        JsonValue& mechanism = list.append(JsonValue::object());
        mechanism.set("name", mechanismName(type));
        mechanism.set("type", toHexNumber(type));
        CK_MECHANISM_INFO info{};
        const auto rv = calls.attempt(log, function::kGetMechanismInfo, id, type, &info);
        if (!calls.state.m_initialized) return false;
        if (rv != CKR_OK) {
            // Listed but not explained: the name stays.
            log.LogData("mechanismWithoutInfo", mechanismName(type));
            if (rv) log.LogData("result", rvName(*rv));
            continue;
        }
        mechanism.set("minKeySize", knownOrNull(info.ulMinKeySize));
        mechanism.set("maxKeySize", knownOrNull(info.ulMaxKeySize));
        mechanism.set("flags", namesOf(mechanismFlagNames(info.flags)));
    }
    return true;
}

bool describeSlot(Calls& calls, CK_SLOT_ID id, bool skipMechanisms, JsonValue& slot, LogBase& log) {
    CK_SLOT_INFO info{};
    if (!calls.invoke(log, function::kGetSlotInfo, id, &info)) {
        log.LogDataUnsigned("slotId", id);
        return calls.state.m_initialized;
    }
    slot.set("description", textOf(info.slotDescription));
    slot.set("manufacturer", textOf(info.manufacturerID));
    slot.set("flags", namesOf(slotFlagNames(info.flags)));
    slot.set("hardwareVersion", versionOf(info.hardwareVersion));
    slot.set("firmwareVersion", versionOf(info.firmwareVersion));
    if ((info.flags & CKF_TOKEN_PRESENT) == 0) return true;

    CK_TOKEN_INFO tokenInfo{};
    if (!calls.invoke(log, function::kGetTokenInfo, id, &tokenInfo)) {
        log.LogDataUnsigned("slotId", id);
        return calls.state.m_initialized;
    }
    JsonValue& token = slot.set("token", tokenToJson(tokenInfo));
    if (skipMechanisms) return true;
    return describeMechanisms(calls, id, token, log);
}

}  // namespace

bool describeModule(Calls& calls, ClsJsonObject& json, LogBase& log) {
    CK_INFO info{};
    if (!calls.invoke(log, function::kGetInfo, &info)) return false;
    JsonValue& root = json.root();
    root.set("cryptokiVersion", versionOf(info.cryptokiVersion));
    root.set("manufacturer", textOf(info.manufacturerID));
    root.set("libraryDescription", textOf(info.libraryDescription));
    root.set("libraryVersion", versionOf(info.libraryVersion));
    return true;
}

bool describeSlots(Calls& calls, bool onlyTokensPresent, bool skipMechanisms, ClsJsonObject& json,
                   LogBase& log) {
    std::vector<CK_SLOT_ID> slotIds;
    if (!getSlots(calls, onlyTokensPresent, slotIds, log)) return false;
    // Into a list of its own: a module may call back into the object, which may clear the document.
    JsonValue slots = JsonValue::array();
    std::size_t numMechanisms = 0;
    bool isDescribed = true;
    for (std::size_t i = 0; isDescribed && i < slotIds.size(); ++i) {
        JsonValue& slot = slots.append(JsonValue::object());
        slot.set("slotId", slotIds[i]);
        const bool skip = skipMechanisms || numMechanisms >= kMaxMechanismsInAll;
        isDescribed = describeSlot(calls, slotIds[i], skip, slot, log);
        numMechanisms += numMechanismsOf(slot);
    }
    json.root().set("slots", std::move(slots));
    if (numMechanisms >= kMaxMechanismsInAll && !skipMechanisms)
        log.LogInfo("The module lists more mechanisms than are described.");
    return isDescribed;
}

}  // namespace mervane::operation
