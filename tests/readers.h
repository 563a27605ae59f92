#ifndef MERVANE_TESTS_READERS_H
#define MERVANE_TESTS_READERS_H

#include "foundation/x509/certificate.h"

namespace mervane::test {

/// Calls every reader on the certificate in `der`. False if it is no certificate.
inline bool readAll(der::Bytes der) {
    LogNull log;
    const auto cert = Certificate::createFromDer(der, log);
    if (!cert) return false;
    XString text;
    StringBuffer xml;
    std::string from, to;
    cert->getSubjectDN(text, log);
    cert->getSubjectDN_noTags(text, log);
    for (const char* const part : {"CN", "E", "2.5.4.5"}) cert->getSubjectPart(part, text, log);
    cert->getIssuerDN(text, log);
    cert->getIssuerPart("CN", text, log);
    cert->getSerialNumber(text, log);
    cert->getSha1ThumbprintX(text, log);
    cert->getIntendedKeyUsage(log);
    for (const char* const oid : {"2.5.29.32", "2.5.29.15", "2.5.29.14"}) cert->getExtensionXml(oid, xml, log);
    cert->getValidity(from, to);
    int bits = 0;
    _mvPublicKey key;
    DataBuffer point;
    const int type = cert->getCertKeyType(bits, log);
    const bool hasKey = cert->getCertPublicKey(key, log);
    // 16384 bits are the largest of either kind.
    if (hasKey != (type != 0) || hasKey != (bits > 0 && bits <= 16384) || hasKey != (cert->expectedSignatureSize(log) > 0)) std::abort();
    cert->getKeyAlgorithm(text, log);
    if (key.getEccKey() != nullptr && key.getEccKey()->exportEccPoint(point, log) == key.getEccKey()->comparablePoints()[0].isEmpty()) std::abort();
    return true;
}

}  // namespace mervane::test

#endif
