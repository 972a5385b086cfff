#!/usr/bin/env python3
"""The library's data structures against a model of them: rows of random operations, after each of which everything that can
be seen of an object has to be what the model says.

  run.py LIBRARY HEADER [--operations N] [--seed N] [--row N] [--trace]

A row of operations follows from the seed and its number. On a difference the operations that it takes are shown, and the
exit code is 1; so it is when the rows leave memory behind. With --trace each operation is shown before it is done."""

import argparse
import locale
import mmap
import os
import random
import secrets
import sys
import time

from library import Connection, Difference, Library, allocated
from world import OPERATIONS, World

ROW = 60  # operations with one set of objects
HELD = 128 * 1024  # octets that half of the rows may leave: buffers that have grown, and the interpreter's
SHRINKING = 60  # seconds


def row_of(seed, number):
    r = random.Random(f"{seed} {number}")
    chosen = r.choices(OPERATIONS, [weight for weight, _, _ in OPERATIONS], k=ROW)
    return [(function, [generate(r) for generate in generators]) for _, generators, function in chosen]


def words(operation):
    function, arguments = operation
    shown = (repr(a) if len(repr(a)) < 400 else repr(a)[:400] + f"... ({len(a)})" for a in arguments)
    return f"{function.__name__}({', '.join(shown)})"


def from_where_they_differ(actual, expected):
    """Both, without the octets that many have in common at their beginning."""
    if isinstance(actual, bytes) and isinstance(expected, bytes):
        alike = next((i for i, (a, b) in enumerate(zip(actual, expected)) if a != b), min(len(actual), len(expected)))
        if alike > 100:
            print(f"(the first {alike - 60} octets of both left out)")
            return actual[alike - 60:][:600], expected[alike - 60:][:600]
    return actual, expected


def differs(library, connection, row, trace=False):
    """The number of the operation after which there is a difference (the row's length: at the end) and the difference."""
    step = 0
    try:
        world = World(library, connection)
        for function, arguments in row:
            if trace:
                print(f"{step:4} {words((function, arguments))}", flush=True)
            function(world, *arguments)
            step += 1
        world.close()
    except Difference as difference:
        connection.renew()
        return step, difference
    return None


def shrunk(library, connection, row):
    """A shorter row that shows a difference as well."""
    end = time.monotonic() + SHRINKING
    size = len(row) // 2
    while size and time.monotonic() < end:
        at = 0
        while at < len(row) and time.monotonic() < end:
            shorter = row[:at] + row[at + size:]
            if differs(library, connection, shorter):
                row = shorter
            else:
                at += size
        size //= 2
    return row


def show(row):
    for i, operation in enumerate(row):
        print(f"{i:4} {words(operation)}")


def examine(given, numbers, current):
    """All rows; CURRENT tells whoever waits for this process which one is being done."""
    locale.setlocale(locale.LC_ALL, "C")  # what is printable depends on it
    library = Library(given.library, given.header)
    connection = Connection(library)
    least = [sys.maxsize] * 4  # in use at a row of each quarter: what is held for a moment does not count
    for count, number in enumerate(numbers):
        quarter = count * 4 // len(numbers)
        least[quarter] = min(least[quarter], allocated())
        current[:8] = number.to_bytes(8, "little")
        row = row_of(given.seed, number)
        found = differs(library, connection, row, given.trace)
        if found:
            step, difference = found
            print(f"api: seed {given.seed}, row {number}, step {step} of {len(row)}: {difference.what}", flush=True)
            row = shrunk(library, connection, row[:step + 1])
            step, difference = differs(library, connection, row) or found
            print(f"with these {len(row)} operations, after number {step}:")
            show(row)
            print(difference.what)
            actual, expected = from_where_they_differ(difference.actual, difference.expected)
            print(f"  expected {expected!r}\n  actual   {actual!r}")
            return 1
    held = least[3] - least[1] if len(numbers) > 3 else 0
    connection.close()
    print(f"api: {len(numbers) * ROW} operations, seed {given.seed}, 0 differences, {held / 1024:+.1f} KiB in half of them")
    return 1 if held > HELD else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("library")
    parser.add_argument("header")
    parser.add_argument("--operations", type=int, default=20000)
    parser.add_argument("--seed", type=int, default=secrets.randbelow(1 << 32))
    parser.add_argument("--row", type=int)
    parser.add_argument("--trace", action="store_true")
    given = parser.parse_args()
    numbers = range(-(-given.operations // ROW)) if given.row is None else [given.row]
    current = mmap.mmap(-1, 8)
    child = os.fork()
    if child == 0:
        return examine(given, numbers, current)
    ended = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    if ended < 0:
        number = int.from_bytes(current[:8], "little")
        print(f"api: seed {given.seed}, row {number}: signal {-ended} in one of these operations; --row and --trace show which:")
        show(row_of(given.seed, number))
    return 1 if ended else 0


if __name__ == "__main__":
    sys.exit(main())
