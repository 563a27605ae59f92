// Calls FindCert with the two strings of the input, "part NUL value", on a cache filled by hand.

#include "fuzz/fuzz.h"
#include "tests/support.h"

using namespace mervane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static test::Pkcs11 token;
    for (const char* const name : {"alice", "bob", "p256"}) {
        if (!token.m_certsLoaded) token.m_certs.appendObject(std::make_unique<CertificateHolder>(test::loadCert(name)));
    }
    token.m_certsLoaded = true;
    const std::string_view text = fuzz::asText(data, size);
    const auto end = text.find('\0');
    const XString part(text.substr(0, end));
    const XString value(end == std::string_view::npos ? std::string_view() : text.substr(end + 1));
    ClsCert cert;
    const bool found = token.FindCert(part, value, cert);
    fuzz::require(found == (cert.getCert() != nullptr));
    return 0;
}
