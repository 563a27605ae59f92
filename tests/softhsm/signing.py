#!/usr/bin/python3
"""The tool signs on a SoftHSM 2 token, and OpenSSL and GnuTLS verify.

usage: signing.py MERVANE_P11 SOFTHSM_MODULE"""

import json
import os
import shutil
import subprocess
import sys

from softhsm import USER_PIN, Token, check_schema, equal, expect, failures, openssl, run

KEYS = {f"rsa{bits}": ("-algorithm", "RSA", "-pkeyopt", f"rsa_keygen_bits:{bits}") for bits in (1024, 2048, 3072, 4096)} | {
    name: ("-algorithm", "EC", "-pkeyopt", f"ec_paramgen_curve:{name}") for name in ("P-256", "P-384", "P-521", "brainpoolP320r1", "secp224k1")}


def verifies(folder, name, hash_, padding, data, signature):
    options = ("-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:digest") if padding == "pss" else ()
    if padding == "pkcs1":
        digest = folder / "digest"
        openssl("dgst", f"-{hash_}", "-binary", "-out", digest, data)
        return run("openssl", "pkeyutl", "-verify", "-pubin", "-inkey", folder / f"{name}.pub", "-sigfile", signature, "-in", digest, "-pkeyopt", f"digest:{hash_}",
                   check=False).returncode == 0
    return run("openssl", "dgst", f"-{hash_}", "-verify", folder / f"{name}.pub", *options, "-signature", signature, data, check=False).returncode == 0


def der_of(raw):
    """Ecdsa-Sig-Value of r || s"""
    def integer(octets):
        octets = octets.lstrip(b"\0") or b"\0"
        octets = b"\0" + octets if octets[0] > 127 else octets
        return bytes([2, len(octets)]) + octets

    body = integer(raw[:len(raw) // 2]) + integer(raw[len(raw) // 2:])
    return (bytes([0x30, len(body)]) if len(body) < 128 else bytes([0x30, 0x81, len(body)])) + body


def sign_with_every_key(token, folder, inputs):
    for name in KEYS:
        is_rsa = name.startswith("rsa")
        login = ("--cert", f"label={name}", "--pin", "env:USER_PIN")
        for hash_ in ("sha256", "sha384", "sha512"):
            for padding in ("pkcs1", "pss") if is_rsa else ("auto",):
                for data in inputs:
                    out = folder / "signature"
                    done = token.p11("sign", data, "--out", out, "--hash", hash_, "--padding", padding, *login, check=False)
                    if name == "rsa1024" and padding == "pss" and hash_ == "sha512":
                        equal((done.returncode, "too short" in done.stderr), (1, True), "PSS needs a longer key")
                        continue
                    expect(verifies(folder, name, hash_, padding, data, out), f"{name} {hash_} {padding} {data}: {done.stderr}")
            if not is_rsa:
                token.p11("sign", inputs[1], "--out", folder / "raw", "--format", "raw", "--hash", hash_, *login)
                (folder / "der").write_bytes(der_of((folder / "raw").read_bytes()))
                expect(verifies(folder, name, hash_, "auto", inputs[1], folder / "der"), f"{name} {hash_} raw")


def sign_documents(token, folder, inputs):
    for name in ("rsa2048", "P-256", "P-521", "brainpoolP320r1"):
        for options in ((), ("--attached",), ("--chain",), ("--attached", "--chain", "--hash", "sha512"), ("--padding", "pss")):
            for data in inputs:
                out = folder / "document.p7s"
                token.p11("sign", data, "--out", out, "--cert", f"label={name}", "--pin", "env:USER_PIN", *options)
                content = () if "--attached" in options else ("-content", data)
                openssl("cms", "-verify", "-cades", "-binary", "-inform", "DER", "-in", out, *content, "-CAfile", folder / "ca.pem", "-out", folder / "content")
                equal((folder / "content").read_bytes(), data.read_bytes(), f"{name} {options}")
                certs = openssl("cms", "-cmsout", "-print", "-inform", "DER", "-in", out).stdout.count("d.certificate:")
                equal(certs, 2 if "--chain" in options else 1, f"{name} {options} certificates")
                if "brainpool" not in name and data.stat().st_size != 0:  # which certtool does not know
                    load = () if "--attached" in options else ("--load-data", data)
                    done = run("certtool", "--p7-verify", "--inder", "--infile", out, *load, "--load-ca-certificate", folder / "ca.pem", check=False)
                    equal(done.returncode, 0, f"certtool {name} {options}: {done.stderr[-300:]}")


def sign_many(token, folder, inputs):
    """All in one login, and what goes wrong"""
    login = ("--cert", "label=rsa2048", "--pin", "env:USER_PIN")
    out = folder / "many"
    out.mkdir()
    document = token.p11_json("sign", *inputs, "--out-dir", out, *login)
    check_schema(document, "sign")
    equal(sorted(p.name for p in out.iterdir()), sorted(f"{p.name}.p7s" for p in inputs), "one for each file")
    piped = subprocess.run([token.tool, "sign", "-", "--out", "-", *login], input=inputs[1].read_bytes(), env=token.env, capture_output=True)
    (folder / "piped").write_bytes(piped.stdout)
    expect(verifies(folder, "rsa2048", "sha256", "pkcs1", inputs[1], folder / "piped"), f"standard input: {piped.stderr}")
    rows = [(1, "cannot be read: No such file", ("nothing", "--out", "never")), (1, "is a folder", (inputs[1], "--out", out)),
            (1, "cannot be read: Is a directory", (out, "--out", "never")), (1, "There is no folder", (inputs[1], "--out-dir", "never")),
            (2, "Several files", (*inputs, "--out", "never")), (2, "--attached is for", (inputs[1], "--out", "never", "--attached")),
            (2, "have the name", (inputs[1], inputs[1], "--out-dir", out)), (1, "No space left", (inputs[1], "--out", "/dev/full")),
            (2, "Did you mean sha256?", (inputs[1], "--out", "never", "--hash", "sha25")), (2, "needs --out", (inputs[1],)),
            (2, "PART=VALUE", (inputs[1], "--out", "never", "--cert", "x")), (3, "No certificate fits", (inputs[1], "--out", "never", "--cert", "CN=x"))]
    for status, text, words in rows:
        done = run(token.tool, "sign", *words, *(login[2:] if "--cert" in words else login), check=False, env=token.env)
        equal((done.returncode, text in done.stderr), (status, True), f"{words}: {done.stderr}")
    wrong = run(token.tool, "sign", inputs[1], "--out", "never", "--cert", "label=rsa2048", "--pin", "env:PIN", check=False, env=token.env | {"PIN": "no such pin"})
    equal((wrong.returncode, os.path.exists("never")), (4, False), "a wrong PIN")


def sign_with_pin_each_time(token, folder, inputs):
    """SoftHSM's own CKA_ALWAYS_AUTHENTICATE"""
    token.pkcs11_tool("--login", "--pin", USER_PIN, "--keypairgen", "--key-type", "rsa:2048", "--always-auth", "--id", "77", "--label", "careful")
    token.pkcs11_tool("--read-object", "--type", "pubkey", "--id", "77", "-o", folder / "careful.spki")
    openssl("pkey", "-pubin", "-inform", "DER", "-in", folder / "careful.spki", "-out", folder / "careful.pub")
    openssl("req", "-new", "-key", folder / "ca.key", "-subj", "/CN=careful", "-out", folder / "csr")
    openssl("x509", "-req", "-in", folder / "csr", "-force_pubkey", folder / "careful.pub", "-CA", folder / "ca.pem", "-CAkey", folder / "ca.key", "-outform", "DER",
            "-out", folder / "careful.der")
    token.put_cert(folder / "careful.der", "77", "careful")
    out = folder / "careful"
    out.mkdir()
    words = ("sign", *inputs, "--out-dir", out, "--format", "der", "--cert", "label=careful", "--pin", "env:USER_PIN")
    token.p11(*words)
    for data in inputs:
        expect(verifies(folder, "careful", "sha256", "pkcs1", data, out / f"{data.name}.sig"), f"PIN each time, {data.name}")
    shutil.rmtree(out)
    out.mkdir()
    wrong = run(token.tool, *words, "--sign-pin", "env:PIN", check=False, env=token.env | {"PIN": "no such pin"})
    equal((wrong.returncode, "CKR_PIN_INCORRECT" in wrong.stderr, list(out.iterdir())), (4, True, []), f"a wrong PIN for signatures: {wrong.stderr}")
    token.p11(*words)


def prove(token, folder):
    # A certificate of the CA's own key, under the ID of another key.
    openssl("req", "-x509", "-key", folder / "ca.key", "-subj", "/CN=stranger", "-outform", "DER", "-out", folder / "stranger.der")
    token.put_cert(folder / "stranger.der", "02", "stranger")
    done = run(token.tool, "test", "--pin", "env:USER_PIN", "--json", check=False, env=token.env)
    equal(done.returncode, 1, "keys that are not OK")
    document = json.loads(done.stdout)
    check_schema(document, "test")
    for key in document["keys"]:
        name = key["subject"].removeprefix("CN=")
        equal(key["result"], {"Test CA": "none", "secp224k1": "notVerified", "stranger": "notTheCertificates"}.get(name, "ok"), name)
    hidden = json.loads(run(token.tool, "test", "--json", check=False, env=token.env).stdout)
    equal({key["result"] for key in hidden["keys"]}, {"unknown"}, "nobody is logged in")


def main(tool, module):
    token = Token(tool, module)
    token.init()
    folder = token.folder
    os.chdir(folder)
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "ca.key", "-subj", "/CN=Test CA", "-out", folder / "ca.pem")
    openssl("x509", "-in", folder / "ca.pem", "-outform", "DER", "-out", folder / "ca.der")
    token.put_cert(folder / "ca.der", "00", "ca")
    for number, (name, options) in enumerate(KEYS.items(), 1):
        openssl("genpkey", *options, "-out", folder / f"{name}.key")
        openssl("pkey", "-in", folder / f"{name}.key", "-pubout", "-out", folder / f"{name}.pub")
        openssl("req", "-new", "-key", folder / f"{name}.key", "-subj", f"/CN={name}", "-addext", "keyUsage=digitalSignature", "-out", folder / "csr")
        openssl("x509", "-req", "-in", folder / "csr", "-CA", folder / "ca.pem", "-CAkey", folder / "ca.key", "-copy_extensions", "copy", "-outform", "DER",
                "-out", folder / f"{name}.der")
        token.put_key(folder / f"{name}.key", f"{number:02}", name)
        token.put_cert(folder / f"{name}.der", f"{number:02}", name)
    inputs = [folder / name for name in ("empty", "small", "large")]
    for path, size in zip(inputs, (0, 11, 300001)):
        path.write_bytes(os.urandom(size))
    sign_with_every_key(token, folder, inputs)
    sign_documents(token, folder, inputs)
    sign_many(token, folder, inputs)
    sign_with_pin_each_time(token, folder, inputs)
    prove(token, folder)
    shutil.rmtree(folder / "many")


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
