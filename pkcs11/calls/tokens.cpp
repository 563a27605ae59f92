// Which tokens there are, and the one that is meant.
//
// A token that cannot be described stays in the list, since it may be the one that is meant: it is
// reported when no other fits, so that "cannot be read" is never taken for "is not there".

#include "pkcs11/tokens.h"

#include <algorithm>

#include "foundation/text/utf8.h"
#include "pkcs11/calls/fixedtext.h"
#include "pkcs11/calls/operations.h"

namespace mervane::operation {
namespace {

std::optional<CK_ULONG> knownLength(CK_ULONG length) {
    return length == CK_UNAVAILABLE_INFORMATION ? std::nullopt : std::optional(length);
}

TokenInfo toTokenInfo(CK_SLOT_ID slotId, const CK_TOKEN_INFO& info) {
    TokenInfo token;
    token.slotId = slotId;
    token.isReadable = true;
    token.label = textOf(info.label);
    token.serialNumber = textOf(info.serialNumber);
    token.manufacturer = textOf(info.manufacturerID);
    token.model = textOf(info.model);
    token.setFlags(info.flags);
    token.minPinLength = knownLength(info.ulMinPinLen);
    token.maxPinLength = knownLength(info.ulMaxPinLen);
    return token;
}

template <class Value>
bool isOrAny(const std::optional<Value>& wanted, const Value& value) {
    return !wanted || *wanted == value;
}

bool fits(const TokenInfo& token, const TokenChoice& choice) {
    const bool isNamed =
        choice.slotId || choice.label || choice.serialNumber || choice.manufacturer || choice.model;
    const bool isReady = token.isInitialised && (token.isUserPinSet || !choice.withUserPin);
    return token.isReadable && (isNamed || isReady) && isOrAny(choice.slotId, token.slotId) &&
           isOrAny(choice.label, token.label) && isOrAny(choice.serialNumber, token.serialNumber) &&
           isOrAny(choice.manufacturer, token.manufacturer) && isOrAny(choice.model, token.model);
}

bool mayBe(const TokenInfo& token, const TokenChoice& choice) {
    return fits(token, choice) || (!token.isReadable && isOrAny(choice.slotId, token.slotId));
}

std::string described(const TokenInfo& token) {
    return "\"" + token.label + "\" (serial number " + token.serialNumber + ", slot " +
           std::to_string(token.slotId) + ")";
}

// What was asked for, worded for a message.
std::string described(const TokenChoice& choice) {
    std::string out;
    const auto add = [&](std::string_view name, const std::optional<std::string>& value) {
        if (value) out.append(out.empty() ? " with the " : " and the ").append(name).append(" \"");
        if (value) out.append(*value).append("\"");
    };
    add("label", choice.label);
    add("serial number", choice.serialNumber);
    add("manufacturer", choice.manufacturer);
    add("model", choice.model);
    if (choice.slotId) out.append(" in slot " + std::to_string(*choice.slotId));
    return out;
}

bool noneFits(Calls& calls, const std::vector<TokenInfo>& tokens, const TokenChoice& choice,
              LogBase& log) {
    const auto unread =
        std::ranges::find_if(tokens, [&](const TokenInfo& token) { return mayBe(token, choice); });
    if (unread != tokens.end()) {
        const auto slot = std::to_string(unread->slotId);
        // Asked again for the cause: so far it was a loss that the list could do without.
        CK_TOKEN_INFO info{};
        calls.invoke(log, function::kGetTokenInfo, unread->slotId, &info);
        calls.concerns(unread->slotId);
        return calls.fail(log, FailureKind::ModuleFailed,
                          "The token in slot " + slot + " cannot be read.");
    }
    const std::string what = described(choice);
    if (tokens.empty() && what.empty()) {
        calls.fail(log, FailureKind::NoToken, "No slot holds a token.");
        calls.hint(log, kNoTokenHint);
        return false;
    }
    return calls.fail(
        log, FailureKind::NoToken,
        what.empty() ? "No token is ready for use." : "There is no token" + what + ".");
}

// Adds what the module says about the token in a slot. False if nothing more can be asked.
bool addToken(Calls& calls, CK_SLOT_ID slot, std::vector<TokenInfo>& tokens, LogBase& log) {
    CK_TOKEN_INFO info{};
    const auto rv = calls.ask(log, function::kGetTokenInfo, slot, &info);
    if (!rv) return false;
    if (rv == CKR_TOKEN_NOT_PRESENT) return true;  // the slot has become empty
    if (rv == CKR_OK) {
        tokens.push_back(toTokenInfo(slot, info));
        return true;
    }
    calls.reportLoss(function::kGetTokenInfo, *rv, log);
    log.LogDataUnsigned("slotId", slot);
    ++calls.numLeftOut;
    tokens.emplace_back().slotId = slot;
    return calls.state.m_initialized;
}

}  // namespace

bool readTokens(Calls& calls, std::optional<CK_SLOT_ID> slotId, std::vector<TokenInfo>& tokens,
                LogBase& log) {
    std::vector<CK_SLOT_ID> slots;
    if (!getSlots(calls, true, slots, log)) return false;
    return std::ranges::all_of(slots, [&](CK_SLOT_ID slot) {
        return !isOrAny(slotId, slot) || addToken(calls, slot, tokens, log);
    });
}

bool chooseToken(Calls& calls, const TokenChoice& choice, TokenInfo& chosen, LogBase& log) {
    std::vector<TokenInfo> tokens;
    if (!readTokens(calls, choice.slotId, tokens, log)) return false;
    std::vector<const TokenInfo*> fitting;
    for (const TokenInfo& token : tokens) {
        if (fits(token, choice)) fitting.push_back(&token);
    }
    if (fitting.empty()) return noneFits(calls, tokens, choice, log);
    if (fitting.size() > 1) {
        std::string list;
        for (const TokenInfo* const token : fitting)
            list.append(list.empty() ? "" : ", ").append(described(*token));
        calls.fail(log, FailureKind::SeveralTokens, "Several tokens fit: " + list + ".");
        calls.hint(log, "Choose one by label, serial number or slot.");
        return false;
    }
    chosen = *fitting.front();
    return true;
}

bool isStillThere(Calls& calls, const TokenInfo& chosen, LogBase& log) {
    CK_TOKEN_INFO info{};
    if (!calls.invoke(log, function::kGetTokenInfo, chosen.slotId, &info)) return false;
    const TokenInfo now = toTokenInfo(chosen.slotId, info);
    return (now.label == chosen.label && now.serialNumber == chosen.serialNumber) ||
           calls.fail(log, FailureKind::TokenGone, "The token was replaced by another.");
}

}  // namespace mervane::operation
