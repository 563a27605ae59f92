"""What the openssl tool says of a certificate."""

import re
import subprocess

OIDS = {"CN": "2.5.4.3", "O": "2.5.4.10", "OU": "2.5.4.11", "C": "2.5.4.6", "L": "2.5.4.7", "ST": "2.5.4.8", "STREET": "2.5.4.9",
        "DC": "0.9.2342.19200300.100.1.25", "UID": "0.9.2342.19200300.100.1.1", "E": "1.2.840.113549.1.9.1"}
USAGES = {"Digital Signature": 0x80, "Non Repudiation": 0x40, "Key Encipherment": 0x20, "Data Encipherment": 0x10,
          "Key Agreement": 0x08, "Certificate Sign": 0x04, "CRL Sign": 0x02, "Encipher Only": 0x01}


def name_parts(text):
    """[(type as OID, value)]; RFC 4514 escapes undone."""
    parts = re.findall(r"((?:\\.|[^\\,+=])+)=((?:\\.|[^\\,+])*?)(?:, |,|\+|$)", text, re.S)
    undo = lambda v: re.sub(rb"\\([0-9A-Fa-f]{2}|.)", lambda m: bytes.fromhex(m[1].decode()) if len(m[1]) == 2 else m[1], v.encode(), flags=re.S)
    return [(OIDS.get(tag, tag), undo(value)) for tag, value in parts]


def field_bits(text):
    """The size of an EC key's field, from the key or certificate as text."""
    curve = re.search(r"ASN1 OID: (\S+)", text)
    if curve:
        text = subprocess.run(["openssl", "ecparam", "-name", curve[1], "-param_enc", "explicit", "-text", "-noout"],
                              capture_output=True, text=True).stdout
    kind, digits = re.search(r"(Prime|Polynomial):([0-9a-f:\s]+)", text).groups()
    return int(re.sub(r"[:\s]", "", digits), 16).bit_length() - (kind == "Polynomial")


def openssl_facts(path):
    """What the openssl tool reads in a DER file; None when it refuses it."""
    names = "sep_comma_plus,esc_2253,esc_ctrl,utf8,dump_nostr,dump_der,oid"
    done = subprocess.run(["openssl", "x509", "-in", path, "-inform", "DER", "-noout", "-serial", "-fingerprint", "-sha1", "-subject",
                           "-issuer", "-startdate", "-enddate", "-dateopt", "iso_8601", "-nameopt", names, "-text"], capture_output=True)
    if done.returncode != 0:
        return None
    text = done.stdout.decode(errors="replace")
    line = lambda start: re.search(rf"(?m)^{start}=(.*)$", text)[1]
    facts = {"serialNumber": line("serial"), "sha1Thumbprint": line("(?:sha1|SHA1) Fingerprint").replace(":", ""),
             "notBefore": line("notBefore").replace(" ", "T"), "notAfter": line("notAfter").replace(" ", "T"),
             "subject": name_parts(line("subject")), "issuer": name_parts(line("issuer"))}
    facts = {fact: value for fact, value in facts.items() if not str(value).startswith("Bad")}  # as it says of a time
    usage = re.search(r"X509v3 Key Usage:.*\n\s*(.*)", text)
    facts["keyUsage"] = sum(bit for word, bit in USAGES.items() if usage and word in usage[1])
    size = re.search(r"Public-Key: \((\d+) bit\)", text)
    algorithm = re.search(r"Public Key Algorithm: (\S+)", text)[1]
    if algorithm in ("rsaEncryption", "rsassaPss") and size and 512 <= int(size[1]) <= 16384:
        facts["keyType"], facts["keyBits"] = 1, int(size[1])
    elif algorithm == "id-ecPublicKey" and size:
        facts["keyType"], facts["keyBits"] = 3, field_bits(text)
    elif size or algorithm not in ("rsaEncryption", "id-ecPublicKey", "rsassaPss"):
        facts["keyType"], facts["keyBits"] = 0, 0
    return facts
