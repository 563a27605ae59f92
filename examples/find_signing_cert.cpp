// Finds the signing certificate on a token, and the handle of its private key.
// usage: find_signing_cert MODULE PIN_FILE

#include <fstream>
#include <iostream>
#include <string>

#include <mervane/pkcs11/clspkcs11.h>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::string line;
    std::getline(std::ifstream(argv[2]) >> std::ws, line);
    const mervane::XString pin(line);

    mervane::ClsPkcs11 token;
    token.put_SharedLibPath(mervane::XString(argv[1]));
    mervane::ClsCert cert;
    if (!token.QuickSession(1, pin) ||
        !token.FindCert(mervane::XString("privateKey"), mervane::XString(), cert)) {
        std::cerr << token.log().text();
        return 1;
    }
    mervane::XString subject;
    cert.get_SubjectDN(subject);
    const auto link = cert.getCert()->pkcs11Link();
    std::cout << "Sign with:   " << subject.view() << '\n'
              << "Private key: handle " << link->keyHandle << ", " << link->expectedSignatureSize
              << "-byte signatures\n";
    return 0;
}
