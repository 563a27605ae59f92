// The floor for performance.md: the fewest module calls with which a client can read all
// certificates and, given a PIN, all private keys. One C_GetAttributeValue per object, with buffers
// large enough that no size has to be asked first; the results are thrown away.
//
// usage: floor_loop MODULE TOKEN_LABEL [PIN]

#include <vector>

#include "bench/raw_module.h"

using namespace mervane;
using bench::RawModule;

namespace {

std::size_t readAll(RawModule& module, CK_ULONG objectClass,
                    std::initializer_list<CK_ATTRIBUTE_TYPE> types) {
    CK_ATTRIBUTE query = {CKA_CLASS, &objectClass, sizeof objectClass};
    RawModule::check(module.functions->C_FindObjectsInit(module.session, &query, 1),
                     "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> handles;
    std::vector<CK_OBJECT_HANDLE> batch(1024);
    for (CK_ULONG count = 1; count != 0;) {
        RawModule::check(
            module.functions->C_FindObjects(module.session, batch.data(), batch.size(), &count),
            "C_FindObjects");
        handles.insert(handles.end(), batch.begin(),
                       batch.begin() + static_cast<std::ptrdiff_t>(count));
    }
    RawModule::check(module.functions->C_FindObjectsFinal(module.session), "C_FindObjectsFinal");
    // Larger than any attribute on the bench token, and allocated once for all objects.
    std::vector<unsigned char> room(8192 * types.size());
    std::size_t total = 0;
    for (const CK_OBJECT_HANDLE handle : handles) {
        std::vector<CK_ATTRIBUTE> attributes;
        for (const CK_ATTRIBUTE_TYPE type : types)
            attributes.push_back({type, room.data() + 8192 * attributes.size(), 8192});
        module.functions->C_GetAttributeValue(module.session, handle, attributes.data(),
                                              attributes.size());
        total += attributes[0].ulValueLen;
    }
    return total;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    RawModule module(argv[1], argv[2], argc > 3 ? argv[3] : nullptr, false);
    std::size_t total =
        readAll(module, CKO_CERTIFICATE, {CKA_VALUE, CKA_ID, CKA_LABEL, CKA_CERTIFICATE_TYPE});
    if (argc > 3)
        total += readAll(module, CKO_PRIVATE_KEY, {CKA_ID, CKA_SIGN, CKA_ALWAYS_AUTHENTICATE});
    std::cout << total << " bytes\n";
    return 0;
}
