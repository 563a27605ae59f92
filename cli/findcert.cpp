// find-cert: one certificate, with its private key.
//
// "privateKey" asks for the certificate to sign with, which the library chooses by its merits; any
// other part is compared as FindCert does.

#include <algorithm>
#include <functional>
#include <iostream>

#include <mervane/foundation/text/ascii.h>

#include "certview.h"
#include "commands.h"
#include "output.h"
#include "parts.h"
#include "savefile.h"
#include "token.h"
#include "words.h"

namespace mervane::cli {
namespace {

// The one certificate that fits; copies of it count as one.
void findWhere(ClsPkcs11& p11, const std::function<bool(ClsCert&)>& fits, ClsCert& cert,
               int& numLeftOut) {
    if (!p11.FindAllCerts()) throwLastFailure(p11);
    numLeftOut = p11.get_NumLeftOut();
    std::vector<int> fitting;
    std::vector<std::uint8_t> first;
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        ClsCert checked;
        if (!p11.GetCert(i, checked)) throwLastFailure(p11);
        if (fits(checked)) fitting.push_back(i);
    }
    if (fitting.empty())
        throw CommandError{Exit::NotFound, "No certificate on the token fits.", {}};
    for (const int i : fitting) {
        if (!p11.GetCert(i, cert)) throwLastFailure(p11);
        if (i == fitting.front()) first = cert.ExportDer();
        if (cert.ExportDer() != first)
            throw CommandError{Exit::Usage,
                               "Several certificates fit, such as " +
                                   std::to_string(fitting.front()) + " and " + std::to_string(i) +
                                   ".",
                               "mervane-p11 certs lists them."};
    }
}

void choose(ClsPkcs11& p11, const Part& part, const Options& options, const std::string& value,
            ClsCert& cert, int& numLeftOut) {
    const auto property = part.name == "label"    ? &ClsCert::get_Label
                          : part.name == "id"     ? &ClsCert::get_CkaId
                          : part.name == "sha256" ? &ClsCert::get_Sha256Thumbprint
                                                  : nullptr;
    if (property != nullptr) {
        findWhere(
            p11, [&](ClsCert& checked) { return read(checked, property) == value; }, cert,
            numLeftOut);
        return;
    }
    const bool isFound = part.name == "privateKey"
                             ? p11.FindSigner({}, cert)
                             : p11.FindCert(partNameFor(options.arguments[0]), value, cert);
    numLeftOut = p11.get_NumLeftOut();
    if (!isFound) throwLastFailure(p11);
}

// What the certificate has where the part asks for a text; nothing where it does not.
std::optional<std::string> textIn(ClsCert& cert, const Part& part, const std::string& word) {
    const auto fields = cert.getCert();
    std::string name(trimmed(word));
    std::ranges::transform(name, name.begin(), toUpperAscii);
    if (name == "ORGANIZATION") name = "O";
    if (name == "EMAIL") name = "E";
    LogNull log;
    XString text;
    if (part.name == "label") return read(cert, &ClsCert::get_Label);
    if (part.form == Form::SerialAndIssuer)
        return read(cert, &ClsCert::get_SerialNumber) + ":" + read(cert, &ClsCert::get_IssuerCN);
    const bool isRead = part.name == "subjectDN"  ? fields->getSubjectDN_noTags(text, log)
                        : part.form == Form::Name ? fields->getSubjectDN(text, log)
                                                  : fields->getSubjectPart(name.c_str(), text, log);
    return isRead ? std::optional(std::string(text.view())) : std::nullopt;
}

// A remark on a certificate that would have fitted but for its letter case.
std::string nearMiss(ClsPkcs11& p11, const Part& part, const std::string& word,
                     const std::string& value) {
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        ClsCert cert;
        if (!p11.GetCert(i, cert)) return {};
        const auto text = textIn(cert, part, word);
        if (text && isSameButForCase(*text, value))
            return "Certificate " + std::to_string(i) +
                   " differs only in letter case: " + printable(*text);
    }
    return {};
}

// The certificate that the URI names, by ID and label.
void findByUri(ClsPkcs11& p11, const Pkcs11Uri& uri, ClsCert& cert, int& numLeftOut) {
    const auto fits = [&](ClsCert& checked) {
        const Pkcs11Uri has = uriOfCert(TokenInfo(), checked);
        return (!uri.id || uri.id == has.id) && (!uri.object || uri.object == has.object);
    };
    findWhere(p11, fits, cert, numLeftOut);
}

int indexOf(ClsPkcs11& p11, ClsCert& wanted) {
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        ClsCert cert;
        if (p11.GetCert(i, cert) && cert.getCert() == wanted.getCert()) return i;
    }
    return -1;
}

void save(ClsCert& cert, const std::string& path) {
    const auto der = cert.ExportDer();
    const std::string text =
        path.ends_with(".der") ? std::string(der.begin(), der.end()) : cert.ExportPem();
    saveFile(path, text);
}

void printFound(ClsCert& cert, const KeyView& key) {
    std::string privateKey = privateKeyFor(key);
    if (key.link)
        privateKey = "handle " + privateKey + ", " +
                     std::to_string(key.link->expectedSignatureSize) + "-byte signatures";
    printFields(
        {{"Certificate", subjectFor(cert)},
         {"Issuer", issuerFor(cert)},
         {"Serial number", read(cert, &ClsCert::get_SerialNumber)},
         {"SHA-1 thumbprint", read(cert, &ClsCert::get_Sha1Thumbprint)},
         {"SHA-256 thumbprint", read(cert, &ClsCert::get_Sha256Thumbprint)},
         {"Valid",
          read(cert, &ClsCert::get_NotBefore) + " to " + read(cert, &ClsCert::get_NotAfter)},
         {"Use", useFor(cert)},
         {"Key", keyFor(cert)},
         {"ID, label", read(cert, &ClsCert::get_CkaId) + ", " + read(cert, &ClsCert::get_Label)},
         {"Private key", privateKey},
         {"Found by", foundByFor(key)},
         {"Signs", signsFor(key)}});
    for (const std::string& line : explanationFor(key)) std::cout << line << '\n';
}

}  // namespace

Exit runFindCert(ClsPkcs11& p11, const Options& options) {
    const bool isByUri = options.arguments.empty();
    if (isByUri && !(options.uri && options.uri->namesObject()))
        usageError("find-cert takes PART [VALUE], or the URI of a certificate with --uri.");
    if (!isByUri && options.uri && options.uri->namesObject())
        usageError("find-cert takes a PART or the URI of a certificate, not both.");
    const Part& part = partOf(isByUri ? "" : options.arguments[0]);
    const std::string given = options.arguments.size() > 1 ? options.arguments[1] : "";
    const std::string value = comparable(part, given);
    const bool isToOutput = options.out == "-";
    const bool mayAsk = part.name == "privateKey";
    if (options.noLogin && !mayAsk)
        usageError("Only find-cert privateKey asks for a PIN, so --no-login is without effect.");
    if (isToOutput && options.json) usageError("--out - and --json cannot both be printed.");
    const OpenedToken opened = openToken(p11, options, mayAsk ? LoginIf::Needed : LoginIf::Told);
    ClsCert cert;
    int numLeftOut = 0;
    try {
        isByUri ? findByUri(p11, *options.uri, cert, numLeftOut)
                : choose(p11, part, options, value, cert, numLeftOut);
    } catch (CommandError& error) {
        sayLeftOut(numLeftOut);
        if (error.status == Exit::NotFound && part.takesValue && error.hint.empty())
            error.hint = nearMiss(p11, part, options.arguments[0], value);
        throw;
    }
    if (!cert.HasPrivateKey()) numLeftOut += linkKey(p11, cert, options);
    const KeyView key = keyViewOf(p11, cert, opened.token, opened.isLoggedIn, options.explain);
    if (options.out) save(cert, *options.out);
    sayLeftOut(numLeftOut);
    if (key.isGuess())
        remark("The key is a GUESS: nothing shows that it belongs to the certificate.");
    if (options.json) {
        JsonPrinter document;
        document.member("loggedIn", JsonValue(opened.isLoggedIn));
        printCert(document, cert, {indexOf(p11, cert), opened.token, options.pem}, &key);
        if (numLeftOut != 0) document.member("leftOut", JsonValue(numLeftOut));
        document.finish();
    } else if (!isToOutput) {
        printFound(cert, key);
    }
    return Exit::Done;
}

}  // namespace mervane::cli
