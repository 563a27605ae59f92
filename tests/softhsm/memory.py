#!/usr/bin/python3
"""The tool's memory: what a hostile certificate makes it take, and that it ends in order when an allocation fails.

usage: memory.py MERVANE_P11 SOFTHSM_MODULE PRELOAD"""

import ctypes
import json
import os
import pathlib
import re
import shutil
import sys

from softhsm import USER_PIN, Token, equal, expect, failures, openssl, run

SIZE = 900_000  # bytes of the longest name
BOUND = 6       # times a certificate's size, the module's own copies included
CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_LABEL, CKA_VALUE, CKA_TYPE, CKA_SUBJECT, CKA_ID = 0, 1, 2, 3, 0x11, 0x80, 0x101, 0x102
# Positions in CK_FUNCTION_LIST, behind the version
INITIALIZE, FINALIZE, GET_SLOT_LIST, OPEN_SESSION, LOGIN, CREATE_OBJECT = 0, 1, 4, 12, 18, 20


def tlv(tag, content):
    length = len(content).to_bytes(4, "big").lstrip(b"\0")
    return bytes([tag]) + (bytes([len(content)]) if len(content) < 128 else bytes([0x80 | len(length)]) + length) + content


def name(text):
    return tlv(0x30, tlv(0x31, tlv(0x30, tlv(6, bytes.fromhex("550403")) + tlv(12, text))))


def certificate(subject, issuer, extension=b""):
    rsa = tlv(0x30, tlv(6, bytes.fromhex("2a864886f70d010101")) + tlv(5, b""))
    key = tlv(0x30, rsa + tlv(3, b"\0" + tlv(0x30, tlv(2, b"\0" + b"\xc1" * 128) + tlv(2, b"\1\0\1"))))
    valid = tlv(0x30, tlv(0x17, b"200101000000Z") + tlv(0x17, b"300101000000Z"))
    fields = tlv(0xA0, tlv(2, b"\2")) + tlv(2, b"\1") + rsa + name(issuer) + valid + name(subject) + key
    fields += tlv(0xA3, tlv(0x30, tlv(0x30, tlv(6, b"\x2a\x03") + tlv(4, extension))))
    return tlv(0x30, tlv(0x30, fields) + rsa + tlv(3, b"\0" * 129))


def put(module, env, der):
    """Past pkcs11-tool, which reads what it writes. In a process of its own: the module stays initialised."""
    if os.fork() != 0:
        return equal(os.wait()[1], 0, "the certificate is on the token")
    os.environ.update(env)
    library, functions, room = ctypes.CDLL(module), ctypes.POINTER(ctypes.c_void_p)(), ctypes.c_ulong(4)
    library.C_GetFunctionList(ctypes.byref(functions))

    def call(at, *arguments):
        rv = ctypes.CFUNCTYPE(ctypes.c_ulong, *[type(a) if isinstance(a, ctypes.c_ulong) else ctypes.c_void_p for a in arguments])(functions[1 + at])(*arguments)
        if rv != 0:
            os._exit(1)

    number = ctypes.c_ulong
    slots, session, handle, pin = (number * 4)(), number(), number(), ctypes.create_string_buffer(USER_PIN.encode())
    call(INITIALIZE, None)
    call(GET_SLOT_LIST, number(1), ctypes.addressof(slots), ctypes.addressof(room))
    call(OPEN_SESSION, number(slots[0]), number(6), None, None, ctypes.addressof(session))
    call(LOGIN, session, number(1), ctypes.addressof(pin), number(len(USER_PIN)))
    values = {CKA_CLASS: bytes(number(1)), CKA_TYPE: bytes(number(0)), CKA_TOKEN: b"\1", CKA_PRIVATE: b"\0", CKA_SUBJECT: b"x", CKA_ID: b"\1", CKA_LABEL: b"x", CKA_VALUE: der}
    buffers = [(kind, ctypes.create_string_buffer(value, len(value)), len(value)) for kind, value in values.items()]
    template = (number * (3 * len(buffers)))(*[part for kind, buffer, size in buffers for part in (kind, ctypes.addressof(buffer), size)])
    call(CREATE_OBJECT, session, ctypes.addressof(template), number(len(buffers)), ctypes.addressof(handle))
    call(FINALIZE, None)
    os._exit(0)


def peak(tool, env, *words):
    status = pathlib.Path(env["MERVANE_MEMORY_STATUS"])
    run(tool, *words, env=env)
    return int(re.search(r"VmHWM:\s+(\d+) kB", status.read_text())[1]) * 1024


def is_whole(text):
    try:
        return "certs" in json.loads(text)
    except json.JSONDecodeError:
        return False


def main(tool, module, preload):
    def token_with(*parts):
        token, der = Token(tool, module), certificate(*parts)
        token.init()
        put(module, token.env, der)
        token.env |= {"LD_PRELOAD": preload, "MERVANE_MEMORY_STATUS": str(token.folder / "status")}
        return token, len(der)

    small, _ = token_with(b"a", b"b")
    rows = {"nothing": (b"a", b"b", b"x" * SIZE), "control": (b"\1" * SIZE, b"b"), "ill-formed": (b"\xff" * SIZE, b"b"), "issuer": (b"a", b"\1" * SIZE)}
    for row, parts in rows.items():
        token, size = token_with(*parts)
        for words in (("certs", "--json"), ("match", "--json"), ("certs",)):
            times = (peak(tool, token.env, *words) - peak(tool, small.env, *words)) / size
            expect(times <= BOUND, f"{words} on {row}: {times:.1f} times the certificate")
            print(f"{words} on {row}: {times:.1f}")

    folder = small.folder
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "key", "-subj", "/CN=One", "-outform", "DER", "-out", folder / "der")
    small.put_cert(folder / "der", "02", "one")
    small.put_key(folder / "key", "02", "one")
    words = ("match", "--json", "--log", "--pin", "env:USER_PIN")
    shutil.copytree(folder / "tokens", folder / "kept")
    for failing in [*range(2, 3000, 7), 0]:  # the first is made before main
        shutil.rmtree(folder / "tokens")  # a module without memory may spoil its own files
        shutil.copytree(folder / "kept", folder / "tokens")
        done = run(tool, *words, check=False, env=small.env | {"MERVANE_FAILING_NEW": str(failing)})
        expect(done.returncode >= 0 and done.returncode != 134, f"allocation {failing}: {done.returncode}")
        expect((done.returncode == 0) == is_whole(done.stdout), f"allocation {failing}: {done.returncode} {done.stdout[-50:]}")
    expect(done.returncode == 0 and len(json.loads(done.stdout)["certs"]) == 2, f"nothing fails: {done.stdout}")


if __name__ == "__main__":
    main(*sys.argv[1:4])
    sys.exit(1 if failures else 0)
