// test: every private key that belongs to a certificate signs a random number, which is verified
// with the certificate.

#include <algorithm>
#include <array>

#include <mervane/locate/uri.h>

#include "certview.h"
#include "commands.h"
#include "output.h"
#include "token.h"

namespace mervane::cli {
namespace {

enum class Result : unsigned char {
    Ok,
    Failed,
    NotTheCertificates,
    NotVerified,
    MayNotSign,
    None,
    Unknown,  // nobody is logged in, so it may be hidden
};

// In JSON, and for people.
constexpr std::array<std::string_view, 7> kNames = {
    "ok", "failed", "notTheCertificates", "notVerified", "mayNotSign", "none", "unknown"};
constexpr std::array<std::string_view, 7> kTexts = {"OK",
                                                    "FAILED",
                                                    "FAILED: not the certificate's key",
                                                    "signed, not verified",
                                                    "may not sign",
                                                    "no key",
                                                    "unknown (not logged in)"};

// What became of one key.
struct Outcome {
    Result result;
    std::string message{};  // of a failure
    std::string rvName{};
};

std::string textFor(const Outcome& outcome) {
    std::string text(kTexts[static_cast<std::size_t>(outcome.result)]);
    if (outcome.result != Result::Failed) return text;
    return text + " " + (outcome.rvName.empty() ? outcome.message : outcome.rvName);
}

Outcome outcomeOf(ClsPkcs11& p11, ClsCert& cert, bool isAllSeen) {
    LogNull log;
    const bool isLinked = p11.linkCertToPkcs11Session(cert.getCert().get(), true, log);
    if (!isLinked && p11.lastFailure().kind == FailureKind::NotFound)
        return {isAllSeen ? Result::None : Result::Unknown};
    KeyProof proof{};
    if (isLinked && p11.ProveKey(cert, proof))
        return {proof == KeyProof::Proved      ? Result::Ok
                : proof == KeyProof::Disproved ? Result::NotTheCertificates
                                               : Result::NotVerified};
    const Failure failure = p11.lastFailure();
    if (failure.kind == FailureKind::KeyMayNotSign) return {Result::MayNotSign};
    return {Result::Failed, failure.cause, failure.rvName()};
}

void printJson(ClsPkcs11& p11, const std::vector<Outcome>& outcomes, const OpenedToken& opened) {
    JsonPrinter document;
    document.member("loggedIn", JsonValue(opened.isLoggedIn));
    document.beginList("keys");
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        ClsCert cert;
        if (!p11.GetCert(static_cast<int>(i), cert)) throwLastFailure(p11);
        const auto link = cert.PrivateKeyLink();
        document.beginItem();
        document.member("index", JsonValue(static_cast<int>(i)));
        document.text("subject", read(cert, &ClsCert::get_SubjectDN));
        document.text("result", kNames[static_cast<std::size_t>(outcomes[i].result)]);
        document.member("handle", link ? JsonValue(link->keyHandle) : JsonValue());
        const auto uri = uriOfKey(opened.token, cert);
        document.member("uri", uri ? JsonValue(uri->text()) : JsonValue());
        document.member("message",
                        outcomes[i].message.empty() ? JsonValue() : JsonValue(outcomes[i].message));
        document.member("rvName",
                        outcomes[i].rvName.empty() ? JsonValue() : JsonValue(outcomes[i].rvName));
        document.endItem();
    }
    document.endList();
    document.finish();
}

void printTable(ClsPkcs11& p11, const std::vector<Outcome>& outcomes, std::size_t width) {
    Table table({"WHO", "KEY", "RESULT"});
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        ClsCert cert;
        if (!p11.GetCert(static_cast<int>(i), cert)) throwLastFailure(p11);
        table.add({whoFor(cert), keyFor(cert), textFor(outcomes[i])});
    }
    table.print(width);
}

}  // namespace

Exit runTest(ClsPkcs11& p11, const Options& options) {
    const OpenedToken opened = openToken(p11, options, LoginIf::ToSign);
    if (!p11.FindAllCerts()) throwLastFailure(p11);
    const bool isAllSeen = opened.isLoggedIn || !opened.token.needsLogin;
    std::vector<Outcome> outcomes;
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        ClsCert cert;
        if (!p11.GetCert(i, cert)) throwLastFailure(p11);
        outcomes.push_back(outcomeOf(p11, cert, isAllSeen));
    }
    // A session that broke in between has taken the list with it.
    if (p11.get_NumCerts() != static_cast<int>(outcomes.size())) throwLastFailure(p11);
    if (options.json) {
        printJson(p11, outcomes, opened);
    } else {
        printTable(p11, outcomes, options.wide ? 0 : terminalWidth());
    }
    const auto number = [&](Result result) {
        return static_cast<std::size_t>(std::ranges::count(outcomes, result, &Outcome::result));
    };
    if (number(Result::Unknown) != 0)
        remark("The user is not logged in, so private keys may be hidden; --login shows them.");
    const std::size_t numUntried =
        number(Result::None) + number(Result::Unknown) + number(Result::MayNotSign);
    if (numUntried == outcomes.size()) return Exit::NotFound;
    return numUntried + number(Result::Ok) == outcomes.size() ? Exit::Done : Exit::Module;
}

}  // namespace mervane::cli
