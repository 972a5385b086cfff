#!/usr/bin/env python3
"""Runs the models named, or all: each with all its safeguards, which must show no bad state, and with each safeguard taken
away, which must show one.

  run.py [--trace] [MODEL...]"""

import importlib
import sys

MODELS = ["condition", "queue", "registration", "connection", "fork", "references", "stream", "resubscription", "hand"]


def show(name, what, result, want_bad, with_trace):
    good = bool(result.bad) == want_bad
    verdict = result.bad or "no bad state"
    print(f"{name:15} {what:34} {result.states:8} states  {verdict}{'' if good else '   <== WRONG'}")
    if with_trace or not good:
        for step in result.trace:
            print(f"    {step}")
    return good


def main(arguments):
    with_trace = "--trace" in arguments
    chosen = [a for a in arguments if not a.startswith("--")] or MODELS
    wrong = 0
    found = 0
    for name in chosen:
        model = importlib.import_module(f"{name}_model")
        wrong += not show(name, "with all safeguards", model.explored(), False, with_trace)
        for safeguard in model.SAFEGUARDS:
            good = show(name, f"without: {safeguard}", model.explored({safeguard}), True, with_trace)
            found += good
            wrong += not good
    total = sum(len(importlib.import_module(f"{name}_model").SAFEGUARDS) for name in chosen)
    print(f"{len(chosen)} models, {found} of {total} safeguards found when taken away, {wrong} wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
