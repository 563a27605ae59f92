#!/usr/bin/python3
"""Every card of tools/carddata/cards.json is found by the command line as an independent reading of
the file says, in the forms in which people paste an ATR.

usage: cards.py MERVANE_P11"""

import json
import pathlib
import sys

from softhsm import check_schema, equal, expect, failures, run

ROOT = pathlib.Path(__file__).resolve().parents[2]


def linux_paths(driver):
    value = driver["file"].get("linux")
    if isinstance(value, dict):
        value = value.get("x86")
    return [p for p in ([value] if isinstance(value, str) else value or []) if p]


def main(tool):
    source = (ROOT / "tools/carddata/cards.json").read_bytes()
    document = json.loads(source)
    import jsonschema
    schema = json.loads((ROOT / "tools/carddata/card.schema.json").read_text())
    for error in jsonschema.Draft202012Validator(schema).iter_errors(document):
        expect(False, f"cards.json: {list(error.absolute_path)}: {error.message}")
    equal(json.loads(run(tool, "card-data").stdout), document, "card-data")
    drivers = {d["id"].lower(): d for d in document["drivers"]}
    first = {}
    for card in document["cards"]:
        first.setdefault(card["atr"].upper(), card)
    repeated = missing = 0
    for number, card in enumerate(document["cards"]):
        atr = card["atr"].upper()
        expected = first[atr]
        repeated += first[atr] is not card
        paths = linux_paths(drivers[expected["driver"].lower()])
        spelled = [atr, atr.lower(), "0x" + atr, " ".join(atr[i:i + 2] for i in range(0, len(atr), 2)),
                   ":".join(atr[i:i + 2] for i in range(0, len(atr), 2))][number % 5]
        done = run(tool, "atr", spelled, "--json", check=False)
        if " " in card["atr"]:
            equal(done.returncode, 3, f"{atr}: an ATR with a blank is never found")
        elif not paths:
            missing += 1
            equal(done.returncode, 3, f"{atr}: no module for this system")
            expect("Failed to find driver paths." in done.stderr, f"{atr}: {done.stderr}")
        else:
            found = json.loads(done.stdout or "{}")
            check_schema(found, "atr")
            equal((found.get("name"), found.get("readOnly")), (expected["name"], expected.get("readOnly", False)), atr)
            equal([p["path"] for p in found.get("paths", [])], paths, f"{atr} paths")
            equal([p["exists"] for p in found.get("paths", [])], [pathlib.Path(p).is_file() for p in paths], f"{atr} exists")
    equal(repeated, 4, "repeated ATRs")
    for bad in ("", "zz", "3B", "3B" * 5000, "0x"):
        equal(run(tool, "atr", bad, check=False).returncode, 3, f"atr {bad[:8]!r}")
    print(f"{len(document['cards'])} cards: {repeated} repeated, {missing} without a module here")


if __name__ == "__main__":
    main(sys.argv[1])
    sys.exit(1 if failures else 0)
