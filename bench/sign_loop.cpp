// 200 signatures in one login, beside the bare C_SignInit and C_Sign of the same key on the same
// token. Both take turns, a round of 20 signatures each, so that the load of the machine hits both;
// the medians are compared.
//
// usage: sign_loop MODULE TOKEN_LABEL PIN CERTIFICATE_LABEL

#include <algorithm>
#include <array>
#include <chrono>
#include <vector>

#include "bench/raw_module.h"
#include "pkcs11/clspkcs11.h"

using namespace mervane;
using bench::RawModule;

namespace {

constexpr int kRounds = 31;
constexpr int kSignatures = 20;  // of a round

template <class Work>
double microseconds(Work work) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kSignatures; ++i) work();
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
    return time.count() / kSignatures;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

// Each has its own session; objects have one handle in all of them.
void signBare(RawModule& module, CK_OBJECT_HANDLE key, bool isRsa,
              std::vector<std::uint8_t>& data) {
    CK_MECHANISM mechanism{isRsa ? CKM_RSA_PKCS : CKM_ECDSA, nullptr, 0};
    std::array<CK_BYTE, 2048> room{};
    CK_ULONG size = room.size();
    RawModule::check(module.functions->C_SignInit(module.session, &mechanism, key), "C_SignInit");
    RawModule::check(
        module.functions->C_Sign(module.session, data.data(), data.size(), room.data(), &size),
        "C_Sign");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    ClsPkcs11 token;
    ClsCert cert;
    token.put_SharedLibPath(argv[1]);
    if (!token.OpenToken({.label = argv[2]}, false) || !token.Login(1, argv[3]) ||
        !token.FindSigner({.label = argv[4]}, cert)) {
        std::cerr << token.lastFailure().cause << '\n';
        return 1;
    }
    // The module is initialised by now: its functions are used as they are.
    RawModule module(argv[1], argv[2], nullptr, false, true);
    const auto link = *cert.PrivateKeyLink();
    const bool isRsa = link.keyType == 1;
    std::vector<std::uint8_t> info(isRsa ? 51 : 32, 0x30);  // as long as a DigestInfo, or a digest
    const std::vector<std::uint8_t> data(32, 'x');
    std::vector<std::uint8_t> signature;
    std::vector<double> bare;
    std::vector<double> ours;
    for (int round = 0; round < kRounds; ++round) {
        bare.push_back(microseconds([&] { signBare(module, link.keyHandle, isRsa, info); }));
        ours.push_back(microseconds([&] {
            if (!token.SignData(cert, data, {}, signature)) std::exit(1);
        }));
    }
    std::cout << argv[4] << ": bare " << median(bare) << " us, SignData " << median(ours)
              << " us, ratio " << median(ours) / median(bare) << '\n';
    return 0;
}
