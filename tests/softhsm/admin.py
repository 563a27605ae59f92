#!/usr/bin/python3
"""A token set up from nothing with the command line alone, then used; keys and objects on it; and
what wrong PINs and wrong command lines lead to.

usage: admin.py MERVANE_P11 SOFTHSM_MODULE"""

import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

from softhsm import SO_PIN, USER_PIN, Token, check_schema, equal, expect, failures, openssl, run

DATA = pathlib.Path(__file__).parents[1] / "data"


def main(tool, module, fake_module):
    token = Token(tool, module)
    folder = token.folder
    pins = {"USER": USER_PIN, "SO": SO_PIN, "OTHER": "another-pin", "SHORT": "12", "WRONG": "no such pin"}
    token.env.update(pins)
    (folder / "pin").write_text(USER_PIN + "\n")

    def run_line(line):
        if not line or line.startswith("#"):
            return
        status, text, command = [column.strip() for column in line.split("|", 2)]
        words = [word.replace("{folder}", str(folder)).replace("{byte}", os.fsdecode(b"\xff")) for word in shlex.split(command)]
        output = open(words.pop(0), "w") if words[0] == "/dev/full" else subprocess.PIPE
        done = subprocess.run([tool, *words], stdout=output, stderr=subprocess.PIPE, text=True, env=token.env)
        done.stdout = done.stdout or ""
        printed = done.stdout + done.stderr
        if status == "0" and words[0] == "init-token" and "--json" in words:
            check_schema(json.loads(done.stdout), "admin")
        equal(done.returncode, int(status), f"status of {command}: {printed}")
        expect(text in printed, f"{command} says {text!r}: {printed}")
        expect(all(pin not in printed for pin in pins.values() if pin != "12"), f"{command} shows a PIN")

    before, after = (DATA / "commands.txt").read_text().split("# When keys and a certificate are on it")
    for line in before.splitlines():
        run_line(line)
    if not os.path.exists("/dev/tty") or os.system("true </dev/tty 2>/dev/null") != 0:
        run_line("4 | no terminal | init-pin --new-pin env:OTHER")
    # With standard output closed, no file of the module takes its place.
    closed = subprocess.run(["sh", "-c", '"$0" card-data >&-', tool], capture_output=True, text=True)
    equal((closed.returncode, "cannot be written" in closed.stderr), (1, True), "closed output")
    # A bare file name means the file in the working directory, not one on the loader's search path.
    near = subprocess.run([os.path.abspath(tool), "certs", "--module", os.path.basename(module)], cwd=os.path.dirname(module), env=token.env)
    equal(near.returncode, 0, "bare file name")
    use(token, folder)
    fail(token, fake_module)
    guess(tool, module)
    for line in after.splitlines()[1:]:
        run_line(line)


def guess(tool, module):
    """A key of which nothing but its being there is known is shown as a guess, and one that is known to be another's is none."""
    token, login = Token(tool, module), ("--pin", "env:USER_PIN")
    token.init()
    folder = token.folder
    for name in ("mine", "other"):
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", folder / name)
    openssl("req", "-x509", "-key", folder / "mine", "-subj", "/CN=Guess", "-outform", "DER", "-out", folder / "der")
    openssl("ec", "-in", folder / "other", "-outform", "DER", "-out", folder / "other.der")
    openssl("ec", "-in", folder / "other", "-pubout", "-outform", "DER", "-out", folder / "public.der")
    token.put_cert(folder / "der", "01", "guess")
    write = ("--login", "--pin", USER_PIN, "--usage-sign", "--id", "02", "--write-object")
    token.pkcs11_tool(*write, folder / "other.der", "--type", "privkey")
    done = token.p11("match", "--json", *login)
    equal((json.loads(done.stdout)["certs"][0]["privateKey"] or {}).get("keyBy"), "guess", "a guess")
    expect("GUESS" in done.stderr, f"a guess is told: {done.stderr}")
    token.pkcs11_tool(*write, folder / "public.der", "--type", "pubkey")
    equal(token.p11_json("match", *login)["certs"][0]["privateKey"], None, "a guess that the token disproves")


def fail(token, fake_module):
    """Each failure says why, in text and in JSON."""
    libz = next(path.split()[-1] for path in pathlib.Path("/proc/self/maps").read_text().splitlines() if "/libz.so" in path)
    build = pathlib.Path(fake_module).parent
    names = {"text": token.folder / "text.so", "cut": token.folder / "cut.so", "folder": token.folder, "libz": libz,
             "opensc": next(pathlib.Path("/usr/lib").glob("*/opensc-pkcs11.so")),
             "unresolved": next(build.rglob("libunresolved_library.so"))}
    names["text"].write_text("/* no library */")
    whole = pathlib.Path(libz).read_bytes()
    names["cut"].write_bytes(whole[:len(whole) // 2])
    for line in (DATA / "failures.txt").read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        status, kind, cause, hint, command = [column.strip() for column in line.split(" | ", 4)]
        for name, path in names.items():
            cause, command = (text.replace("{" + name + "}", str(path)) for text in (cause, command))
        words, env = shlex.split(command), dict(token.env, PCSCLITE_CSOCK_NAME="/nonexistent")
        if "=" in words[0]:
            env |= {"MERVANE_P11_MODULE": fake_module, "MERVANE_FAKE_FAILING": words.pop(0).replace("=", " ")}
        done = run(token.tool, *words, check=False, env=env)
        first = done.stderr.partition("\n")[0]
        equal((done.returncode, done.stdout), (int(status), ""), command)
        expect(cause in first and (hint == "-" or hint in done.stderr), f"{command} says {cause!r}, {hint!r}: {done.stderr}")
        document = json.loads(run(token.tool, *words, "--json", check=False, env=env).stdout)
        check_schema(document, "error")
        error = document["error"]
        equal((error["kind"], cause in error["message"], error["hint"] is None), (kind, True, hint == "-"), f"{command} --json {error}")
        equal((error["rvName"] or "") in error["message"], True, command)
    # An object that cannot be read is counted, whatever comes of it.
    env = dict(token.env, MERVANE_P11_MODULE=fake_module, MERVANE_FAKE_UNREADABLE="1")
    for status, command in ((0, "certs"), (0, "match --no-login"), (3, "find-cert label x"), (3, "find-cert CN x")):
        done = run(token.tool, *command.split(), check=False, env=env)
        equal((done.returncode, "1 object could not be read" in done.stderr), (status, True), f"{command}: {done.stderr}")
        document = json.loads(run(token.tool, *command.split(), "--json", check=False, env=env).stdout)
        equal(document.get("leftOut"), None if status else 1, command)
    # By its bare name, as the loader finds it.
    names["cut"].rename(token.folder / "libcut.so")
    cut = run(token.tool, "certs", "--module", "libcut.so", check=False, env=token.env | {"LD_LIBRARY_PATH": str(token.folder)})
    equal((cut.returncode, "(cut short:" in cut.stderr), (1, True), cut.stderr)


def use(token, folder):
    """Keys and certificates on it, as another tool sees them"""
    openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", folder / "rsa.key")
    openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-384", "-out", folder / "ec.key")
    openssl("req", "-x509", "-key", folder / "rsa.key", "-utf8", "-subj", "/CN=Signer/O=Zürich", "-set_serial", "0xBEEF", "-addext", "keyUsage=digitalSignature", "-outform", "DER", "-out", folder / "cert.der")
    token.put_key(folder / "rsa.key", "01", "schlüssel", "from nothing")
    token.put_key(folder / "ec.key", "02", "鍵", "from nothing")
    token.put_cert(folder / "cert.der", "01", "signer")
    token.pkcs11_tool("--login", "--pin", USER_PIN, "--keygen", "--key-type", "AES:32", "--label", "aes", "--id", "03", check=False)
    token.pkcs11_tool("--login", "--pin", USER_PIN, "--write-object", folder / "cert.der", "--type", "data", "--label", "note")
    victim = token.p11("init-token", "x", "--token-label", "from nothing", "--so-pin", "env:SO", check=False).stderr
    expect(f"on which {len(re.findall('^[A-Z]', token.pkcs11_tool('-O').stdout, re.M))} objects can be seen without a login" in victim, victim)
    login = ("--pin", "env:USER")
    documents = {name: token.p11_json(name, *words) for name, words in
                 {"find-cert": ("privateKey", *login), "match": login, "certs": (), "keys": login}.items()}
    for name, document in documents.items():
        check_schema(document, name)
    equal(documents["find-cert"]["privateKey"]["expectedSignatureSize"], 256, "signature size")

    facts = {(k["class"], k["label"]): k for k in documents["keys"]["keys"]}
    members = ("keyType", "keySize", "id")
    for kind, label, wanted, usage in [
            ("private", "schlüssel", ("RSA", 2048, "01"), {"sign": True, "sensitive": True}),
            ("public", "schlüssel", ("RSA", 2048, "01"), {"verify": True, "private": False}),
            ("private", "鍵", ("EC", 384, "02"), {"sign": True, "decrypt": False}),
            ("public", "鍵", ("EC", 384, "02"), {"verify": True, "encrypt": False}),
            ("secret", "aes", ("AES", 256, "03"), {"token": True})]:
        key = facts.get((kind, label), {})
        equal({m: key.get(m) for m in (*members, *usage)}, dict(zip(members, wanted)) | usage, f"{kind} key {label}")
    for block in token.pkcs11_tool("--login", "--pin", USER_PIN, "-O").stdout.split("Private Key Object")[1:]:
        label, usage = re.search(r"label: *(.*)", block)[1], re.search(r"Usage:(.*)", block)[1]
        for flag in ("sign", "decrypt", "unwrap", "derive"):
            equal(bool(facts[("private", label)].get(flag)), flag in usage, f"{label}: {flag}")
    check_schema({"class": "privateKey", "id": "02", "label": "鍵", "serialNumber": "BEEF", "keyType": "EC", "token": True}, "object")


if __name__ == "__main__":
    main(*sys.argv[1:4])
    sys.exit(1 if failures else 0)
