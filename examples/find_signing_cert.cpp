#include <mervane/pkcs11/clspkcs11.h>
#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {  // MODULE TOKEN CERTIFICATE, by label; PIN is in the environment
    if (argc != 4 || std::getenv("PIN") == nullptr) return 2;
    mervane::ClsPkcs11 token;
    token.put_SharedLibPath(argv[1]);
    mervane::ClsCert cert;
    if (!token.OpenToken({.label = argv[2]}, false) || !token.Login(1, std::getenv("PIN")) ||
        !token.FindSigner({.label = argv[3]}, cert))
        return std::cerr << token.lastFailure().cause << '\n', 1;
    std::cout << "Private key: handle " << cert.PrivateKeyLink()->keyHandle << '\n';
}
