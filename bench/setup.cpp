// Opens a session, logs in and exits, through the public class ("ours") or through the module's
// functions alone ("raw"). compare.py counts the instructions of both; the ratio is our overhead.
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
