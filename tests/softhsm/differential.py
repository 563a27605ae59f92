#!/usr/bin/python3
"""Every certificate of Debian's ca-certificates and python3-cryptography-vectors that the openssl tool
reads is read to the same values; the rest does no harm.

usage: differential.py READ_CERTS

Exit status 77 (skipped) when neither package is installed."""

import base64
import concurrent.futures
import contextlib
import json
import pathlib
import re
import sys
import tempfile

from facts import name_parts, openssl_facts
from softhsm import equal, expect, failures, run

SOURCES = ["/usr/share/ca-certificates", "/usr/lib/python3/dist-packages/cryptography_vectors"]


def ders():
    """The certificates in the files, each once."""
    seen = {}
    for path in sorted(path for source in SOURCES for path in pathlib.Path(source).rglob("*")):
        if not path.is_file() or path.stat().st_size > 1 << 20:
            continue
        data = path.read_bytes()
        blocks = re.findall(rb"-----BEGIN (?:TRUSTED )?CERTIFICATE-----(.*?)-----END", data, re.S)
        for block in blocks:
            with contextlib.suppress(ValueError):
                seen.setdefault(base64.b64decode(block, validate=False), path)
        if not blocks and data[:1] == b"\x30" and path.suffix in (".der", ".crt", ".cer"):
            seen.setdefault(data, path)
    return seen


def main(reader):
    certs = ders()
    if not certs:
        print("skipped: neither ca-certificates nor python3-cryptography-vectors is installed")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        paths = [pathlib.Path(folder) / f"{number}.der" for number in range(len(certs))]
        for path, der in zip(paths, certs):
            path.write_bytes(der)
        ours = [json.loads(line) for at in range(0, len(paths), 500) for line in run(reader, *paths[at:at + 500]).stdout.splitlines()]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            theirs = list(pool.map(openssl_facts, paths))
    equal(len(ours), len(certs), "answers")
    for source, got, wanted in zip(certs.values(), ours, theirs):
        expect(got is not None or wanted is None, f"{source}: not read")
        for fact, value in (wanted or {}).items() if got else ():
            equal(name_parts(got[fact]) if fact in ("subject", "issuer") else got[fact], value, f"{source} {fact}")
    print(f"{len(certs)} certificates, {theirs.count(None)} that openssl refuses, {len(failures)} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
