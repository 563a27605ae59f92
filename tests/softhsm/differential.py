#!/usr/bin/python3
"""Every certificate of Debian's ca-certificates and python3-cryptography-vectors that the openssl tool
reads is read to the same values; the rest does no harm.

usage: differential.py READ_CERTS

Exit status 77 (skipped) when neither package is installed."""

import base64
import concurrent.futures
import json
import pathlib
import re
import subprocess
import sys
import tempfile

from facts import name_parts, openssl_facts
from softhsm import equal, expect, failures

SOURCES = ["/usr/share/ca-certificates", "/usr/lib/python3/dist-packages/cryptography_vectors"]


def ders():
    """The certificates in the files, each once."""
    seen = {}
    for source in SOURCES:
        for path in sorted(pathlib.Path(source).rglob("*")):
            if not path.is_file() or path.stat().st_size > 1 << 20:
                continue
            data = path.read_bytes()
            blocks = re.findall(rb"-----BEGIN (?:TRUSTED )?CERTIFICATE-----(.*?)-----END", data, re.S)
            for block in blocks:
                try:
                    seen.setdefault(base64.b64decode(block, validate=False), path)
                except ValueError:
                    pass
            if not blocks and data[:1] == b"\x30" and path.suffix in (".der", ".crt", ".cer"):
                seen.setdefault(data, path)
    return seen


def main(reader):
    certs = ders()
    if not certs:
        print("skipped: neither ca-certificates nor python3-cryptography-vectors is installed")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        paths = []
        for number, der in enumerate(certs):
            path = pathlib.Path(folder) / f"{number}.der"
            path.write_bytes(der)
            paths.append(path)
        ours = []
        for at in range(0, len(paths), 500):
            ours += [json.loads(line) for line in subprocess.run([reader, *paths[at:at + 500]], capture_output=True, text=True, check=True).stdout.splitlines()]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            theirs = list(pool.map(openssl_facts, paths))
    equal(len(ours), len(certs), "answers")
    refused = 0
    for source, got, wanted in zip(certs.values(), ours, theirs):
        if wanted is None:
            refused += 1
            continue
        expect(got is not None, f"{source}: not read")
        for fact, value in wanted.items() if got else ():
            mine = name_parts(got[fact]) if fact in ("subject", "issuer") else got[fact]
            equal(mine, value, f"{source} {fact}")
    print(f"{len(certs)} certificates, {refused} that openssl refuses, {len(failures)} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
