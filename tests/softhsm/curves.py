#!/usr/bin/python3
"""On every fifth curve that the openssl tool names, or on all with MERVANE_ALL_CURVES set, mervane-p11 finds the key of a certificate by its point in
whatever form, and expects signatures of the length that SoftHSM 2 makes.

usage: curves.py MERVANE_P11 SOFTHSM_MODULE"""

import os
import re
import sys

from facts import openssl_facts
from softhsm import USER_PIN, Token, equal, failures, openssl

NO_KEYS = {"SM2", "Oakley-EC2N-3", "Oakley-EC2N-4"}  # SoftHSM takes no key on them, or openssl makes none
EXPLICIT = ["secp160r1", "prime256v1", "sect233k1", "c2pnb272w1"]


def main(tool, module):
    # Imports and signatures take half a second a curve.
    token = Token(tool, module)
    token.init()
    folder = token.folder
    (folder / "hash").write_bytes(b"x" * 20)
    names = re.findall(r"^  (\S+?)\s*:", openssl("ecparam", "-list_curves").stdout, re.M)
    step = 1 if "MERVANE_ALL_CURVES" in os.environ else 5
    curves = [(name, "named_curve") for name in names[::step] if name not in NO_KEYS] + [(name, "explicit") for name in EXPLICIT]
    wanted = {}
    for number, (curve, form) in enumerate(curves):
        label, id_ = f"{curve} {form}", f"{number:04x}"
        key, mine, cert = (folder / name for name in ("key", "mine", "cert"))
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", f"ec_paramgen_curve:{curve}", "-pkeyopt", f"ec_param_enc:{form}", "-out", key)
        openssl("ec", "-in", key, "-out", mine, "-param_enc", form, "-conv_form", ("compressed", "uncompressed", "hybrid")[number % 3])
        openssl("req", "-x509", "-new", "-key", mine, "-subj", "/CN=Curve", "-outform", "DER", "-out", cert)
        token.put_key(key, id_, label)
        token.put_cert(cert, id_ + "ff", label)  # not the ID of the key
        token.pkcs11_tool("--login", "--pin", USER_PIN, "--sign", "-m", "ECDSA", "--id", id_, "-i", folder / "hash", "-o", folder / "signature")
        wanted[label] = openssl_facts(cert)["keyBits"], (folder / "signature").stat().st_size

    login = ("--pin", "env:USER_PIN")
    matched = {c["label"]: c for c in token.p11_json("match", *login)["certs"]}
    keys = {k["label"]: k for k in token.p11_json("keys", "private", *login)["keys"]}
    equal(len(matched), len(curves), "certificates")
    for label, (bits, size) in wanted.items():
        found = matched[label]
        equal((found["keyType"], found["keyBits"]), ("EC", bits), label)
        equal((found["privateKey"] or {}).get("keyBy"), "point", label)
        equal((found["privateKey"] or {}).get("expectedSignatureSize"), size, f"{label} signature size")
        equal(keys[label].get("keySize"), bits, f"{label} keySize")
    print(f"{len(curves)} curves")


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
