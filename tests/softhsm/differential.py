#!/usr/bin/python3
"""Every certificate of Debian's ca-certificates and python3-cryptography-vectors that the openssl tool
reads is read to the same values; the rest does no harm.

usage: differential.py READ_CERTS

Exit status 77 (skipped) when neither package is installed."""

import base64
import concurrent.futures
import json
import pathlib
import re
import subprocess
import sys
import tempfile

from softhsm import equal, expect, failures

SOURCES = ["/usr/share/ca-certificates", "/usr/lib/python3/dist-packages/cryptography_vectors"]
OIDS = {"CN": "2.5.4.3", "O": "2.5.4.10", "OU": "2.5.4.11", "C": "2.5.4.6", "L": "2.5.4.7", "ST": "2.5.4.8", "STREET": "2.5.4.9",
        "DC": "0.9.2342.19200300.100.1.25", "UID": "0.9.2342.19200300.100.1.1", "E": "1.2.840.113549.1.9.1"}
USAGES = {"Digital Signature": 0x80, "Non Repudiation": 0x40, "Key Encipherment": 0x20, "Data Encipherment": 0x10,
          "Key Agreement": 0x08, "Certificate Sign": 0x04, "CRL Sign": 0x02, "Encipher Only": 0x01}
CURVES = {"prime256v1", "secp384r1", "secp521r1", "secp256k1"}


def ders():
    """The certificates in the files, each once."""
    seen = {}
    for source in SOURCES:
        for path in sorted(pathlib.Path(source).rglob("*")):
            if not path.is_file() or path.stat().st_size > 1 << 20:
                continue
            data = path.read_bytes()
            blocks = re.findall(rb"-----BEGIN (?:TRUSTED )?CERTIFICATE-----(.*?)-----END", data, re.S)
            for block in blocks:
                try:
                    seen.setdefault(base64.b64decode(block, validate=False), path)
                except ValueError:
                    pass
            if not blocks and data[:1] == b"\x30" and path.suffix in (".der", ".crt", ".cer"):
                seen.setdefault(data, path)
    return seen


def name_parts(text):
    """[(type as OID, value)]; RFC 4514 escapes undone."""
    parts = re.findall(r"((?:\\.|[^\\,+=])+)=((?:\\.|[^\\,+])*?)(?:, |,|\+|$)", text, re.S)
    undo = lambda v: re.sub(rb"\\([0-9A-Fa-f]{2}|.)", lambda m: bytes.fromhex(m[1].decode()) if len(m[1]) == 2 else m[1], v.encode(), flags=re.S)
    return [(OIDS.get(tag, tag), undo(value)) for tag, value in parts]


def openssl_facts(path):
    names = "sep_comma_plus,esc_2253,esc_ctrl,utf8,dump_nostr,dump_der,oid"
    done = subprocess.run(["openssl", "x509", "-in", path, "-inform", "DER", "-noout", "-serial", "-fingerprint", "-sha1", "-subject",
                           "-issuer", "-nameopt", names, "-text"], capture_output=True)
    if done.returncode != 0:
        return None
    text = done.stdout.decode(errors="replace")
    line = lambda start: re.search(rf"(?m)^{start}=(.*)$", text)[1]
    facts = {"serialNumber": line("serial"), "sha1Thumbprint": line("(?:sha1|SHA1) Fingerprint").replace(":", ""),
             "subject": name_parts(line("subject")), "issuer": name_parts(line("issuer"))}
    usage = re.search(r"X509v3 Key Usage:.*\n\s*(.*)", text)
    facts["keyUsage"] = sum(bit for word, bit in USAGES.items() if usage and word in usage[1])
    size = re.search(r"Public-Key: \((\d+) bit\)", text)
    curve = re.search(r"ASN1 OID: (\S+)", text)
    algorithm = re.search(r"Public Key Algorithm: (\S+)", text)[1]
    if algorithm in ("rsaEncryption", "rsassaPss") and size and 512 <= int(size[1]) <= 16384:
        facts["keyType"], facts["keyBits"] = 1, int(size[1])
    elif algorithm == "id-ecPublicKey" and curve and (curve[1] in CURVES or curve[1].startswith("brainpool")):
        facts["keyType"], facts["keyBits"] = 3, int(size[1])
    elif size or algorithm not in ("rsaEncryption", "id-ecPublicKey", "rsassaPss"):
        facts["keyType"], facts["keyBits"] = 0, 0
    return facts


def main(reader):
    certs = ders()
    if not certs:
        print("skipped: neither ca-certificates nor python3-cryptography-vectors is installed")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        paths = []
        for number, der in enumerate(certs):
            path = pathlib.Path(folder) / f"{number}.der"
            path.write_bytes(der)
            paths.append(path)
        ours = []
        for at in range(0, len(paths), 500):
            ours += [json.loads(line) for line in subprocess.run([reader, *paths[at:at + 500]], capture_output=True, text=True, check=True).stdout.splitlines()]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            theirs = list(pool.map(openssl_facts, paths))
    equal(len(ours), len(certs), "answers")
    refused = 0
    for source, got, wanted in zip(certs.values(), ours, theirs):
        if wanted is None:
            refused += 1
            continue
        expect(got is not None, f"{source}: not read")
        for fact, value in wanted.items() if got else ():
            mine = name_parts(got[fact]) if fact in ("subject", "issuer") else got[fact]
            equal(mine, value, f"{source} {fact}")
    print(f"{len(certs)} certificates, {refused} that openssl refuses, {len(failures)} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
