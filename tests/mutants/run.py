#!/usr/bin/env python3
"""Puts each mutant into a copy of the library, builds the program that is to find it, and runs its tests, which must fail.
Before that they must pass without a mutant. Everything happens below build/mutants.

  run.py [NUMBER...]      the mutants of these numbers; all without any"""

import pathlib
import re
import subprocess
import sys
import time

from mutants import MUTANTS

ROOT = pathlib.Path(__file__).resolve().parents[2]
TREE = ROOT / "build/mutants/tree"
BUILD = ROOT / "build/mutants/build"
LOG = ROOT / "build/logs/mutants.log"
PARTS = ["CMakeLists.txt", "bench", "cmake", "examples", "public", "src", "tests"]
OPTIONS = {
    "CMAKE_BUILD_TYPE": "Debug",
    "CMAKE_C_COMPILER": "clang-14",
    "CMAKE_CXX_COMPILER": "clang++-14",
    "CMAKE_C_FLAGS_DEBUG": "-O1 -g1",
    "CMAKE_CXX_FLAGS_DEBUG": "-O1 -g1",
    "ZEB_SANITIZE": "address,undefined",
    "ZEB_WERROR": "OFF",  # a mutant that only a warning finds would tell nothing about the tests
    "ZEB_DAEMON": "OFF",
    "ZEB_TOOLS": "OFF",
    "ZEB_TEST_LIMIT": "30",  # within which a hang shows
}
JOBS = "2"


def run(log, *command):
    log.write(f"\n$ {' '.join(map(str, command))}\n")
    log.flush()
    return subprocess.run(list(map(str, command)), stdin=subprocess.DEVNULL, stdout=log, stderr=log).returncode


def put(file, contents):
    """Leaves a file alone that holds this already: only what differs is compiled again."""
    if not file.exists() or file.read_bytes() != contents:
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(contents)


def copy_tree():
    wanted = set()
    for part in PARTS:
        for source in [ROOT / part, *(ROOT / part).rglob("*")]:
            if source.is_file() and "__pycache__" not in source.parts:
                target = TREE / source.relative_to(ROOT)
                put(target, source.read_bytes())
                wanted.add(target)
    for file in TREE.rglob("*"):
        if file.is_file() and file not in wanted:
            file.unlink()


def built(log, programs):
    return run(log, "cmake", "--build", BUILD, "--parallel", JOBS, "--target", *programs) == 0


def first_failure(log, tests):
    """Name of the test that failed first, or None."""
    log.flush()
    start = log.tell()
    status = run(log, "ctest", "--test-dir", BUILD, "-R", tests, "--stop-on-failure", "--no-tests=error")
    if status == 0:
        return None
    output = LOG.read_bytes()[start:].decode(errors="replace")
    failed = re.search(r"Test +#\d+: (\S+) \.*\** *(?:Failed|Timeout|Exception|.*\*\*\*)", output)
    return failed.group(1) if failed else "an unknown test"


def examine(log, number, mutant):
    """Puts the mutant in and takes it out again. Returns whether it was found, and what is to be said."""
    source = TREE / "src" / mutant.source
    original = source.read_text()
    if original.count(mutant.old) != 1:
        return False, "DOES NOT FIT the source any more"
    log.write(f"\n==== {number}: {mutant.breaks}\n")
    source.write_text(original.replace(mutant.old, mutant.new))
    try:
        if not built(log, [mutant.program]):
            return False, "DOES NOT COMPILE"
        failed = first_failure(log, mutant.tests)
    finally:
        source.write_text(original)
    return failed is not None, f"found by {failed}" if failed else "SURVIVES"


def all_pass_without(log, chosen):
    """Without a mutant the tests pass: else a failure would mean nothing."""
    if not built(log, sorted({mutant.program for _, mutant in chosen})):
        print("the library does not compile")
        return False
    for tests in sorted({mutant.tests for _, mutant in chosen}):
        failed = first_failure(log, tests)
        if failed:
            print(f"{failed} fails without any mutant")
            return False
    return True


def main(arguments):
    numbers = [int(a) for a in arguments] or range(1, len(MUTANTS) + 1)
    chosen = [(number, MUTANTS[number - 1]) for number in numbers]
    LOG.parent.mkdir(parents=True, exist_ok=True)
    copy_tree()
    with LOG.open("a+") as log:
        log.truncate(0)
        definitions = [f"-D{name}={value}" for name, value in OPTIONS.items()]
        if run(log, "cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, *definitions) != 0:
            print(f"no build: see {LOG}")
            return 1
        if not all_pass_without(log, chosen):
            return 1
        found = 0
        for number, mutant in chosen:
            begin = time.monotonic()
            good, verdict = examine(log, number, mutant)
            found += good
            print(f"{number:2} {mutant.source:22} {mutant.breaks}: {verdict} ({time.monotonic() - begin:.0f} s)", flush=True)
    print(f"{found} of {len(chosen)} found")
    return 0 if found == len(chosen) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
