#!/usr/bin/python3
"""readers, atr and doctor as a reader and cards come and go, on a private pcscd with virtual cards, through OpenSC.

usage: plugged.py MERVANE_P11

Exit status 77 (skipped) without opensc-pkcs11, pcscd, vsmartcard-vpcd, or namespaces."""

import glob
import json
import os
import subprocess
import sys

import pcsc
from pivcard import PivCard
from readers import make_certificate
from softhsm import check_schema, equal, expect, failures, run

MOICA = "3BB813008131FA524348544D4F494341A5"  # in the card database, without a driver for Linux
ETOKEN = "3BD518008131FE7D8073C82110F4"  # with one that is not installed
STRANGE = "3B0412345678"


def ask(tool, command, *words):
    # The machine's modules but SoftHSM, which always shows an empty token, and no TPM.
    done = run(tool, command, *words, "--json", check=False)
    document = json.loads(done.stdout)
    if "error" not in document:
        check_schema(document, command)
    return document, done.returncode


def steps_of(document):
    return {(s["id"], s["status"]): s for s in document["steps"]}


def main(tool, opensc):
    pinned = ("--module", opensc)

    def doctor(what, status, *wanted):
        """Each wanted step: its ID and status, a word of what was seen, a word of the remedy."""
        document, found = ask(tool, "doctor", *pinned)
        steps = steps_of(document)
        equal(found, status, f"doctor, {what}: {json.dumps(document['steps'], indent=1)}")
        for id_, kind, seen, remedy in wanted:
            step = steps.get((id_, kind), {"seen": "", "remedy": ""})
            expect(seen in step["seen"] and remedy in (step["remedy"] or ""), f"doctor, {what}: {id_} {kind}: {step}")

    def readers(what, state, status, *wanted):
        document, found = ask(tool, "readers")
        equal((document["pcsc"], found), (state, status), f"readers, {what}")
        equal([(r["card"], r["atr"], r["known"] and r["known"]["name"]) for r in document["readers"]], list(wanted), f"readers, {what}")

    readers("no daemon", "noDaemon", 5)
    doctor("no daemon", 1, ("pcsc", "fail", "not running", "pcscd"))
    document, status = ask(tool, "atr")
    equal((status, "pcscd" in (document["error"]["hint"] or "")), (5, True), f"atr, no daemon: {document}")
    with pcsc.Daemon() as daemon:
        daemon.start(reader=False)
        readers("no reader", "noReader", 5)
        doctor("no reader", 5, ("pcsc", "ok", "", ""), ("reader", "fail", "no card reader", "libccid"))
        daemon.start(reader=True)
        empty = ("none", None, None)
        readers("no card", "ready", 0, empty, empty)
        doctor("no card", 5, ("reader", "ok", "Virtual PCD", ""), ("card", "fail", "no card", "Put the card in"))
        equal(ask(tool, "atr")[1], 5, "atr, no card")

        daemon.plug(pcsc.Card(bytes.fromhex(MOICA)))
        readers("a card without a driver", "ready", 0, ("present", MOICA, "MOICA Citizen Digital Certificate"), empty)
        doctor("a card without a driver", 1, ("card", "ok", "MOICA", ""), ("driver", "fail", "no Linux module is known", "Ask the card's maker"))
        document, status = ask(tool, "atr")
        equal((status, document["cards"][0]["known"]["name"]), (0, "MOICA Citizen Digital Certificate"), "atr reads the card")
        expect("no Linux module is known" in run(tool, "atr").stdout, "atr, in words")
        daemon.unplug()

        known = run(tool, "atr", ETOKEN, "--json", check=False)
        if known.returncode == 0 and not any(p["exists"] for p in json.loads(known.stdout)["paths"]):
            daemon.plug(pcsc.Card(bytes.fromhex(ETOKEN)))
            doctor("a driver that is not installed", 1, ("driver", "fail", "not installed", "Install"))
            daemon.unplug()

        daemon.plug(pcsc.Card(bytes.fromhex(STRANGE)), slot=1)
        readers("an unknown card", "ready", 0, empty, ("present", STRANGE, None))
        doctor("an unknown card", 1, ("card", "warn", "not known here", ""), ("driver", "fail", "no Linux module", "Ask the card's maker"))
        equal(ask(tool, "atr")[1], 3, "atr, an unknown card")
        daemon.unplug()

        daemon.plug(PivCard(make_certificate("first")))
        document, status = ask(tool, "tokens", *pinned)
        equal((status, len(document["tokens"])), (0, 1), f"tokens: {document}")
        steps = steps_of(ask(tool, "doctor", *pinned)[0])
        expect("served by opensc" in steps.get(("driver", "ok"), {"seen": ""})["seen"], f"doctor, a card that is served: {steps}")
        expect(("session", "ok") in steps, steps.keys())
        equal(ask(tool, "certs", "--uri", document["tokens"][0]["uri"])[1], 0, "certs by URI, of all modules")
        daemon.unplug()
    library = next(iter(glob.glob("/usr/lib/*/libpcsclite.so.1")))
    subprocess.run(["mount", "--bind", "/dev/null", os.path.realpath(library)], check=True)
    readers("no library", "noLibrary", 5)
    doctor("no library", 1, ("pcsc", "fail", "cannot be loaded", "libpcsclite1"))


if __name__ == "__main__":
    module = pcsc.opensc()
    pcsc.isolate()
    main(sys.argv[1], module)
    sys.exit(1 if failures else 0)
