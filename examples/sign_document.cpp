// Signs what comes on standard input as CMS, for `openssl cms -verify -inform DER`.
#include <mervane/pkcs11/clspkcs11.h>
#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {  // MODULE TOKEN CERTIFICATE, by label; PIN is in the environment
    if (argc != 4 || std::getenv("PIN") == nullptr) return 2;
    mervane::ClsPkcs11 token;
    token.put_SharedLibPath(argv[1]);
    mervane::ClsCert cert;
    std::vector<std::uint8_t> document;
    const auto input = [](std::span<std::uint8_t> room) {
        std::cin.read(reinterpret_cast<char*>(room.data()), std::ssize(room));
        return std::cin.bad() ? -1 : std::cin.gcount();
    };
    if (!token.OpenToken({.label = argv[2]}, false) || !token.Login(1, std::getenv("PIN")) ||
        !token.FindSigner({.label = argv[3]}, cert) || !token.SignCms(cert, input, {}, document))
        return std::cerr << token.lastFailure().cause << '\n', 1;
    std::cout.write(reinterpret_cast<const char*>(document.data()), std::ssize(document));
}
