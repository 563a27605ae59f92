// The two strings of FindCert, over a cache filled by hand. The input is "part NUL value".

#include "foundation/text/hex.h"
#include "fuzz/fuzz.h"
#include "pkcs11/clspkcs11.h"

using namespace mervane;

namespace {

// A certificate on P-256 with key usage and policies.
constexpr std::string_view kCert =
    "308201B83082015DA003020102020201FF300A06082A8648CE3D040302302B310B3009060355040613024558311030"
    "0E0603"
    "55040A0C074578616D706C65310A300806035504030C0141301E170D3236313132313035303635365A170D33363131"
    "313830"
    "35303635365A302B310B30090603550406130245583110300E060355040A0C074578616D706C65310A300806035504"
    "030C01"
    "413059301306072A8648CE3D020106082A8648CE3D03010703420004B024392060C6B8DFA800E39F7267C4A2D7AD72"
    "CA4CB8"
    "FE67257BC50406EFEAEDDF6D930594A9B030A39B1F9B9DECBF1E0AF1C43A613A400FB4EDBD28A9369131A371306F30"
    "1D0603"
    "551D0E04160414A1C6A047282EE0A73D47A4FF90DBCBA4AD206637301F0603551D23041830168014A1C6A047282EE0"
    "A73D47"
    "A4FF90DBCBA4AD206637300F0603551D130101FF040530030101FF300B0603551D0F0404030206C0300F0603551D20"
    "040830"
    "06300406022A03300A06082A8648CE3D0403020349003046022100BF9B36583D3D0C23BB801536E35481C9764477BF"
    "B4B29C"
    "735D2C676055BB792F022100BF70E93BD5363E5F3553F3C6A1CA17A9CFD748342740FDF3A83CE30184DC36C6";

class Filled final : public ClsPkcs11 {
  public:
    Filled() {
        LogNull log;
        const auto der = *fromHex(kCert);
        for (int i = 0; i < 3; ++i) {
            auto cert = Certificate::createFromDer(der, log);
            fuzz::require(cert != nullptr);
            m_certs.appendObject(std::make_unique<CertificateHolder>(std::move(cert)));
        }
        m_certsLoaded = true;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Filled& token = *std::make_unique<Filled>().release();
    const std::string_view text = fuzz::asText(data, size);
    const auto end = text.find('\0');
    const XString part(text.substr(0, end));
    const XString value(end == std::string_view::npos ? std::string_view() : text.substr(end + 1));
    ClsCert cert;
    const bool found = token.FindCert(part, value, cert);
    fuzz::require(found == (cert.getCert() != nullptr));
    return 0;
}
