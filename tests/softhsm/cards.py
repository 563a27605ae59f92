#!/usr/bin/python3
"""The command line finds every card of tools/carddata/cards.json as an independent reading of the file
has it, in the forms in which people paste an ATR.

usage: cards.py MERVANE_P11"""

import json
import pathlib
import sys

from softhsm import check_schema, equal, expect, failures, run

ROOT = pathlib.Path(__file__).resolve().parents[2]


def linux_paths(driver):
    value = driver["file"].get("linux")
    value = value.get("x86") if isinstance(value, dict) else value
    return [p for p in ([value] if isinstance(value, str) else value or []) if p]


def main(tool):
    document = json.loads((ROOT / "tools/carddata/cards.json").read_bytes())
    check_schema(document, "card", ROOT / "tools/carddata")
    equal(json.loads(run(tool, "card-data").stdout), {"schema": 1} | document, "card-data")
    drivers = {d["id"].lower(): d for d in document["drivers"]}
    first = {card["atr"].upper(): card for card in reversed(document["cards"])}
    equal(len(document["cards"]) - len(first), 4, "repeated ATRs")
    for number, atr in enumerate(card["atr"].upper() for card in document["cards"]):
        paths = linux_paths(drivers[first[atr]["driver"].lower()])
        pairs = [atr[i:i + 2] for i in range(0, len(atr), 2)]
        done = run(tool, "atr", [atr, atr.lower(), "0x" + atr, " ".join(pairs), ":".join(pairs)][number % 5], "--json", check=False)
        if " " in atr:
            equal(done.returncode, 3, f"{atr}: an ATR with a blank is never found")
        else:
            equal(done.returncode, 0, f"{atr}: with a module for this system or without")
            expect(paths or "no Linux module is known" in run(tool, "atr", atr).stdout, atr)
            found = json.loads(done.stdout or "{}")
            check_schema(found, "atr")
            driver = drivers[first[atr]["driver"].lower()]
            equal([found.get(m) for m in ("name", "readOnly", "driver")], [first[atr]["name"], first[atr].get("readOnly", False), driver["name"]], atr)
            equal(found.get("paths"), [{"path": p, "exists": pathlib.Path(p).is_file()} for p in paths], f"{atr} paths")
    for bad, status in (("", 2), ("zz", 2), ("3B", 3), ("3B" * 5000, 3), ("0x", 2)):
        equal(run(tool, "atr", bad, check=False).returncode, status, f"atr {bad[:8]!r}")


if __name__ == "__main__":
    main(sys.argv[1])
    sys.exit(1 if failures else 0)
