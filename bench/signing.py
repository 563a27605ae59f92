#!/usr/bin/python3
"""Signing on a SoftHSM 2 token of 5 certificates and 4 keys: ratios, module calls and memory of the tool and its
peers. See scripts/bench.

usage: signing.py BUILD_FOLDER SOFTHSM_MODULE"""

import os
import pathlib
import statistics
import subprocess
import sys
import time

from compare import count_calls

ROUNDS, PIN = 15, "bench-pin-1234"
SIZE = 1 << 30  # bytes of the large file


def make_token(folder, module):
    """Keys of the certificates rsa1, rsa2, ec1 and ec2, and their CA's certificate without one."""
    (folder / "tokens").mkdir(parents=True)
    (folder / "softhsm2.conf").write_text(f"directories.tokendir = {folder / 'tokens'}\nlog.level = ERROR\n")

    def run(*command):
        subprocess.run([str(c) for c in command], check=True, capture_output=True)

    run("softhsm2-util", "--init-token", "--free", "--label", "bench", "--pin", PIN, "--so-pin", PIN)
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "ca.key", "-subj", "/CN=CA", "-out", folder / "ca.pem")
    run("openssl", "x509", "-in", folder / "ca.pem", "-outform", "DER", "-out", folder / "ca.der")
    names = {"rsa1": ("RSA", "rsa_keygen_bits:2048"), "rsa2": ("RSA", "rsa_keygen_bits:2048"), "ec1": ("EC", "ec_paramgen_curve:P-256"), "ec2": ("EC", "ec_paramgen_curve:P-256")}
    for number, (name, (kind, option)) in enumerate(names.items(), 1):
        key = folder / f"{name}.key"
        run("openssl", "genpkey", "-algorithm", kind, "-pkeyopt", option, "-out", key)
        run("openssl", "req", "-new", "-key", key, "-subj", f"/CN={name}", "-out", folder / "csr")
        run("openssl", "x509", "-req", "-in", folder / "csr", "-CA", folder / "ca.pem", "-CAkey", folder / "ca.key", "-outform", "DER", "-out", folder / f"{name}.der")
        run("openssl", "x509", "-inform", "DER", "-in", folder / f"{name}.der", "-out", folder / f"{name}.pem")
        run("softhsm2-util", "--import", key, "--token", "bench", "--label", name, "--id", f"{number:02}", "--pin", PIN)
        run("pkcs11-tool", "--module", module, "--login", "--pin", PIN, "--write-object", folder / f"{name}.der", "--type", "cert", "--id", f"{number:02}", "--label", name)
    run("pkcs11-tool", "--module", module, "--login", "--pin", PIN, "--write-object", folder / "ca.der", "--type", "cert", "--id", "05", "--label", "ca")
    (folder / "done").touch()


def timed(command):
    started = time.monotonic()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - started


def peak_memory(command):
    """KiB, by VmHWM as the kernel counts it; getrusage of a child begins with its parent's"""
    done = subprocess.run(["/usr/bin/env", "-i", *(f"{k}={v}" for k, v in os.environ.items()), "sh", "-c",
                           '"$@" >/dev/null & child=$!; while grep VmHWM /proc/$child/status 2>/dev/null; do sleep 0.01; done; wait $child', "sh", *command],
                          capture_output=True, text=True, check=True)
    return max(int(line.split()[1]) for line in done.stdout.splitlines() if line.startswith("VmHWM"))


def compare(programs, module):
    """Times in turns, and calls"""
    times = {name: [] for name in programs}
    for round_ in range(ROUNDS + 1):
        for name, command in programs.items():
            seconds = timed(command)
            if round_ > 0:
                times[name].append(seconds)
    base = statistics.median(times[next(iter(times))])
    for name, command in programs.items():
        median = statistics.median(times[name])
        try:
            calls = sum(count_calls(command, module).values())
        except (FileNotFoundError, subprocess.CalledProcessError):
            calls = "-"
        print(f"{name:44} {calls:>6} {median * 1000:8.1f} ms {median / base:6.2f}")


def main(build, module):
    build = pathlib.Path(build).resolve()
    folder = build / "token-sign"
    os.environ.update(SOFTHSM2_CONF=str(folder / "softhsm2.conf"), PIN=PIN, GNUTLS_PIN=PIN, PKCS11_MODULE_PATH=module)
    if not (folder / "done").exists():
        subprocess.run(["rm", "-rf", folder], check=True)
        make_token(folder, module)
    for label in ("rsa1", "ec1"):
        subprocess.run([build / "sign_loop", module, "bench", PIN, label], check=True)
    tool, data, out = str(build / "mervane-p11"), folder / "data", str(folder / "out")
    data.write_bytes(b"x" * 1000)
    ours = [tool, "sign", str(data), "--module", module, "--token-label", "bench", "--pin", "env:PIN", "--cert", "label=rsa1", "--out", out]
    print("\none signature as a whole process, calls and time")
    compare({"mervane-p11 sign": ours,
             "pkcs11-tool --sign": ["pkcs11-tool", "--module", module, "--token-label", "bench", "--login", "--pin", PIN, "--sign", "-m", "SHA256-RSA-PKCS",
                                    "--id", "01", "-i", str(data), "-o", out]}, module)
    print("\none CMS as a whole process")
    engine = ["openssl", "cms", "-sign", "-engine", "pkcs11", "-keyform", "engine", "-inkey", f"pkcs11:token=bench;id=%01;pin-value={PIN}", "-signer",
              str(folder / "rsa1.pem"), "-binary", "-in", str(data), "-outform", "DER", "-out", out]
    gnutls = ["certtool", "--provider", module, "--p7-detached-sign", "--load-privkey", "pkcs11:token=bench;id=%01;type=private", "--load-certificate", str(folder / "rsa1.pem"),
              "--infile", str(data), "--outder", "--outfile", out]
    compare({"mervane-p11 sign --format cms": [*ours, "--format", "cms"], "openssl cms -sign, engine of libp11": engine, "certtool --p7-detached-sign": gnutls}, module)
    large = folder / "large"
    if not large.exists():
        with large.open("wb") as file:
            file.truncate(SIZE)
    ours[2] = str(large)
    hashing = ["openssl", "dgst", "-sha256", str(large)]
    times = [(timed(ours), timed(hashing)) for _ in range(5)]
    print(f"\n1 GiB: {statistics.median(a for a, _ in times):.2f} s, openssl dgst {statistics.median(b for _, b in times):.2f} s, "
          f"ratio {statistics.median(a / b for a, b in times):.2f}")
    with_large = peak_memory(ours)
    empty = folder / "empty"
    empty.write_bytes(b"")
    ours[2] = str(empty)
    print(f"memory for 1 GiB above an empty file: {with_large - peak_memory(ours)} KiB")


if __name__ == "__main__":
    main(*sys.argv[1:3])
