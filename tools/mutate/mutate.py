#!/usr/bin/python3
"""Breaks one random line of pkcs11/, signing/, locate/ or foundation/ at a time and prints the breaks that no unit test sees.

usage: mutate.py [--seed S] [--json FILE] N [FILE...]

The same seed on the same tree draws the same breaks. A break that does not compile, or that leaves every
object file as it was, is drawn again. The work is done on a copy of the tree in build/mutate, which is
kept for the next run. Progress goes to stderr."""

import argparse
import collections
import contextlib
import fcntl
import filecmp
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

from breaks import breaks_of, drawn, shown

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
WORK = ROOT / "build" / "mutate"
TREE, BUILD, UNBROKEN = WORK / "tree", WORK / "build", WORK / "unbroken"
TESTS = BUILD / "mervane_tests"
WORKERS = os.cpu_count()

SOURCES = ("pkcs11/", "signing/", "locate/", "foundation/")
EXCLUDED = {"pkcs11/carddata/constants.cpp": "generated; a test of its own compares it with its source"}

SLOW = 0.3  # seconds; tests that take longer run only when the others see nothing
STUCK = 60  # seconds without any processor time; the machine may be busy, so that no clock else tells
MEMORY = 8 << 30  # bytes of address space
OUTPUT = 64 << 20  # bytes that a broken test may write to one file

# Precompiled headers halve the time that a file takes. -O0 compiles no faster, and its tests run four times
# as long.
FLAGS = "-O1 -g0 -w"
CMAKE = """\
function(precompile)
  target_precompile_headers(mervane_objects PRIVATE <algorithm> <array> <functional> <map> <memory>
    <mutex> <optional> <span> <string> <vector>)
  foreach(target test_support mervane_tests)
    target_precompile_headers(${target} PRIVATE <gmock/gmock.h> <gtest/gtest.h> <algorithm>)
  endforeach()
endfunction()
cmake_language(DEFER CALL precompile)
"""

# --- The tree and its build

def project_files():
    """What git tracks, or would, as far as it exists."""
    command = ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    names = subprocess.run(command, capture_output=True, text=True, check=True).stdout.split("\0")
    return {name for name in names if name and (ROOT / name).is_file()}


def copy_tree(names):
    """Makes the copy like the tree; what is the same keeps its time and is not built again."""
    for path in [path for path in TREE.rglob("*") if path.is_file()]:
        if str(path.relative_to(TREE)) not in names:
            path.unlink()
    for name in names:
        target = TREE / name
        if not target.exists() or not filecmp.cmp(ROOT / name, target, shallow=False):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, target)


def configure():
    (WORK / "precompile.cmake").write_text(CMAKE)
    subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DMERVANE_TESTS=ON",
                    "-DCMAKE_BUILD_TYPE=RelWithDebInfo", f"-DCMAKE_CXX_FLAGS_RELWITHDEBINFO={FLAGS}",
                    f"-DCMAKE_PROJECT_INCLUDE={WORK / 'precompile.cmake'}",
                    "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"], check=True, stdout=subprocess.DEVNULL)


def build():
    """Whether it compiles and links. What was printed stands in build.log."""
    with open(WORK / "build.log", "wb") as log:
        command = ["ninja", "-C", BUILD, f"-j{WORKERS}", TESTS.name]
        return subprocess.run(command, stdout=log, stderr=subprocess.STDOUT, check=False).returncode == 0


def keep_unbroken():
    shutil.rmtree(UNBROKEN, ignore_errors=True)
    for pattern in ("**/*.o", "*.a", "*.so", TESTS.name):
        for path in BUILD.glob(pattern):
            kept = UNBROKEN / path.relative_to(BUILD)
            kept.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(path, kept)


def rebuilt():
    """What was built since, or is gone after an error: the kept file and where it belongs."""
    pairs = [(kept, BUILD / kept.relative_to(UNBROKEN)) for kept in UNBROKEN.rglob("*") if kept.is_file()]
    return [(kept, path) for kept, path in pairs
            if not path.exists() or path.stat().st_mtime_ns != kept.stat().st_mtime_ns]


def makes_no_difference():
    return all(filecmp.cmp(kept, path, shallow=False) for kept, path in rebuilt() if path.suffix == ".o")


@contextlib.contextmanager
def broken_tree(broken, source):
    """The copy of the tree while one line of it is broken. Outputs are put back with their times, and last
    the file, so that the next break compiles nothing else and an interruption leaves the file different."""
    path = TREE / broken.path
    unbroken = path.stat().st_mtime_ns
    path.write_text(source[:broken.start] + broken.text + source[broken.end:], encoding="utf-8")
    try:
        yield
    finally:
        for kept, output in rebuilt():
            shutil.copy2(kept, output)
        path.write_text(source, encoding="utf-8")
        os.utime(path, ns=(unbroken, unbroken))


# --- The tests

class Run:
    """A process that runs some of the tests, up to the first that fails. Four times the processor time of
    the unbroken tests ends it."""

    def __init__(self, seconds, names):
        self.output = open(WORK / f"tests-{names[0].replace('/', '-')}.log", "w+b")
        limits = [f"--cpu={int(4 * seconds) + 2}", f"--as={MEMORY}", f"--fsize={OUTPUT}", "--core=0"]
        tests = [TESTS, "--gtest_fail_fast", "--gtest_color=no", "--gtest_filter=" + ":".join(names)]
        self.process = subprocess.Popen(["prlimit", *limits, *tests], cwd=BUILD, stdin=subprocess.DEVNULL,
                                        stdout=self.output, stderr=subprocess.DEVNULL, start_new_session=True)
        self.used, self.alive = None, time.monotonic()

    def is_over(self):
        if self.process.poll() is not None:
            return True
        stat = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text(encoding="ascii", errors="replace")
        used = stat.rpartition(")")[2].split()[11:13]  # proc(5): utime and stime
        if used != self.used:
            self.used, self.alive = used, time.monotonic()
        return time.monotonic() - self.alive > STUCK

    def seen(self):
        """The test that failed, died or hangs; None if none did."""
        if self.process.poll() == 0:
            return None
        self.output.seek(0)
        tests = re.findall(rb"^\[(?:  FAILED  | RUN      )\] ([\w./]+)", self.output.read(), re.M)
        return tests[-1].decode() if tests else "start"

    def end(self):
        """Also ends what the tests have forked."""
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        self.output.close()
        pathlib.Path(self.output.name).unlink()


def seen_by(batches):
    """The test that sees the break, or None. As many batches run at a time as there are cores, in order."""
    waiting, running = list(batches), []
    try:
        while waiting or running:
            while waiting and len(running) < WORKERS:
                running.append(Run(*waiting.pop(0)))
            for run in [run for run in running if run.is_over()]:
                if run.seen():
                    return run.seen()
                run.end()
                running.remove(run)
            time.sleep(0.01)
    finally:
        for run in running:
            run.end()
        for scratch in BUILD.glob("scratch-*"):  # of tests that died
            shutil.rmtree(scratch)
    return None


def plan():
    """The batches, each with the seconds that the unbroken tests take: the quick tests in equal shares, then
    the slow ones alone, the longest first."""
    result = WORK / "tests.json"
    command = [TESTS, f"--gtest_output=json:{result}"]
    if subprocess.run(command, cwd=BUILD, capture_output=True, check=False).returncode != 0:
        sys.exit(f"The unbroken tests fail: {TESTS}")
    suites = json.loads(result.read_text())["testsuites"]
    times = sorted((float(test["time"].rstrip("s")), f"{suite['name']}.{test['name']}")
                   for suite in suites for test in suite["testsuite"])
    quick = [test for test in times if test[0] < SLOW]
    shares = [quick[first::WORKERS] for first in range(WORKERS)]
    batches = [(sum(seconds for seconds, _ in share), [name for _, name in share]) for share in shares]
    return batches + [(seconds, [name]) for seconds, name in reversed(times[len(quick):])]


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--seed", type=int, default=1, help="of the draw, 1 unless given")
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path,
                        help="takes all breaks, each with the test that saw it")
    parser.add_argument("number", metavar="N", type=int, help="how many breaks")
    parser.add_argument("files", metavar="FILE", type=pathlib.Path, nargs="*",
                        help="else all of pkcs11/ and foundation/")
    return parser.parse_args()


def sources_of(files):
    """Copies the tree, and returns the text of each file that may be broken."""
    names = project_files()
    copy_tree(names)
    chosen = [str(file.resolve().relative_to(ROOT)) for file in files] or [
        name for name in names if name.startswith(SOURCES) and name.endswith((".cpp", ".h")) and name not in EXCLUDED]
    return {name: (TREE / name).read_text(encoding="utf-8") for name in sorted(chosen)}


def try_out(broken, source, batches):
    """What became of it, and the test that saw it if one did."""
    with broken_tree(broken, source):
        if not build():
            return "did not compile", None
        if makes_no_difference():
            return "changed no object file", None
        test = seen_by(batches)
        return "seen" if test else "not seen", test


def survey(sources, batches, options):
    """Tries breaks until there are enough. Returns these, and how many were drawn again for each reason."""
    results, again = [], collections.Counter()
    breaks = [each for path, source in sources.items() for each in breaks_of(path, source)]
    for broken in drawn(breaks, options.seed):
        if len(results) == options.number:
            break
        start = time.monotonic()
        outcome, test = try_out(broken, sources[broken.path], batches)
        if outcome not in ("seen", "not seen"):
            again[outcome] += 1
            continue
        before, after = shown(broken, sources[broken.path])
        results.append({"file": broken.path, "line": broken.line, "kind": broken.kind, "before": before,
                        "after": after, "seenBy": test})
        print(f"{len(results)} of {options.number}: {broken.path}:{broken.line}, {broken.kind}, {outcome} "
              f"{test or ''} ({time.monotonic() - start:.0f} s)", file=sys.stderr, flush=True)
        if not test:
            print(f"{broken.path}:{broken.line}: {before}  ->  {after}", flush=True)
    return results, again


def main():
    options = arguments()
    WORK.mkdir(parents=True, exist_ok=True)
    with open(WORK / "lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the copy serves one run at a time
        sources = sources_of(options.files)
        configure()
        if not build():
            sys.exit((WORK / "build.log").read_text(encoding="utf-8"))
        keep_unbroken()
        results, again = survey(sources, plan(), options)
    drawn_again = "".join(f", {number} {outcome}" for outcome, number in sorted(again.items()))
    print(f"{sum(1 for result in results if result['seenBy'])} of {len(results)} seen{drawn_again}")
    if options.json:
        options.json.write_text(json.dumps(results, indent=1) + "\n", encoding="utf-8")


main()
