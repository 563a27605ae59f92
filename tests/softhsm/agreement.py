#!/usr/bin/python3
"""Certificates of many kinds on a SoftHSM 2 token each find the key they were made for, and are found
by what the openssl tool says of them. differential.py compares everything else.

usage: agreement.py MERVANE_P11 SOFTHSM_MODULE"""

import re
import sys

from facts import name_parts, openssl_facts
from softhsm import Token, equal, expect, failures, openssl

KEYS = {f"rsa{bits}": ["RSA", f"rsa_keygen_bits:{bits}"] for bits in (2048, 3072, 4096, 1024)} | {
    f"p{bits}": ["EC", f"ec_paramgen_curve:P-{bits}"] for bits in (256, 384, 521)}
SUBJECTS = [
    "/CN=Plain", "/C=DE/O=Müller \\& Söhne/CN=Zoë Straße/emailAddress=zoe@example.org", "/CN=日本 太郎/OU=部署/L=東京",
    "/CN=Multi+UID=m1+OU=unit/O=Acme", "/CN=Comma\\, and \"quotes\"; <x>", "/CN=#hash/O= blanks ", "/DC=org/DC=example/CN=Domain",
    "/serialNumber=IDC-123/GN=Ann/SN=Doe/CN=Ann Doe", "/street=Main 1/ST=State/title=Dr/CN=Street", "/CN=Back\\\\slash", "/CN=equal\\=sign"]
# As the openssl tool and as find-cert names them
USAGES = {word: word for word in ("digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement", "encipherOnly")} | {
    "keyCertSign": "certificateSigning", "cRLSign": "crlSigning"}


def main(tool, module):
    token = Token(tool, module)
    token.init()
    folder, keys, made = token.folder, list(KEYS), {}
    for name, (algorithm, option) in KEYS.items():
        openssl("genpkey", "-algorithm", algorithm, "-pkeyopt", option, "-out", folder / f"{name}.key")
    for i, subject in enumerate(SUBJECTS):
        name, key = f"cert{i}", keys[i % len(keys)]
        openssl("req", "-x509", "-utf8", "-multivalue-rdn", "-key", folder / f"{key}.key", "-subj", subject, "-days", str(3650 + i * 3000),
                "-set_serial", hex(0x7F << 8 * i), "-addext", f"keyUsage={list(USAGES)[i % len(USAGES)]}", "-addext", f"certificatePolicies=1.2.3.{i}",
                "-outform", "DER", "-out", folder / f"{name}.der")
        token.put_cert(folder / f"{name}.der", f"{i + 1:02x}", name)
        made[name] = key
    # Each key once, under the ID of the first certificate that has it.
    for i, key in enumerate(keys):
        token.put_key(folder / f"{key}.key", f"{i + 1:02x}", key)

    listed = {c["label"]: c for c in token.p11_json("certs")["certs"]}
    login = ("--pin", "env:USER_PIN")
    sizes = {k["label"]: (k["keySize"] + 7) // 8 * (2 if k["keyType"] == "EC" else 1) for k in token.p11_json("keys", "private", *login)["keys"]}
    matched = {c["label"]: c for c in token.p11_json("match", *login)["certs"]}
    equal((listed.keys(), matched.keys()), (made.keys(), made.keys()), "certificates")
    for name, key in made.items():
        got, facts, found = listed[name], openssl_facts(folder / f"{name}.der"), matched[name]
        equal((name_parts(got["subject"]), got["keyType"]), (facts["subject"], {1: "RSA", 3: "EC"}[facts["keyType"]]), name)
        equal(got["subjectNoTags"], re.sub(r"(^|, |(?<!\\)\+)[A-Z0-9.]+=", r"\1", got["subject"]), f"{name} subjectNoTags")
        # Handles differ from run to run; the key's size and type tell which it is.
        equal((found["privateKey"] or {}).get("expectedSignatureSize"), sizes[key], f"{name} signature size")
        expect((found["privateKey"] or {}).get("keyBy") in ("id", "modulus", "point"), f"{name}: {found['privateKey']}")
        by_serial = token.p11_json("find-cert", "serial", facts["serialNumber"].lower())
        equal((by_serial["label"], by_serial["privateKey"]), (name, None), "find-cert serial, without a login")

    for word in USAGES.values():
        equal(token.p11("find-cert", "keyUsage", word, check=False).returncode, 0, f"find-cert keyUsage {word}")
    policy = token.p11_json("find-cert", "policyoid", "1.2.3.5", "--out", folder / "out.pem")
    equal(policy["label"], "cert5", "find-cert policyoid")
    equal(openssl("x509", "-in", folder / "out.pem", "-outform", "DER", text=False).stdout, (folder / "cert5.der").read_bytes(), "--out")
    equal(token.p11("find-cert", "CN", "nobody", check=False).returncode, 3, "status of nothing found")


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
