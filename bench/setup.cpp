// Set-up and nothing else, for counting instructions: with the class, or with the module's
// functions alone.
//
// usage: setup MODULE TOKEN_LABEL PIN ours|raw

#include "bench/raw_module.h"
#include "pkcs11/clspkcs11.h"

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    if (std::string(argv[4]) == "raw") {
        const mervane::bench::RawModule module(argv[1], argv[2], argv[3], true);
        return 0;
    }
    mervane::ClsPkcs11 token;
    token.put_SharedLibPath(mervane::XString(argv[1]));
    return token.QuickSession(1, mervane::XString(argv[3])) ? 0 : 1;
}
