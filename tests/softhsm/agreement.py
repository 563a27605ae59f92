#!/usr/bin/python3
"""What mervane-p11 says of the certificates on a SoftHSM 2 token agrees with the openssl tool, for
many kinds of certificates; and each finds the key it was made for.

usage: agreement.py MERVANE_P11 SOFTHSM_MODULE"""

import re
import sys

from facts import name_parts, openssl_facts
from softhsm import Token, equal, expect, failures, openssl

KEYS = {f"rsa{bits}": ["RSA", f"rsa_keygen_bits:{bits}"] for bits in (2048, 3072, 4096, 1024)} | {
    f"p{bits}": ["EC", f"ec_paramgen_curve:P-{bits}"] for bits in (256, 384, 521)}
SUBJECTS = [
    "/CN=Plain", "/C=DE/O=Müller \\& Söhne/CN=Zoë Straße/emailAddress=zoe@example.org",
    "/CN=日本 太郎/OU=部署/L=東京", "/CN=Multi+UID=m1+OU=unit/O=Acme", "/CN=Comma\\, and \"quotes\"; <x>",
    "/CN=#hash/O= blanks ", "/DC=org/DC=example/CN=Domain", "/serialNumber=IDC-123/GN=Ann/SN=Doe/CN=Ann Doe",
    "/street=Main 1/ST=State/title=Dr/CN=Street", "/CN=" + "x" * 64, "/CN=Back\\\\slash", "/CN=equal\\=sign",
]
SERIALS = ["0x1", "0x7F", "0x80", "0xFF", "0x0100", "0x8000", "0x" + "7A" * 20, "0x" + "11" * 8,
           "0x7FFFFFFFFFFFFFFF", "0x" + "A5" * 19, "0xDEADBEEF", "0x" + "01" * 20]
USAGES = ["digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement",
          "keyCertSign", "cRLSign", "encipherOnly", "decipherOnly", "critical,digitalSignature,nonRepudiation"]


def main(tool, module):
    token = Token(tool, module)
    token.init()
    folder = token.folder
    for name, (algorithm, option) in KEYS.items():
        openssl("genpkey", "-algorithm", algorithm, "-pkeyopt", option, "-out", folder / f"{name}.key")
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "ca.key", "-utf8",
            "-subj", "/O=Trüst/CN=Issuing CA", "-days", "3650", "-out", folder / "ca.pem")
    made = []
    keys = list(KEYS)
    for i, subject in enumerate(SUBJECTS):
        name, key = f"cert{i}", keys[i % len(keys)]
        extensions = folder / "extensions"
        extensions.write_text(f"keyUsage={USAGES[i % len(USAGES)]}\ncertificatePolicies=1.2.3.{i}\n")
        openssl("req", "-new", "-utf8", "-multivalue-rdn", "-key", folder / f"{key}.key", "-subj", subject,
                "-out", folder / "csr")
        openssl("x509", "-req", "-in", folder / "csr", "-CA", folder / "ca.pem", "-CAkey", folder / "ca.key",
                "-set_serial", SERIALS[i], "-days", str(3650 + i * 3000), "-extfile", extensions,
                "-outform", "DER", "-out", folder / f"{name}.der")
        token.put_cert(folder / f"{name}.der", f"{i + 1:02x}", name)
        made.append((name, key))
    # Each key once, under the ID of the first certificate that has it.
    for i, key in enumerate(keys):
        token.put_key(folder / f"{key}.key", f"{i + 1:02x}", key)

    listed = {c["label"]: c for c in token.p11_json("certs")["certs"]}
    equal(len(listed), len(made), "number of certificates")
    for name, _ in made:
        got, facts = listed[name], openssl_facts(folder / f"{name}.der")
        facts["keyType"] = {1: "RSA", 3: "EC"}[facts["keyType"]]
        del facts["keyUsage"]  # words there: chosen by below
        for fact, wanted in facts.items():
            equal(name_parts(got[fact]) if fact in ("subject", "issuer") else got[fact], wanted, f"{name} {fact}")
        values = ", ".join(re.split(r"(?<!\\), ", got["subject"]))
        equal(got["subjectNoTags"], re.sub(r"(^|, |(?<!\\)\+)[A-Z0-9.]+=", r"\1", values), f"{name} subjectNoTags")

    login = ("--pin", "env:USER_PIN")
    keys_by_label = {k["label"]: k for k in token.p11_json("keys", "private", *login)["keys"]}
    matched = {c["label"]: c for c in token.p11_json("match", *login)["certs"]}
    for name, key in made:
        # Handles differ from run to run; the key's size and type tell which it is.
        found = matched[name]
        size = (keys_by_label[key]["keySize"] + 7) // 8 * (2 if found["keyType"] == "EC" else 1)
        equal((found["privateKey"] or {}).get("expectedSignatureSize"), size, f"{name} signature size ({found['how']})")
        expect(found["how"].startswith("Found matching"), f"{name}: {found['how']}")

    chosen = token.p11_json("find-cert", "privateKey", *login)
    expect(chosen["privateKey"] is not None, "find-cert privateKey has a key")
    for name, _ in made:
        by_serial = token.p11_json("find-cert", "serial", listed[name]["serialNumber"].lower())
        equal(by_serial["label"], name, "find-cert serial")
        equal(by_serial["privateKey"], None, "private key without login")
    for i, usage in enumerate(USAGES[:8]):
        word = {"keyCertSign": "certificateSigning", "cRLSign": "crlSigning"}.get(usage, usage)
        number = token.p11("find-cert", "keyUsage", word, "--json", check=False).returncode
        equal(number, 0, f"find-cert keyUsage {word}")
    policy = token.p11_json("find-cert", "policyoid", "1.2.3.5", "--out", folder / "out.pem")
    equal(policy["label"], "cert5", "find-cert policyoid")
    equal(openssl("x509", "-in", folder / "out.pem", "-outform", "DER", text=False).stdout,
          (folder / "cert5.der").read_bytes(), "--out")
    equal(token.p11("find-cert", "CN", "nobody", check=False).returncode, 3, "status of nothing found")
    print(f"{len(made)} certificates compared")


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
