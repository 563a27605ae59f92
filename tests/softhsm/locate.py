#!/usr/bin/python3
"""Tokens found without a module's path, among all modules of the machine and two configured for the test; the modules
that crash, hang or fail beside them; URIs that other tools take; doctor on tokens in every state.

usage: locate.py MERVANE_P11 MODULE FAKE_MODULE"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

from softhsm import SO_PIN, USER_PIN, Token, check_schema, equal, expect, failures, openssl, run

GONE = "/nonexistent/pcscd.comm"


class Machine:
    """A user's configuration with these modules, beside those of the machine."""

    def __init__(self, tool, token, fake_module):
        self.tool, self.token = tool, token
        self.modules = token.folder / "config/pkcs11/modules"
        self.modules.mkdir(parents=True)
        self.fake = token.folder / "libodd.so"
        shutil.copy(fake_module, self.fake)
        self.env = {k: v for k, v in token.env.items() if k != "MERVANE_P11_MODULE"} | {
            "XDG_CONFIG_HOME": str(token.folder / "config"), "PCSCLITE_CSOCK_NAME": GONE,
            "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":handle_segv=0"}  # a crash is a crash

    def configure(self, name, **fields):
        file = self.modules / f"{name}.module"
        file.write_text("".join(f"{k.replace('_', '-')}: {v}\n" for k, v in fields.items()))
        file.chmod(0o644)

    def run(self, *words, **env):
        return run(self.tool, *words, check=False, env=self.env | env)

    def json(self, *words, **env):
        done = self.run(*words, "--json", **env)
        document = json.loads(done.stdout)
        check_schema(document, "error" if "error" in document else words[0])
        return document, done.returncode


def make_token(tool, module):
    token = Token(tool, module)
    token.init("home")
    for id_, name, days in (("01", "valid", "30"), ("02", "past", "-1")):
        key, der = token.folder / f"{name}.key", token.folder / f"{name}.der"
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", key)
        openssl("req", "-new", "-key", key, "-subj", f"/CN={name}", "-out", token.folder / "csr")
        openssl("x509", "-req", "-in", token.folder / "csr", "-signkey", key, "-days", days, "-outform", "DER", "-out", der)
        token.put_cert(der, id_, name)
        token.put_key(key, id_, name, "home")
    return token


def find(machine):
    """The token by label, serial and URI; never one by chance."""
    tokens, status = machine.json("tokens")
    home = next(t for t in tokens["tokens"] if t["label"] == "home")
    equal((status, home["state"]), (0, "ready"), "tokens")
    for choice in (("--token-label", "home"), ("--token-serial", home["serialNumber"]), ("--uri", home["uri"]),
                   ("--uri", home["uri"] + "?module-name=softhsm2"), ("--module", "SoftHSM2"), ("--module", "libsofthsm2.so", "--uri", home["uri"])):
        document, status = machine.json("certs", *choice)
        equal(sorted(c["label"] for c in document.get("certs", [])), ["past", "valid"], f"certs {choice}")
    equal(machine.json("certs")[1], 0, "the only token that is ready")
    machine.configure("odd", module=machine.fake)
    pin = ("--pin", "env:USER_PIN", "--timeout", "1")
    done = machine.run("match", *pin, MERVANE_FAKE_FAILING="C_Initialize hang", MERVANE_FAKE_FLAGS="0")
    equal((done.returncode, "no PIN is tried" in done.stderr), (1, True), f"a token that only seems to be the one: {done.stderr}")
    equal(machine.run("match", "--token-label", "home", *pin, MERVANE_FAKE_FAILING="C_Initialize hang").returncode, 0, "a token that is named")
    tokens = machine.json("tokens", MERVANE_FAKE_FAILING="C_GetSlotList print")[0]["tokens"]
    expect("fake" in [t["label"] for t in tokens], f"a module that prints: {tokens}")
    read, write = os.pipe()
    os.write(write, b"a secret")
    os.set_blocking(read, False)
    stolen = subprocess.run([machine.tool, "tokens", "--json"], env=machine.env | {"MERVANE_FAKE_FAILING": "C_GetSlotList steal"}, capture_output=True, check=False,
                            pass_fds=(read,)).stdout
    expect(b'"fake"' in stolen and b"a secret" not in stolen, f"a descriptor of the tool's caller: {stolen}")
    ignoring = subprocess.run([machine.tool, "tokens", "--json"], env=machine.env, capture_output=True, check=False,
                              preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
    expect(b'"fake"' in ignoring.stdout, f"SIGCHLD ignored: {ignoring.stdout}")
    twin = machine.token.folder / "libtwin.so"
    shutil.copy(machine.token.module, twin)
    machine.configure("odd", module=twin, priority=-1)
    done = machine.run("certs", "--token-label", "home")
    equal((done.returncode, f"{twin} shows this token as well" in done.stderr), (0, True), f"a token that two modules show: {done.stderr}")
    (machine.modules / "odd.module").unlink()
    machine.token.init("away")
    done = machine.run("match", "--pin", "env:USER_PIN")
    equal((done.returncode, "home" in done.stderr and "away" in done.stderr, "pkcs11:" in done.stderr), (2, True, True), f"several: {done.stderr}")
    equal(machine.json("keys", "--uri", "pkcs11:token=nobody")[0]["error"]["kind"] in ("noToken", "moduleFailed"), True, "no such token")
    for words in (("certs", "--slot", "1"), ("certs", "--init-args", "x"), ("discover",)):
        equal(machine.run(*words).returncode, 2, words)
    pin = machine.token.folder / "pin"
    pin.write_text(USER_PIN)
    pin.chmod(0o600)
    document, status = machine.json("match", "--uri", f"{home['uri']}?pin-source=file:{pin}")
    equal((status, document.get("loggedIn")), (0, True), f"pin-source: {document}")
    for cert in document["certs"]:
        found = machine.json("find-cert", "--uri", cert["uri"])[0]
        equal(found.get("label"), cert["label"], f"find-cert --uri: {found}")
    named = next(c for c in document["certs"] if c["label"] == "past")
    for uri in (named["uri"], named["privateKey"]["uri"]):
        done, status = machine.json("sign", pin, "--out", machine.token.folder / "sig", "--uri", uri, "--pin", "env:USER_PIN")
        equal((status, done.get("subject")), (0, "CN=past"), f"sign --uri: {done}")
    for words in (("certs", "--uri", named["uri"]), ("find-cert", "CN", "x", "--uri", named["uri"]), ("find-cert",), ("sign", pin, "--out", "x", "--uri", "pkcs11:type=public")):
        equal(machine.run(*words).returncode, 2, words)
    return next(c for c in document["certs"] if c["label"] == "valid")


def others(machine, found):
    """What the URIs name is what other tools find by them."""
    cert, key = found["uri"], found["privateKey"]["uri"]
    module = ("--provider", machine.token.module)
    export = run("p11tool", *module, "--export", cert, env=machine.env, check=False, text=False)
    expect(b"BEGIN CERTIFICATE" in export.stdout, f"p11tool --export {cert}: {export}")
    pem = machine.token.folder / "exported.pem"
    pem.write_bytes(export.stdout)
    der = openssl("x509", "-in", pem, "-outform", "DER", text=False).stdout
    equal(der, (machine.token.folder / "valid.der").read_bytes(), "the certificate of the URI")
    listed = run("p11tool", *module, "--login", "--list-privkeys", "--only-urls", key, env=machine.env | {"GNUTLS_PIN": USER_PIN}, check=False).stdout
    equal(listed.count("type=private"), 1, f"p11tool --list-privkeys {key}: {listed}")
    keys = machine.json("keys", "private", "--pin", "env:USER_PIN", "--token-label", "home")[0]["keys"]
    expect(key in [k["uri"].replace(";object=valid", "") for k in keys], f"keys and match: {keys}")
    for command in ("certs", "match", "keys", "tokens", "discover"):
        words = ("--module", "softhsm2") if command == "discover" else () if command == "tokens" else ("--token-label", "home")
        expect("pkcs11:" in machine.run(command, "--wide", *words).stdout, f"{command} --wide has URIs")


def odd(machine):
    """A module that crashes, hangs, fails or lies keeps no other from its answer."""
    machine.configure("odd", module=machine.fake, priority=9)
    for function in ("C_GetFunctionList", "C_Initialize", "C_GetSlotList"):
        for how, outcome, message in (("crash", "crashed", "crashed (SIGSEGV)"), ("hang", "silent", "gave no answer in 1 s"), ("0x30", "failed", "CKR_DEVICE_ERROR")):
            document, status = machine.json("tokens", "--timeout", "1", MERVANE_FAKE_FAILING=f"{function} {how}")
            said = [u for u in document["unanswered"] if u["module"] == "odd"]
            equal([(u["outcome"], message in u["message"]) for u in said], [(outcome, True)], f"{function} {how}")
            expect("home" in [t["label"] for t in document["tokens"]], f"{function} {how}: the others answer")
            steps = machine.json("doctor", "--timeout", "1", "--token-label", "home", MERVANE_FAKE_FAILING=f"{function} {how}")[0]["steps"]
            equal([(s["status"], message in s["seen"]) for s in steps if (s["id"], s["subject"]) == ("module", "odd")],
                  [("warn" if how == "0x30" else "fail", True)], f"doctor: {function} {how}")
    start = time.monotonic()
    done = machine.run("certs", "--token-label", "home", "--timeout", "1", MERVANE_FAKE_FAILING="C_GetSlotList hang")
    equal((done.returncode, "odd gave no answer in 1 s." in done.stderr), (0, True), done.stderr)
    done = machine.run("certs", "--token-label", "nobody", "--timeout", "1", MERVANE_FAKE_FAILING="C_Initialize crash")
    equal((done.returncode, "odd crashed (SIGSEGV)." in done.stderr), (1, True), f"what could not be asked is not missing: {done.stderr}")
    # The child that asks is not left behind, whatever becomes of the tool.
    with subprocess.Popen([machine.tool, "tokens", "--timeout", "60"], env=machine.env | {"MERVANE_FAKE_FAILING": "C_Initialize hang"},
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as tool:
        children = pathlib.Path(f"/proc/{tool.pid}/task/{tool.pid}/children")
        time.sleep(0.5)
        asking = children.read_text().split() if children.exists() else []
        tool.kill()
    time.sleep(0.2)
    expect(asking and not any(os.path.exists(f"/proc/{pid}/cwd") for pid in asking), f"children outlive the tool: {asking}")


def doctor(machine):
    """What doctor says of each state; no PIN is tried that may be the last."""
    def walk(*words, **env):
        document, status = machine.json("doctor", *words, **env)
        return status, {(s["id"], s["status"]): s for s in document["steps"]}
    status, steps = walk("--token-label", "home", "--pin", "env:USER_PIN")
    equal(status, 0, f"all well but for the reader: {steps}")
    expect({("token", "ok"), ("pin", "ok"), ("session", "ok"), ("login", "ok"), ("certificate", "ok"), ("signing", "ok")} <= set(steps), steps.keys())
    expect("proved by a signature" in steps["certificate", "ok"]["seen"], steps["certificate", "ok"])
    expect("EXPIRED" in steps["certificate", "warn"]["seen"], steps["certificate", "warn"])
    expect("pcscd" in steps["pcsc", "warn"]["remedy"], steps["pcsc", "warn"])
    equal(walk("--token-label", "home")[1]["signing", "warn"]["remedy"], "Log in with --login", "no login unless told")
    status, steps = walk("--token-label", "home", "--pin", "env:SO_PIN")
    equal((status, "CKR_PIN_INCORRECT" in steps["login", "fail"]["seen"]), (1, True), "a wrong PIN")
    equal((walk("--token-label", "home", "--pin", "env:NOT_SET")[1].get(("login", "fail")) or {}).get("seen", "")[:22], "The user PIN is missing"[:22], "a PIN that is missing")
    equal(walk("--token-label", "away")[1]["certificate", "fail"]["remedy"], "Log in with --login; it may be private", "an empty token")
    equal(walk("--token-label", "nobody")[0] in (1, 5), True, "no such token")
    for flags, wanted in ((0x40D, "PIN_INCORRECT"), (0x2040D, "one more wrong PIN would lock it"), (0x4040D, "the PIN is locked")):
        status, steps = walk("--module", machine.fake, "--pin", "env:USER_PIN", MERVANE_FAKE_FLAGS=hex(flags))
        equal((status, wanted in steps["login", "fail"]["seen"]), (1, True), f"flags {flags:#x}: {steps.get(('login', 'fail'))}")
    for flags, kind, seen in ((0x4040D, "fail", "locked"), (0x2040D, "warn", "one more"), (0x8040D, "warn", "must be changed"), (0x1040D, "warn", "a wrong PIN"), (0x405, "fail", "no user PIN")):
        steps = walk("--module", machine.fake, MERVANE_FAKE_FLAGS=hex(flags))[1]
        expect(seen in steps.get(("pin", kind), {"seen": ""})["seen"], f"PIN state {flags:#x}: {steps}")
    document, status = machine.json("doctor", "--token-label", "home", "--pin", "env:USER_PIN", MERVANE_FAKE_FLAGS="0x4040D")
    locked = [s["status"] for s in document["steps"] if s["id"] == "pin" and "locked" in s["seen"] and s["subject"] == '"fake"']
    equal((status, locked), (0, ["warn"]), f"another token's PIN: {document}")
    for module, seen, remedy in (("/nope/libykcs11.so", "does not exist", "package ykcs11"), (machine.token.folder / "pin", "is no shared library", "ldd")):
        step = walk("--module", module)[1]["module", "fail"]
        equal((seen in step["seen"], remedy in step["remedy"]), (True, True), step)


def nss(machine):
    """NSS's module wants its arguments, on the line or in its configuration."""
    softoken = next((p for pattern in ("*/libsoftokn3.so", "*/nss/libsoftokn3.so") for p in sorted(pathlib.Path("/usr/lib").glob(pattern))), None)
    if softoken is None:
        return print("without NSS (package libnss3)")
    args = f"configdir='sql:{machine.token.folder}'"
    done = machine.run("discover", "--module", softoken)
    equal((done.returncode, "--init-args" in done.stderr), (1, True), f"NSS without arguments: {done.stderr}")
    document, status = machine.json("tokens", "--module", str(softoken), "--init-args", args)
    expect(status == 0 and len(document["tokens"]) >= 1, f"NSS with arguments: {document}")
    machine.configure("nss", module=softoken, x_init_reserved=args)
    equal(machine.json("tokens", "--module", "softokn3")[1], 0, "NSS as configured")
    equal([u for u in machine.json("tokens")[0]["unanswered"] if u["module"] == "softokn3"], [], "NSS among all")


def main(tool, module, fake_module):
    machine = Machine(tool, make_token(tool, module), fake_module)
    machine.configure("softhsm2", module=module)
    modules, status = machine.json("modules")
    equal((status, [m["usable"] for m in modules["modules"] if m["name"] == "softhsm2"]), (0, [True]), "modules")
    machine.configure("bad", what="")
    (machine.modules / "bad.module").chmod(0o666)
    equal(len(machine.json("modules")[0]["complaints"]), 1, "a file that anyone can change")
    (machine.modules / "bad.module").unlink()
    others(machine, find(machine))
    odd(machine)
    doctor(machine)
    (machine.modules / "odd.module").unlink()
    nss(machine)
    expect(SO_PIN not in machine.run("doctor", "--token-label", "home", "--pin", "env:SO_PIN", "--log").stderr, "no PIN in the log")


if __name__ == "__main__":
    main(*sys.argv[1:4])
    sys.exit(1 if failures else 0)
