#ifndef MERVANE_BENCH_RAW_MODULE_H
#define MERVANE_BENCH_RAW_MODULE_H

#include <dlfcn.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "pkcs11/calls/cryptoki.h"
#include "pkcs11/calls/rv.h"

namespace mervane::bench {

/// A module driven directly, with the least any client must do: load, initialise, find the token by
/// label, open a session, log in if a PIN is given. For comparison only: answers are trusted.
struct RawModule {
    CK_FUNCTION_LIST* functions = nullptr;
    CK_SESSION_HANDLE session = 0;

    // Ends the program if a call fails: there is nothing to measure then.
    static void check(CK_RV rv, const char* what) {
        if (rv == CKR_OK) return;
        std::cerr << what << ": " << rvName(rv) << '\n';
        std::exit(1);
    }

    /// `isInitialised`: somebody else has, and is logged in.
    RawModule(const char* path, const char* label, const char* pin, bool readWrite,
              bool isInitialised = false)
        : m_isOurs(!isInitialised) {
        void* const library = ::dlopen(path, RTLD_NOW);
        if (library == nullptr) check(CKR_GENERAL_ERROR, ::dlerror());
        const auto getList =
            reinterpret_cast<CK_RV (*)(CK_FUNCTION_LIST**)>(::dlsym(library, "C_GetFunctionList"));
        check(getList(&functions), "C_GetFunctionList");
        CK_C_INITIALIZE_ARGS args{};
        args.flags = CKF_OS_LOCKING_OK;
        if (m_isOurs) check(functions->C_Initialize(&args), "C_Initialize");
        CK_SLOT_ID slots[64];
        CK_ULONG count = 0;
        // Modules look for readers that were plugged in since only when asked with a null buffer.
        check(functions->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
        count = 64;
        check(functions->C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
        for (CK_ULONG i = 0; i < count && session == 0; ++i) {
            CK_TOKEN_INFO info{};
            check(functions->C_GetTokenInfo(slots[i], &info), "C_GetTokenInfo");
            std::string text(reinterpret_cast<const char*>(info.label), sizeof info.label);
            text.erase(text.find_last_not_of(' ') + 1);
            if (text != label) continue;
            const CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
            check(functions->C_OpenSession(slots[i], flags, nullptr, nullptr, &session),
                  "C_OpenSession");
        }
        std::string copy = pin == nullptr ? "" : pin;
        if (!copy.empty()) {
            check(functions->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(copy.data()),
                                     copy.size()),
                  "C_Login");
        }
    }
    ~RawModule() {
        functions->C_CloseSession(session);
        if (m_isOurs) functions->C_Finalize(nullptr);
    }
    RawModule(const RawModule&) = delete;
    RawModule& operator=(const RawModule&) = delete;

  private:
    bool m_isOurs;
};

}  // namespace mervane::bench

#endif
