// certs, find-cert and match.

#include <fstream>
#include <iostream>

#include <mervane/foundation/text/hex.h>
#include <mervane/foundation/text/utf8.h>

#include "commands.h"
#include "output.h"
#include "token.h"

namespace mervane::cli {
namespace {

// Keeps the log line that explains how a key was found, or why none was.
class HowCatcher final : public LogBase {
  public:
    [[nodiscard]] const std::string& how() const noexcept { return m_how; }

  private:
    void write(Kind kind, std::string_view, std::string_view text) noexcept override {
        // The note on EC certificates and the closing line are less specific than those between.
        const bool isNote = text == "Certificate key type is ECDSA." ||
                            (text == "No matching private key found on the HSM." && !m_how.empty());
        if (kind == Kind::Data || kind == Kind::Hint || isNote) return;
        try {
            m_how = text;
        } catch (const std::exception&) {
            m_how.clear();  // no memory for a line: the key counts
        }
    }
    void enterContext(std::string_view) noexcept override {}
    void leaveContext() noexcept override {}

    std::string m_how;
};

using TextReader = bool (Certificate::*)(XString&, LogBase&) const;

JsonValue textOrNull(const Certificate& cert, TextReader reader) {
    LogNull log;
    XString text;
    return (cert.*reader)(text, log) ? JsonValue(text.view()) : JsonValue();
}

JsonValue certToJson(const Certificate& cert, int index) {
    LogNull log;
    JsonValue out = JsonValue::object();
    out.set("index", index);
    out.set("subject", textOrNull(cert, &Certificate::getSubjectDN));
    out.set("subjectNoTags", textOrNull(cert, &Certificate::getSubjectDN_noTags));
    out.set("issuer", textOrNull(cert, &Certificate::getIssuerDN));
    XString issuerCn;
    out.set("issuerCN",
            cert.getIssuerPart("CN", issuerCn, log) ? JsonValue(issuerCn.view()) : JsonValue());
    out.set("serialNumber", textOrNull(cert, &Certificate::getSerialNumber));
    out.set("sha1Thumbprint", textOrNull(cert, &Certificate::getSha1ThumbprintX));
    std::string notBefore;
    std::string notAfter;
    const bool hasValidity = cert.getValidity(notBefore, notAfter);
    out.set("notBefore", hasValidity ? JsonValue(notBefore) : JsonValue());
    out.set("notAfter", hasValidity ? JsonValue(notAfter) : JsonValue());
    int bits = 0;
    const int type = cert.getCertKeyType(bits, log);
    out.set("keyType", type == kRsaKey  ? JsonValue("RSA")
                       : type == kEcKey ? JsonValue("EC")
                                        : JsonValue());
    out.set("keyBits", type == 0 ? JsonValue() : JsonValue(bits));
    out.set("ckaId", toHex(cert.tokenInfo().ckaId.span()));
    out.set("label", toValidUtf8(cert.tokenInfo().label));
    return out;
}

JsonValue keyToJson(const Certificate& cert) {
    const auto link = cert.pkcs11Link();
    if (!link) return {};
    JsonValue out = JsonValue::object();
    out.set("handle", link->keyHandle);
    out.set("keyType", link->keyType == kEcKey ? "EC" : "RSA");
    out.set("expectedSignatureSize", link->expectedSignatureSize);
    return out;
}

// Links the certificate to its key, and returns the line that explains how it was found, or why
// none was. A key that could not be looked for is no answer.
std::string linkToKey(ClsPkcs11& p11, Certificate& cert, int& numLeftOut) {
    HowCatcher how;
    const bool isLinked = p11.linkCertToPkcs11Session(&cert, true, how);
    if (!isLinked && p11.lastFailure().kind != FailureKind::NotFound) throwLastError(p11);
    numLeftOut += p11.get_NumLeftOut();
    return how.how();
}

std::shared_ptr<Certificate> certAt(ClsPkcs11& p11, int index) {
    ClsCert cert;
    if (!p11.GetCert(index, cert)) throwLastError(p11);
    return cert.getCert();
}

std::string keyText(const JsonValue& cert) {
    return textOf(cert, "keyType") + " " + textOf(cert, "keyBits");
}

void saveCert(ClsCert& cert, const std::string& path) {
    const auto der = cert.getCert()->der();
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (path.ends_with(".der")) {
        file.write(reinterpret_cast<const char*>(der.data()),
                   static_cast<std::streamsize>(der.size()));
    } else {
        file << cert.ExportPem();
    }
    file.close();  // flushes: a full disk shows here
    if (!file)
        throw CommandError{Exit::Module, "The file " + printable(path) + " cannot be written.", {}};
}

int indexOf(ClsPkcs11& p11, const Certificate& wanted) {
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        if (certAt(p11, i).get() == &wanted) return i;
    }
    return -1;
}

// The line of p11's log that explains how the chosen certificate's key was found.
std::string howFound(const ClsPkcs11& p11) {
    std::string how;
    p11.log().forEach([&how](const _mvLogger::Entry& entry) {
        // "Found matching ..., but it ..." is a key that was found and passed over.
        const bool isFind = entry.text.starts_with("Found matching") &&
                            entry.text.find("but it") == std::string::npos;
        if (entry.what == _mvLogger::Entry::What::Info &&
            (isFind || entry.text.starts_with("Using ")))
            how = entry.text;
    });
    return how;
}

// Reads the certificates and prints what `describe` makes of each, as JSON or, through `toRow`, as
// a table.
template <class Describe, class ToRow>
Exit listCerts(ClsPkcs11& p11, const Options& options, std::vector<std::string> heading,
               Describe describe, ToRow toRow) {
    openToken(p11, options, false);
    if (!p11.FindAllCerts()) throwLastError(p11);
    int numLeftOut = p11.get_NumLeftOut();
    JsonList list("certs");
    Table table(std::move(heading));
    const int numCerts = p11.get_NumCerts();
    for (int i = 0; i < numCerts; ++i) {
        const JsonValue record = describe(*certAt(p11, i), i, numLeftOut);
        if (options.json) {
            list.add(record);
        } else {
            table.add(toRow(record));
        }
    }
    options.json ? list.print(numLeftOut) : table.print();
    sayLeftOut(numLeftOut);
    return Exit::Done;
}

}  // namespace

Exit runCerts(ClsPkcs11& p11, const Options& options) {
    return listCerts(
        p11, options, {"#", "SUBJECT", "KEY", "SERIAL", "NOT AFTER", "ID", "LABEL"},
        [](Certificate& cert, int index, int&) { return certToJson(cert, index); },
        [](const JsonValue& record) {
            return std::vector{
                textOf(record, "index"),        textOf(record, "subject"),  keyText(record),
                textOf(record, "serialNumber"), textOf(record, "notAfter"), textOf(record, "ckaId"),
                textOf(record, "label")};
        });
}

Exit runFindCert(ClsPkcs11& p11, const Options& options) {
    openToken(p11, options, false);
    const XString part(options.arguments[0]);
    const XString value(options.arguments.size() > 1 ? options.arguments[1] : "");
    ClsCert cert;
    if (!p11.FindCert(part, value, cert)) {
        throwLastError(p11);
    }
    const auto chosen = cert.getCert();
    int numLeftOut = p11.get_NumLeftOut();
    std::string how = cert.HasPrivateKey() ? howFound(p11) : std::string();
    if (how.empty()) how = linkToKey(p11, *chosen, numLeftOut);
    JsonValue record = certToJson(*chosen, indexOf(p11, *chosen));
    record.set("privateKey", keyToJson(*chosen));
    if (options.out) saveCert(cert, *options.out);
    sayLeftOut(numLeftOut);
    if (options.json) {
        printJson(record);
        return Exit::Done;
    }
    const JsonValue& key = *record.find("privateKey");
    printFields({{"Certificate", textOf(record, "subject")},
                 {"Issuer", textOf(record, "issuer")},
                 {"Serial number", textOf(record, "serialNumber")},
                 {"SHA-1 thumbprint", textOf(record, "sha1Thumbprint")},
                 {"Valid", textOf(record, "notBefore") + " to " + textOf(record, "notAfter")},
                 {"Key", keyText(record)},
                 {"ID, label", textOf(record, "ckaId") + ", " + textOf(record, "label")},
                 {"Private key", key.isNull() ? "none"
                                              : "handle " + textOf(key, "handle") + ", " +
                                                    textOf(key, "expectedSignatureSize") +
                                                    "-byte signatures"},
                 {"Found by", how}});
    return Exit::Done;
}

Exit runMatch(ClsPkcs11& p11, const Options& options) {
    return listCerts(
        p11, options, {"#", "SUBJECT", "KEY", "ID", "PRIVATE KEY", "HOW"},
        [&p11](Certificate& cert, int index, int& numLeftOut) {
            const std::string how = linkToKey(p11, cert, numLeftOut);
            JsonValue record = certToJson(cert, index);
            record.set("privateKey", keyToJson(cert));
            record.set("how", how);
            return record;
        },
        [](const JsonValue& record) {
            const JsonValue& key = *record.find("privateKey");
            return std::vector{textOf(record, "index"),
                               textOf(record, "subject"),
                               keyText(record),
                               textOf(record, "ckaId"),
                               key.isNull() ? std::string("none") : textOf(key, "handle"),
                               textOf(record, "how")};
        });
}

}  // namespace mervane::cli
