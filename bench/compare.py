#!/usr/bin/python3
"""Module calls, time and memory of whole programs on one SoftHSM 2 token. See scripts/bench.

The programs take turns rather than running in blocks, so a change in the load of the machine hits all of
them. Calls are counted in a separate run, since pkcs11-spy slows the module down.

usage: compare.py BUILD_FOLDER SOFTHSM_MODULE N"""

import collections
import glob
import os
import pathlib
import re
import resource
import statistics
import subprocess
import sys
import time

PIN, LABEL, ROUNDS = "bench-pin-1234", "bench", 7
SPY = (glob.glob("/usr/lib/*/pkcs11/pkcs11-spy.so") + glob.glob("/usr/lib/*/pkcs11-spy.so"))[0]


def make_token(build, module, count):
    folder = build / f"token-{count}"
    config = folder / "softhsm2.conf"
    os.environ.update(SOFTHSM2_CONF=str(config), PIN=PIN, GNUTLS_PIN=PIN)
    if (folder / "done").exists():
        return
    subprocess.run(["rm", "-rf", folder], check=True)
    (folder / "tokens").mkdir(parents=True)
    config.write_text(f"directories.tokendir = {folder / 'tokens'}\nlog.level = ERROR\n")
    subprocess.run(["softhsm2-util", "--init-token", "--free", "--label", LABEL, "--pin", PIN, "--so-pin", PIN],
                   check=True, capture_output=True)
    started = time.monotonic()
    subprocess.run([build / "fill_token", module, LABEL, PIN, str(count)], check=True)
    print(f"token with {count} certificates and keys made in {time.monotonic() - started:.1f} s")
    (folder / "done").touch()


def programs(build, module):
    """name -> (group, command). count_calls() replaces the module's path in the command."""
    tool, floor, libp11 = (str(build / n) for n in ("mervane-p11", "floor_loop", "libp11_peer"))
    url = f"pkcs11:token={LABEL}"
    return {
        "floor loop, certificates": ("list", [floor, module, LABEL]),
        "mervane-p11 certs": ("list", [tool, "certs", "--module", module, "--token-label", LABEL, "--json"]),
        "pkcs11-tool -O --type cert": ("list", ["pkcs11-tool", "--module", module, "--token-label", LABEL, "-O", "--type", "cert"]),
        "p11tool --list-all-certs": ("list", ["p11tool", "--provider", module, "--list-all-certs", url]),
        "libp11, certificates": ("list", [libp11, module, LABEL, PIN, "list"]),
        "floor loop, certificates and keys": ("match", [floor, module, LABEL, PIN]),
        "mervane-p11 match": ("match", [tool, "match", "--module", module, "--token-label", LABEL, "--pin", "env:PIN", "--json"]),
        "libp11, key of each": ("match", [libp11, module, LABEL, PIN, "match"]),
        "mervane-p11 find-cert id": ("find", [tool, "find-cert", "id", "000007", "--module", module, "--token-label", LABEL, "--pin", "env:PIN"]),
    }


def run(command):
    """(seconds, peak memory in KiB)"""
    started = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f"{command}: status {status}")
    return time.monotonic() - started, usage.ru_maxrss


def count_calls(command, module):
    log = "/tmp/mervane-spy.%d" % os.getpid()
    environment = dict(os.environ, PKCS11SPY=module, PKCS11SPY_OUTPUT=log, PKCS11_MODULE_PATH=SPY)  # of the OpenSSL engine
    subprocess.run([SPY if c == module else c for c in command], env=environment, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)
    calls = collections.Counter(re.findall(rb"(?m)^\d+: (C_\w+)", pathlib.Path(log).read_bytes()))
    os.remove(log)
    return calls


def main(build, module, count):
    build = pathlib.Path(build).resolve()
    make_token(build, module, count)
    rows = programs(build, module)
    # These take twenty seconds each and are run less often.
    slow = {name for name in rows if name.startswith(("libp11, key", "p11tool")) and count > 200}
    times, memory = collections.defaultdict(list), {}
    for round_ in range(ROUNDS + 1):
        for name, (_, command) in rows.items():
            if name in slow and (round_ == 0 or round_ > 5):
                continue
            seconds, kib = run(command)
            if round_ > 0:  # round 0 warms the caches
                times[name].append(seconds)
                memory[name] = min(kib, memory.get(name, kib))
    print(f"\n{'program':36} {'calls':>9} {'ms':>9} {'to floor':>9} {'MiB':>7}  calls by function")
    floors = {"list": "floor loop, certificates", "match": "floor loop, certificates and keys", "find": "floor loop, certificates"}
    for name, (group, command) in rows.items():
        calls = collections.Counter() if name in slow and name.startswith("libp11") else count_calls(command, module)
        median = statistics.median(times[name])
        ratio = median / statistics.median(times[floors[group]])
        by_name = " ".join(f"{n.decode()[2:]}={c}" for n, c in calls.most_common(6))
        total = sum(calls.values()) or "-"
        print(f"{name:36} {total:>9} {median * 1000:9.1f} {ratio:9.2f} {memory[name] / 1024:7.1f}  {by_name}")


def instructions(command):
    done = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True)
    return int(re.search(r"refs:\s+([\d,]+)", done.stderr)[1].replace(",", ""))


def compare_setup(build, module):
    """Instructions of a process that opens a session, logs in and exits, on a token with one object."""
    make_token(build, module, 1)
    ours, raw = (instructions([str(build / "setup"), module, LABEL, PIN, how]) for how in ("ours", "raw"))
    print(f"\nset-up (QuickSession) in instructions of the process: {ours:,}; the raw calls: {raw:,}; ratio {ours / raw:.4f}")


if __name__ == "__main__":
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]))
    compare_setup(pathlib.Path(sys.argv[1]).resolve(), sys.argv[2])
