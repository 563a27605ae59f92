// SHA-256 as processors without SHA instructions compute it: the digests are built here without them.

#include <openssl/evp.h>

#include <cstdio>

#include "foundation/digest/digest.h"
#include "foundation/digest/sha256x86.h"

namespace mervane::sha256x86 {
bool isAvailable() noexcept { return false; }
void addBlocks(std::array<std::uint64_t, 8>&, const std::uint8_t*, std::size_t) noexcept {}
}  // namespace mervane::sha256x86

int main() {
    int numWrong = 0;
    for (std::size_t size = 0; size < 400; ++size) {
        const std::vector<std::uint8_t> data(size, static_cast<std::uint8_t>(size));
        std::vector<std::uint8_t> wanted(32);
        EVP_Digest(data.data(), size, wanted.data(), nullptr, EVP_sha256(), nullptr);
        numWrong += mervane::digestOf(mervane::Hash::Sha256, data) == wanted ? 0 : 1;
    }
    std::printf("%d of 400 digests are wrong\n", numWrong);
    return numWrong == 0 ? 0 : 1;
}
