// Reading the token's certificate objects into the cache.
//
// Each object is one C_GetAttributeValue. An object that cannot be read or is not an X.509
// certificate is logged and skipped; it never hides the others. The new list is swapped in only
// when it is complete.

#include <array>

#include "foundation/text/bytes.h"
#include "foundation/x509/certificate.h"
#include "pkcs11/calls/attrs.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/calls/search.h"

namespace mervane::operation {
namespace {

enum Column : std::size_t { kValue, kId, kLabel, kType };

// Room for more than real cards hold; a longer value costs two more calls.
constexpr std::array kRows = {
    AttrRow{CKA_VALUE, AttrKind::Bytes, 8192},
    AttrRow{CKA_ID, AttrKind::Bytes, 1024},
    AttrRow{CKA_LABEL, AttrKind::Bytes, 1024},
    AttrRow{CKA_CERTIFICATE_TYPE, AttrKind::Number},
};

// Bound on all certificates of a token together, far beyond what tokens hold.
constexpr std::size_t kMaxTotalSize = std::size_t{256} * 1024 * 1024;

// Null, with a log line, unless the object is an X.509 certificate.
std::shared_ptr<Certificate> toCertificate(Calls& calls, const ObjectReader& reader,
                                           CK_OBJECT_HANDLE handle, LogBase& log) {
    const auto value = reader.bytes(kValue);
    std::shared_ptr<Certificate> cert;
    if (reader.number(kType).value_or(CKC_X_509) != CKC_X_509) {
        log.LogInfo("A certificate object is passed over: it is not an X.509 certificate.");
        log.LogDataUnsigned("objectHandle", handle);
        return nullptr;
    }
    if (!value || value->empty()) {
        log.LogError("A certificate object is passed over: its value cannot be read.");
    } else {
        TokenCertInfo token;
        token.handle = handle;
        token.ckaId.assign(reader.bytesOrNone(kId));
        token.label = asChars(reader.bytesOrNone(kLabel));
        cert = Certificate::createFromDer(*value, std::move(token), log);
    }
    if (!cert) {
        log.LogDataUnsigned("objectHandle", handle);
        calls.leaveOut(handle);
    }
    return cert;
}

}  // namespace

bool cacheCerts(Calls& calls, LogBase& log) {
    const LogContextExitor context(log, "findAllCerts");
    ObjectQuery query(CKO_CERTIFICATE);
    std::vector<CK_OBJECT_HANDLE> handles;
    if (!calls.ready(log, function::kGetAttributeValue) ||
        !findObjects(calls, query.attributes(), kMaxObjects, handles, log)) {
        return false;
    }
    ExtPtrArray certs;
    certs.reserve(handles.size());
    ObjectReader reader(calls, kRows);
    const std::uint64_t session = calls.use.session();
    std::size_t numUnreadable = 0;
    std::size_t totalSize = 0;
    for (const CK_OBJECT_HANDLE handle : handles) {
        if (!reader.read(handle, log)) {
            // A single object may have gone; a session that has gone ends the read.
            if (!calls.hasOpenSession()) return false;
            ++numUnreadable;
            continue;
        }
        auto cert = toCertificate(calls, reader, handle, log);
        if (!cert) continue;
        totalSize += cert->der().size();
        if (totalSize > kMaxTotalSize) {
            log.LogError("The certificates are too large together; the rest is left out.");
            ++calls.numLeftOut;
            break;
        }
        certs.appendObject(std::make_unique<CertificateHolder>(std::move(cert)));
    }
    log.LogDataLong("numCerts", certs.getSize());
    if (numUnreadable != 0 && numUnreadable == handles.size()) {
        calls.noteFailure(FailureKind::ModuleFailed, "None of the certificates can be read.");
        return false;
    }
    if (calls.use.session() != session) return calls.sessionChanged(log);
    calls.state.m_certs.swap(certs);
    calls.state.m_certsLoaded = true;
    // Keys may have come and gone as well.
    calls.state.clearPrivateKeyCaches();
    return true;
}

}  // namespace mervane::operation
