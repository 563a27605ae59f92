// A certificate's bytes, with every reader.

#include "foundation/x509/certificate.h"
#include "fuzz/fuzz.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LogNull log;
    const auto cert = Certificate::createFromDer({data, size}, log);
    if (!cert) return 0;
    fuzz::require(cert->der().size() <= size);
    XString text;
    StringBuffer xml;
    std::string notBefore;
    std::string notAfter;
    cert->getSubjectDN(text, log);
    cert->getSubjectDN_noTags(text, log);
    cert->getIssuerDN(text, log);
    for (const char* const part : {"CN", "E", "2.5.4.5"}) cert->getSubjectPart(part, text, log);
    cert->getIssuerPart("CN", text, log);
    cert->getSerialNumber(text, log);
    cert->getSha1ThumbprintX(text, log);
    cert->getIntendedKeyUsage(log);
    cert->getValidity(notBefore, notAfter);
    for (const char* const oid :
         {"2.5.29.32", "2.5.29.15", "2.5.29.37", "2.5.29.19", "2.5.29.17", "2.5.29.14"}) {
        cert->getExtensionXml(oid, xml, log);
    }
    int bits = 0;
    const int type = cert->getCertKeyType(bits, log);
    _mvPublicKey key;
    fuzz::require(cert->getCertPublicKey(key, log) == (type != 0));
    DataBuffer point;
    if (key.getEccKey() != nullptr) key.getEccKey()->exportEccPoint(point, log);
    return 0;
}
