#!/usr/bin/python3
"""Time of `tokens` over eight modules to the slowest of them alone, and of `readers`, on a private PC/SC daemon with a
virtual card. See scripts/bench.

usage: locate.py BUILD_FOLDER SOFTHSM_MODULE

The modules are those of the machine, filled up to eight with copies of SoftHSM."""

import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/softhsm"))
import pcsc  # noqa: E402
from pivcard import PivCard  # noqa: E402
from readers import make_certificate  # noqa: E402

NUMBER, ROUNDS = 8, 15


def timed(command):
    started = time.monotonic()
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    return (time.monotonic() - started) * 1000


def usable(tool):
    modules = json.loads(subprocess.run([tool, "modules", "--json"], capture_output=True, check=True).stdout)["modules"]
    return [m["path"] for m in modules if m["usable"]]


def main(build, module):
    tool = str(pathlib.Path(build) / "mervane-p11")
    with tempfile.TemporaryDirectory() as folder, pcsc.Daemon() as daemon:
        folder = pathlib.Path(folder)
        os.environ.update(XDG_CONFIG_HOME=str(folder), SOFTHSM2_CONF=str(folder / "softhsm2.conf"))
        (folder / "softhsm2.conf").write_text(f"directories.tokendir = {folder}\n")
        (folder / "pkcs11/modules").mkdir(parents=True)
        for i in range(NUMBER - len(usable(tool))):
            copy = folder / f"libcopy{i}.so"
            shutil.copy(module, copy)
            (folder / f"pkcs11/modules/copy{i}.module").write_text(f"module: {copy}\n")
        daemon.start(reader=True)
        daemon.plug(PivCard(make_certificate("bench")))
        alone = {path: [tool, "discover", "--tokens-only", "--skip-mechanisms", "--json", "--module", path] for path in usable(tool)}
        programs = alone | {"tokens": [tool, "tokens", "--json"], "readers": [tool, "readers", "--json"]}
        times = {name: [] for name in programs}
        for _ in range(ROUNDS):
            for name, command in programs.items():
                times[name].append(timed(command))
        median = {name: statistics.median(values) for name, values in times.items()}
        slowest = max(alone, key=median.get)
        print(f"\ntokens over {len(alone)} modules {median['tokens']:.1f} ms; the slowest alone, {pathlib.Path(slowest).name}, {median[slowest]:.1f} ms; "
              f"limit {1.3 * median[slowest] + 20:.1f} ms; all one after the other {sum(median[p] for p in alone):.1f} ms")
        print(f"readers {median['readers']:.1f} ms; limit 50 ms")


if __name__ == "__main__":
    pcsc.isolate()
    main(*sys.argv[1:3])
