# What a program may include, as <mervane/...>: these are installed, and no other header is. They
# name each other relative to where they stand, so that each finds its own neighbours whatever
# folders the program has on its include path.
set(MERVANE_PUBLIC_HEADERS
    foundation/core/clsbase.h
    foundation/core/critsec.h
    foundation/core/object.h
    foundation/core/ptrarray.h
    foundation/json/clsjsonobject.h
    foundation/json/compactlist.h
    foundation/json/value.h
    foundation/json/writer.h
    foundation/log/logbase.h
    foundation/log/logger.h
    foundation/text/ascii.h
    foundation/text/databuffer.h
    foundation/text/hex.h
    foundation/text/secret.h
    foundation/text/stringbuffer.h
    foundation/text/utf8.h
    foundation/text/xstring.h
    foundation/x509/certificate.h
    foundation/x509/clscert.h
    foundation/x509/der.h
    foundation/x509/publickey.h
    foundation/x509/sessionanchor.h
    foundation/x509/systemcerts.h
    pkcs11/calls/cktypes.h
    pkcs11/clspkcs11.h
    pkcs11/failure.h
    pkcs11/records.h
    pkcs11/state.h)
