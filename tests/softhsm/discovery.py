#!/usr/bin/python3
"""What discover reports agrees with pkcs11-tool -L -M, for SoftHSM 2 with several tokens and for
p11-kit-trust.

usage: discovery.py MERVANE_P11 SOFTHSM_MODULE FAKE_MODULE"""

import glob
import json
import re
import sys

from softhsm import Token, check_schema, equal, expect, failures, run

# Members of a token as pkcs11-tool calls them
MEMBERS = {"label": "token label", "serialNumber": "serial num", "model": "token model", "manufacturer": "token manufacturer"}
FLAGS = {"rng": "rng", "login-required": "login required", "token-initialized": "token initialized",
         "user-pin-initialized": "PIN initialized", "write-protected": "readonly"}
USES = ("encrypt", "decrypt", "digest", "sign", "verify", "generate", "generate_key_pair", "wrap", "unwrap", "derive")


def parse_slots(text):
    """{slot ID: {description, label, ...}} of pkcs11-tool -L."""
    slots = {}
    for block in re.split(r"(?m)^Slot \d+ ", text)[1:]:
        head = re.match(r"\((0x[0-9a-f]+)\): (.*)", block)
        slots[int(head[1], 16)] = {"description": head[2].strip(), **dict(re.findall(r"(?m)^\s+([a-z /]+[a-z])\s*: ?(.*)$", block))}
    return slots


def compare(tool, module, env):
    report = json.loads(run(tool, "discover", "--json", "--module", module, env=env).stdout)
    check_schema(report, "discovery")
    other_tool = lambda *a: run("pkcs11-tool", "--module", module, *a, env=env).stdout
    slots = parse_slots(other_tool("-L"))
    equal({s["slotId"] for s in report["slots"]}, set(slots), "slots")
    for slot in report["slots"]:
        other, token, where = slots[slot["slotId"]], slot.get("token"), f"slot {slot['slotId']}"
        equal(slot["description"], other["description"], where)
        if token is None or "token label" not in other:
            continue
        equal({member: token[member] for member in MEMBERS}, {member: other[field].strip() for member, field in MEMBERS.items()}, where)
        equal(f"{token['pin']['min']}/{token['pin']['max']}", other["pin min/max"], f"{where} PIN lengths")
        words = [w.strip() for w in other["token flags"].split(",")]
        equal([flag for flag in FLAGS if flag in token["flags"]], [flag for flag, word in FLAGS.items() if word in words], f"{where} flags")
        compare_mechanisms(token, other_tool("-M", "--slot", hex(slot["slotId"])), where)
    return report


def compare_mechanisms(token, text, where):
    mechanisms = {m["name"]: m for m in token["mechanisms"]}
    equal(len(mechanisms), len(token["mechanisms"]), f"{where}: names are distinct")
    # Names lack the prefix CKM_ there; "mechtype-" is what pkcs11-tool has no name for.
    others = re.findall(r"(?m)^  (?!mechtype-)([A-Za-z0-9_-]+)(?:, keySize=\{(\d+),(\d+)\})?(.*)$", text)
    expect(others or not mechanisms, f"{where}: no mechanism compared")
    for name, low, high, uses in others:
        name = {"ECDSA-KEY-PAIR-GEN": "EC-KEY-PAIR-GEN"}.get(name, name)  # the same mechanism
        ours = mechanisms.get("CKM_" + name.replace("-", "_")) or mechanisms.get(name, {})
        if low:
            equal((ours.get("minKeySize"), ours.get("maxKeySize")), (int(low), int(high)), f"{where} {name} sizes")
        words = [w.strip() for w in uses.split(",")]
        equal([u for u in USES if u.replace("_", "-") in ours.get("flags", [None])], [u for u in USES if u in words], f"{where} {name} uses")


def main(tool, module, fake_module):
    token = Token(tool, module)
    token.init("first")
    token.init("zweites Wort 鍵")
    slots = {s["token"]["label"]: s["slotId"] for s in compare(tool, module, token.env)["slots"] if "token" in s}
    expect({"first", "zweites Wort 鍵"} <= set(slots), f"labels {slots}")
    for status, says, choice in [(2, "--slot", ()), (2, "zweites Wort 鍵", ()), (0, "", ("--token-label", "first")),
                                 (5, "", ("--slot", slots["first"], "--token-label", "zweites Wort 鍵"))]:
        done = token.p11("certs", *choice, check=False)
        equal((done.returncode, says in done.stderr), (status, True), f"choice of a token {choice}: {done.stderr}")
    text = token.p11("discover").stdout
    expect("zweites Wort 鍵" in text and "CKM_" not in text and " ready " in text, "text form")
    expect("CKM_RSA_PKCS" in token.p11("discover", "--mechanisms").stdout, "--mechanisms")
    short = token.p11_json("discover", "--skip-mechanisms")
    expect(all("mechanisms" not in s["token"] for s in short["slots"]), "--skip-mechanisms")
    fake = dict(token.env, MERVANE_P11_MODULE=fake_module, MERVANE_FAKE_EMPTY_SLOT="1")
    for number, option in [(2, []), (1, ["--tokens-only"])]:
        equal(len(json.loads(run(tool, "discover", "--json", *option, env=fake).stdout)["slots"]), number, f"slots {option}")
    for trust in glob.glob("/usr/lib/*/pkcs11/p11-kit-trust.so"):
        compare(tool, trust, token.env)


if __name__ == "__main__":
    main(*sys.argv[1:4])
    sys.exit(1 if failures else 0)
