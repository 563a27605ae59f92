#include <p11-kit/pkcs11.h>

#include <mervane/pkcs11/clspkcs11.h>

CK_RV openedBy(mervane::ClsPkcs11& token);
CK_RV openedBy(mervane::ClsPkcs11& token) { return token.OpenSession(-1, false) ? CKR_OK : CKR_GENERAL_ERROR; }
