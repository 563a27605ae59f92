#!/usr/bin/python3
"""A token that comes after Initialize is seen by the next session: with the PC/SC daemon, with its
reader, or into a reader that is there. On a private pcscd with a virtual PIV card, through OpenSC.

usage: readers.py LATE_READER

Exit status 77 (skipped) without opensc-pkcs11, pcscd, vsmartcard-vpcd, or namespaces."""

import pathlib
import subprocess
import sys
import tempfile

import pcsc
from pivcard import PIN, PivCard
from softhsm import equal, failures, openssl


class Program:
    """The library in a process of its own, initialised."""

    def __init__(self, program, module):
        self.process = subprocess.Popen([program, module], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.initialized = self.process.stdout.readline().strip()

    def session(self, pin=PIN.decode()):
        self.process.stdin.write(pin + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().strip()

    def end(self):
        self.process.stdin.close()
        return self.process.wait(20)


def make_certificate(name):
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "cert.der"
        openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "/dev/null", "-subj", f"/CN={name}", "-outform", "DER", "-out", file)
        return file.read_bytes()


def main(program, module):
    first, second = PivCard(make_certificate("first")), PivCard(make_certificate("second"))
    for when, reader in [("no daemon", None), ("no reader", False), ("no card", True)]:
        with pcsc.Daemon() as daemon:
            if reader is not None:
                daemon.start(reader)
            user = Program(program, module)
            equal(user.initialized, "initialized", when)
            equal(user.session(), "none", when)
            if not reader:
                daemon.start(reader=True)
            daemon.plug(first)
            equal(user.session(), "CN=first", f"a card where there was {when}")
            daemon.unplug()
            equal(user.session(), "none", "the card is taken out")
            daemon.plug(second, slot=1)
            equal(user.session(), "CN=second", "another card in the other slot")
            equal(user.end(), 0, "exit")


if __name__ == "__main__":
    module = pcsc.opensc()
    pcsc.isolate()
    main(sys.argv[1], module)
    sys.exit(1 if failures else 0)
