#!/usr/bin/python3
"""What discover reports agrees with pkcs11-tool -L -M, for SoftHSM 2 with several tokens and for
p11-kit-trust.

usage: discovery.py MERVANE_P11 SOFTHSM_MODULE"""

import glob
import json
import re
import sys

from softhsm import Token, check_schema, equal, expect, failures, run


def parse_slots(text):
    """{slot ID: {description, label, ...}} of pkcs11-tool -L."""
    slots = {}
    for block in re.split(r"(?m)^Slot \d+ ", text)[1:]:
        head = re.match(r"\((0x[0-9a-f]+)\): (.*)", block)
        fields = dict(re.findall(r"(?m)^\s+([a-z /]+[a-z])\s*: ?(.*)$", block))
        slots[int(head[1], 16)] = {"description": head[2].strip(), **fields}
    return slots


def parse_mechanisms(text):
    """{name: (min, max, flags)} of pkcs11-tool -M; names lack the prefix CKM_ there."""
    out = {}
    for line in text.splitlines():
        match = re.match(r"  ([A-Za-z0-9_-]+)(?:, keySize=\{(\d+),(\d+)\})?(.*)$", line)
        if match:
            out[match[1]] = (match[2], match[3], {f.strip() for f in match[4].split(",") if f.strip()})
    return out


def compare(tool, module, env, pkcs11_tool):
    report = json.loads(run(tool, "discover", "--json", "--module", module, env=env).stdout)
    check_schema(report, "discovery")
    slots = parse_slots(pkcs11_tool("-L"))
    equal({s["slotId"] for s in report["slots"]}, set(slots), "slots")
    for slot in report["slots"]:
        other, where = slots[slot["slotId"]], f"slot {slot['slotId']}"
        equal(slot["description"], other["description"], where)
        token = slot.get("token")
        if token is None or "token label" not in other:
            continue
        for member, field in [("label", "token label"), ("serialNumber", "serial num"), ("model", "token model"), ("manufacturer", "token manufacturer")]:
            equal(token[member], other[field].strip(), f"{where} {member}")
        equal(f"{token['pin']['min']}/{token['pin']['max']}", other["pin min/max"], f"{where} PIN lengths")
        words = [w.strip() for w in other["token flags"].split(",")]
        for flag, word in [("rng", "rng"), ("login-required", "login required"), ("token-initialized", "token initialized"),
                           ("user-pin-initialized", "PIN initialized"), ("write-protected", "readonly")]:
            equal(flag in token["flags"], word in words, f"{where} {flag}: {words}")
        compare_mechanisms(token, parse_mechanisms(pkcs11_tool("-M", "--slot", hex(slot["slotId"]))), where)
    return report


def compare_mechanisms(token, others, where):
    mechanisms = {m["name"]: m for m in token["mechanisms"]}
    equal(len(mechanisms), len(token["mechanisms"]), f"{where}: names are distinct")
    others = {name: facts for name, facts in others.items() if not name.startswith("mechtype-")}  # which it does not name
    expect(others or not mechanisms, f"{where}: no mechanism compared")
    for name, (low, high, flags) in others.items():
        name = {"ECDSA-KEY-PAIR-GEN": "EC-KEY-PAIR-GEN"}.get(name, name)  # the same mechanism
        ours = mechanisms.get("CKM_" + name.replace("-", "_")) or mechanisms.get(name)
        expect(ours is not None, f"{where}: {name} is missing")
        if ours is None:
            continue
        if low is not None:
            equal((ours["minKeySize"], ours["maxKeySize"]), (int(low), int(high)), f"{where} {name} sizes")
        for flag in ("encrypt", "decrypt", "digest", "sign", "verify", "generate", "generate_key_pair", "wrap", "unwrap", "derive"):
            equal(flag.replace("_", "-") in ours["flags"], flag in flags, f"{where} {name} {flag}")


def main(tool, module):
    token = Token(tool, module)
    token.init("first")
    token.init("zweites Wort 鍵")
    report = compare(tool, module, token.env, lambda *a: token.pkcs11_tool(*a).stdout)
    slots = {s["token"]["label"]: s["slotId"] for s in report["slots"] if "token" in s}
    expect({"first", "zweites Wort 鍵"} <= set(slots), f"labels {slots}")
    several = token.p11("certs", check=False)
    equal(several.returncode, 2, "several tokens: a choice is asked for")
    expect("--slot" in several.stderr and "first" in several.stderr, several.stderr)
    equal(token.p11("certs", "--token-label", "first", check=False).returncode, 0, "choice by label")
    equal(token.p11("certs", "--slot", str(slots["first"]), "--token-label", "zweites Wort 鍵", check=False).returncode, 1,
          "slot and label that contradict each other")
    text = token.p11("discover").stdout
    expect("zweites Wort 鍵" in text and "CKM_RSA_PKCS" in text, "text form")
    short = token.p11_json("discover", "--tokens-only", "--skip-mechanisms")
    check_schema(short, "discovery")
    expect(all("mechanisms" not in s["token"] for s in short["slots"]), "--skip-mechanisms")
    for trust in glob.glob("/usr/lib/*/pkcs11/p11-kit-trust.so"):
        compare(tool, trust, token.env, lambda *a: run("pkcs11-tool", "--module", trust, *a).stdout)
    print(len(slots), "tokens compared")


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
