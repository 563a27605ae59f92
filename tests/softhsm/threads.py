#!/usr/bin/python3
"""A token is used by several threads at once, by threads that are cancelled and around forks, as tests/race.cpp
does; the process lives, and the token is whole afterwards.

usage: threads.py RACE SOFTHSM_MODULE [TRIALS [FORKS]]"""

import shutil
import subprocess
import sys

from softhsm import USER_PIN, Token, equal, expect, failures, openssl


def main(race, module, trials=100, forks=200):
    token = Token(None, module)
    token.init()
    folder = token.folder
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "key", "-subj", "/CN=One", "-outform", "DER", "-out", folder / "der")
    token.put_cert(folder / "der", "01", "one")
    token.put_key(folder / "key", "01", "one")
    shutil.copytree(folder / "tokens", folder / "kept")

    def died(what, number):
        done = subprocess.run([race, module, USER_PIN, what, str(number)], env=token.env, capture_output=True, text=True, timeout=300)
        if done.returncode != 0:
            print(f"{what} {number}: exit {done.returncode}\n{done.stderr[-1000:]}")
        return done.returncode != 0

    def begin_anew():
        shutil.rmtree(folder / "tokens")
        shutil.copytree(folder / "kept", folder / "tokens")

    for number in (2, 4):
        num_died = 0
        for _ in range(int(trials)):
            begin_anew()
            num_died += died("threads", number)
        equal(num_died, 0, f"of {trials} trials with {number} threads")
        expect("one" in token.pkcs11_tool("-O", "--type", "cert").stdout, "the token is whole")
    for what, number in (("cancel", 32), ("fork", forks), ("mix", 25)):
        begin_anew()
        expect(not died(what, number), f"{what} {number}")
        expect("one" in token.pkcs11_tool("-O", "--type", "cert").stdout, f"the token is whole after {what}")


if __name__ == "__main__":
    main(*sys.argv[1:])
    sys.exit(1 if failures else 0)
