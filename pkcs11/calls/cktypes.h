#ifndef MERVANE_PKCS11_CALLS_CKTYPES_H
#define MERVANE_PKCS11_CALLS_CKTYPES_H

// The scalar types of PKCS#11 2.40 (base specification, section 3) that public headers use. They
// live in our namespace, so that a program may include a vendor's header beside ours.

namespace mervane {

using CK_ULONG = unsigned long;
using CK_RV = CK_ULONG;
using CK_SLOT_ID = CK_ULONG;
using CK_SESSION_HANDLE = CK_ULONG;
using CK_OBJECT_HANDLE = CK_ULONG;

}  // namespace mervane

#endif
