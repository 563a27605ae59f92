#!/usr/bin/python3
"""A token set up from nothing with the command line alone, then used; keys and objects on it; and
what wrong PINs lead to.

usage: admin.py MERVANE_P11 SOFTHSM_MODULE"""

import json
import os
import subprocess
import sys

from softhsm import SO_PIN, USER_PIN, Token, check_schema, equal, expect, failures, openssl


def main(tool, module):
    token = Token(tool, module)
    folder = token.folder
    token.env.update(OTHER="another-pin", SHORT="12", WRONG="no such pin")

    def status(number, line, *arguments):
        done = token.p11(*arguments, check=False)
        equal(done.returncode, number, f"status of {arguments}: {done.stderr}")
        expect(line in done.stdout + done.stderr, f"{arguments} says {line!r}: {done.stdout}{done.stderr}")
        for pin in (USER_PIN, SO_PIN, token.env["OTHER"], token.env["WRONG"]):
            expect(pin not in done.stdout + done.stderr, f"{arguments} shows a PIN")
        return done

    # From nothing
    status(0, '{"ok": true}', "init-token", "from nothing", "--so-pin", "env:SO_PIN", "--json")
    status(4, "CKR_USER_PIN_NOT_INITIALIZED", "certs", "--token-label", "from nothing", "--pin", "env:WRONG")
    status(4, "CKR_PIN_INCORRECT", "init-pin", "--so-pin", "env:WRONG", "--new-pin", "env:USER_PIN")
    status(4, "CKR_PIN_LEN_RANGE", "init-pin", "--so-pin", "env:SO_PIN", "--new-pin", "env:SHORT")
    status(0, "The user PIN was set.", "init-pin", "--so-pin", "env:SO_PIN", "--new-pin", "env:OTHER")
    pin_file = folder / "pin"
    pin_file.write_text(USER_PIN + "\n")
    status(4, "CKR_PIN_LEN_RANGE", "set-pin", "--pin", "env:OTHER", "--new-pin", "env:SHORT")
    status(0, "The PIN was changed.", "set-pin", "--pin", "env:OTHER", "--new-pin", f"file:{pin_file}")
    status(4, "CKR_PIN_INCORRECT", "set-pin", "--pin", "env:OTHER", "--new-pin", f"file:{pin_file}")
    status(0, "The PIN was changed.", "set-pin", "--user", "so", "--so-pin", "env:SO_PIN", "--new-pin", "env:OTHER")
    status(0, "The PIN was changed.", "set-pin", "--user", "so", "--so-pin", "env:OTHER", "--new-pin", "env:SO_PIN")

    # Wrong PINs: the token's state is said, and nothing is tried twice
    status(4, "A wrong user PIN has been entered", "certs", "--pin", "env:WRONG")
    status(4, "A wrong user PIN has been entered", "certs", "--pin", "env:WRONG")
    status(4, "is missing", "certs", "--pin", "env:NOT_SET")
    status(4, "cannot be read", "certs", "--pin", f"file:{folder}")
    status(4, "is empty", "set-pin", "--pin", "file:/dev/null", "--new-pin", "env:OTHER")
    status(4, "is empty", "init-token", "x", "--token-label", "from nothing", "--so-pin", "file:/dev/null")
    status(2, "refused on the command line", "certs", "--pin", "1234")
    status(2, "--slot", "certs", "--slot", "0xFFFFFFFF")
    status(2, "Unknown option", "certs", "--nonsense")
    status(2, "Unknown command", "nonsense")
    status(1, "longer than 32 bytes", "init-token", "x" * 33, "--token-label", "from nothing", "--so-pin", "env:SO_PIN")
    status(1, "There is no token", "certs", "--token-label", "another")

    status(1, "not UTF-8", "init-token", os.fsdecode(b"\xff"), "--token-label", "from nothing", "--so-pin", "env:SO_PIN")
    status(2, "unknown word", "keys", "CKR_PIN_FOO", "--pin", "env:USER_PIN")
    # Where nothing can be written, no file of the module is written to instead.
    closed = subprocess.run(["sh", "-c", f"'{tool}' card-data >&-"], capture_output=True, text=True)
    equal((closed.returncode, "cannot be written" in closed.stderr), (1, True), "closed output")
    # A module beside the working directory is that file, whatever the loader's search path holds.
    near = subprocess.run([os.path.abspath(tool), "certs", "--module", os.path.basename(module)], cwd=os.path.dirname(module), env=token.env)
    equal(near.returncode, 0, "bare file name")

    # Keys and certificates on it
    openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", folder / "rsa.key")
    openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-384", "-out", folder / "ec.key")
    openssl("req", "-x509", "-key", folder / "rsa.key", "-subj", "/CN=Signer", "-set_serial", "0xBEEF", "-outform", "DER",
            "-out", folder / "cert.der")
    token.put_key(folder / "rsa.key", "01", "schlüssel", "from nothing")
    token.put_key(folder / "ec.key", "02", "鍵", "from nothing")
    token.put_cert(folder / "cert.der", "01", "signer")
    token.pkcs11_tool("--login", "--pin", USER_PIN, "--keygen", "--key-type", "AES:32", "--label", "aes", "--id", "03",
                      check=False)
    login = ("--pin", "env:USER_PIN")
    found = token.p11_json("find-cert", "privateKey", *login)
    check_schema(found, "find-cert")
    equal(found["privateKey"]["expectedSignatureSize"], 256, "signature size")
    check_schema(token.p11_json("match", *login), "match")
    check_schema(token.p11_json("certs"), "certs")

    keys = token.p11_json("keys", *login)
    check_schema(keys, "keys")
    facts = {(k["class"], k["label"]): k for k in keys["keys"]}
    for kind, label, type_, size, id_, usage in [
            ("private", "schlüssel", "RSA", 2048, "01", {"sign": True, "sensitive": True}),
            ("public", "schlüssel", "RSA", 2048, "01", {"verify": True, "private": False}),
            ("private", "鍵", "EC", 384, "02", {"sign": True, "decrypt": False}),
            ("public", "鍵", "EC", 384, "02", {"verify": True, "encrypt": False}),
            ("secret", "aes", "AES", 256, "03", {"token": True})]:
        key = facts.get((kind, label), {})
        equal((key.get("keyType"), key.get("keySize"), key.get("id")), (type_, size, id_), f"{kind} key {label}")
        for flag, value in usage.items():
            equal(key.get(flag), value, f"{kind} key {label}: {flag}")
    # The same flags as another tool sees them
    listing = token.pkcs11_tool("--login", "--pin", USER_PIN, "-O").stdout
    for block in listing.split("Private Key Object")[1:]:
        label = block.split("label:")[1].split("\n")[0].strip()
        usage = block.split("Usage:")[1].split("\n")[0]
        key = facts[("private", label)]
        for flag in ("sign", "decrypt", "unwrap", "derive"):
            equal(bool(key.get(flag)), flag in usage, f"{label}: {flag}")
    for selector, number in [("private", 2), ("public,ec", 1), ("RSA", 2), ("private rsa", 1), ("secret", 1),
                             ("all", 5), ("private, public ec", 2)]:
        equal(len(token.p11_json("keys", selector, *login)["keys"]), number, f"keys {selector}")
    status(2, 'unknown word: "sekret"', "keys", "sekret", *login)
    table = token.p11("keys", *login).stdout.splitlines()
    expect(any("鍵" in line for line in table), "labels are shown as they are")

    for description, what in [({"class": "certificate", "label": "signer"}, "certificate"),
                              ({"class": "privateKey", "id": "02"}, "EC key"), ({"label": "鍵"}, "label alone"),
                              ({"class": "certificate", "serialNumber": "BEEF"}, "serial number"),
                              ({"keyType": "EC", "token": True}, "key type"), ({}, "anything")]:
        check_schema(description, "object")
        expect(token.p11_json("find-object", json.dumps(description), *login)["handle"] > 0, f"find-object {what}")
    status(3, "No object fits", "find-object", '{"label":"nothing"}', *login)
    for bad, line in [('{"lable":"x"}', "unknown member"), ('{"id":"0g"}', '"id"'), ('{"id":1}', '"id"'),
                      ('{"class":"x"}', '"class"'), ("[]", "not a JSON object"), ('{"a"', "line 1, column 5"),
                      ('{"id":"01","id":"02"}', "twice")]:
        status(2, line, "find-object", bad, *login)
    # Its label read by another tool; then everything on it is destroyed.
    expect("from nothing" in token.pkcs11_tool("-L").stdout, "label")
    status(4, "CKR_PIN_INCORRECT", "init-token", "again", "--token-label", "from nothing", "--so-pin", "env:WRONG")
    status(0, "The token was initialised.", "init-token", "again", "--token-label", "from nothing", "--so-pin", "env:SO_PIN")
    equal(token.p11_json("certs", "--token-label", "again")["certs"], [], "certificates after initialisation")
    # A prompt without a terminal
    if not os.path.exists("/dev/tty") or os.system("true </dev/tty 2>/dev/null") != 0:
        status(4, "no terminal", "init-pin", "--new-pin", "env:OTHER")


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
