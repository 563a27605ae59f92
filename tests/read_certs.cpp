// Reads DER files and prints one JSON line for each, for comparison with another reader.
//
// usage: read_certs FILE...

#include <fstream>
#include <iostream>
#include <iterator>

#include "foundation/json/writer.h"
#include "foundation/x509/certificate.h"

using namespace mervane;

namespace {

JsonValue describe(const Certificate& cert) {
    LogNull log;
    JsonValue out = JsonValue::object();
    const auto text = [&](const char* name, bool (Certificate::*reader)(XString&, LogBase&) const) {
        XString value;
        out.set(name, (cert.*reader)(value, log) ? JsonValue(value.view()) : JsonValue());
    };
    text("subject", &Certificate::getSubjectDN);
    text("issuer", &Certificate::getIssuerDN);
    text("serialNumber", &Certificate::getSerialNumber);
    text("sha1Thumbprint", &Certificate::getSha1ThumbprintX);
    std::string from, to;
    cert.getValidity(from, to);
    out.set("notBefore", from);
    out.set("notAfter", to);
    out.set("keyUsage", cert.getIntendedKeyUsage(log));
    int bits = 0;
    out.set("keyType", cert.getCertKeyType(bits, log));
    out.set("keyBits", bits);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    LogNull log;
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        const auto cert = Certificate::createFromDer({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, log);
        std::cout << (cert ? toJsonText(describe(*cert), false) : "null") << '\n';
    }
    return 0;
}
