// The same task with libp11, as its users write it: all certificates and, with "match", the key of
// each. Errors only end the program; there is nothing to compare then.
//
// usage: libp11_peer MODULE TOKEN_LABEL PIN list|match

#include <libp11.h>

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    PKCS11_CTX* const context = PKCS11_CTX_new();
    PKCS11_SLOT* slots = nullptr;
    unsigned int numSlots = 0;
    if (PKCS11_CTX_load(context, argv[1]) != 0 ||
        PKCS11_enumerate_slots(context, &slots, &numSlots) != 0)
        return 1;
    for (unsigned int i = 0; i < numSlots; ++i) {
        if (slots[i].token == nullptr || slots[i].token->label == nullptr ||
            std::string(slots[i].token->label) != argv[2])
            continue;
        if (PKCS11_open_session(&slots[i], 0) != 0 || PKCS11_login(&slots[i], 0, argv[3]) != 0)
            return 1;
        PKCS11_CERT* certs = nullptr;
        unsigned int numCerts = 0;
        unsigned int numKeys = 0;
        if (PKCS11_enumerate_certs(slots[i].token, &certs, &numCerts) != 0) return 1;
        for (unsigned int c = 0; std::string(argv[4]) == "match" && c < numCerts; ++c)
            numKeys += PKCS11_find_key(&certs[c]) != nullptr ? 1 : 0;
        std::cout << numCerts << " certificates, " << numKeys << " keys\n";
        return 0;
    }
    return 1;
}
