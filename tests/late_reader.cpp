// Initialises a module, then opens a session for each PIN in its input and prints the subject of the
// certificate with a private key, for what is plugged in in between.
//
// usage: late_reader MODULE

#include <iostream>

#include "pkcs11/clspkcs11.h"

using namespace mervane;

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    ClsPkcs11 token;
    token.put_SharedLibPath(XString(argv[1]));
    std::cout << (token.Initialize() ? "initialized" : "not initialized") << std::endl;
    for (std::string pin; std::getline(std::cin, pin); token.CloseSession()) {
        ClsCert cert;
        XString subject;
        const bool found = token.QuickSession(1, XString(pin)) && token.FindCert(XString("privateKey"), XString(), cert);
        if (found) cert.get_SubjectDN(subject);
        if (!found) std::cerr << token.log().text();
        std::cout << (found ? subject.view() : "none") << std::endl;
    }
    return 0;
}
