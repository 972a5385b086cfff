"""The connection between the thread that makes and loses it and the thread that writes on it, while the application opens
files, which get whatever descriptor number is free, and a shutdown may come at any time.

Nothing is written to a number that somebody else owns by now, no message begins on a connection on which half of another
went out, and a shutdown ends a connect that has not come back."""

from explore import BLOCKED, all_of, explore, fail

SAFEGUARDS = {
    "the last reference closes": "the number is taken as long as anybody may write to it",
    "loss cuts at once": "a writer fails on a lost connection before its number is free",
    "half a message ends it": "a connection on which part of a message went out is not written on again",
    "generations": "a writer that is through with a connection does not take it again",
    "known before connected": "a shutdown finds the descriptor of a connect that hangs",
    "shutdown under the same lock": "a connection made during the shutdown is not made known",
}

CONNECTIONS = 2


def lowest_free(s):
    return min(n for n in (3, 4, 5) if n not in dict(s["numbers"]))


def owner(s, number):
    return dict(s["numbers"]).get(number)


def give(s, number, to):
    numbers = dict(s["numbers"])
    if to is None:
        numbers.pop(number, None)
    else:
        numbers[number] = to
    s["numbers"] = tuple(sorted(numbers.items()))


def unref(s, generation):
    refs = dict(s["refs"])
    refs[generation] -= 1
    s["refs"] = tuple(sorted(refs.items()))
    if refs[generation] == 0:
        give(s, dict(s["fds"])[generation], None)


def ref(s, generation):
    refs = dict(s["refs"])
    refs[generation] = refs.get(generation, 0) + 1
    s["refs"] = tuple(sorted(refs.items()))


def cut(s, generation):
    s["dead"] = s["dead"] | {generation}


def receiver(off, hangs):
    code = []
    for generation in range(1, CONNECTIONS + 1):

        def make(s, g=generation):
            if s["shutdown"]:
                return "end"
            number = lowest_free(s)
            give(s, number, g)
            s["fds"] = s["fds"] + ((g, number),)
            ref(s, g)
            return None

        def known(s, g=generation):
            if s["shutdown"] and "shutdown under the same lock" not in off:
                unref(s, g)
                return "end"
            s["current"] = g
            ref(s, g)
            return None

        def connect(s, g=generation):
            return BLOCKED if hangs and g not in s["dead"] else None

        def announce(s, g=generation):
            if s["current"] == g and not s["shutdown"]:
                s["connected"] = True

        def lose(s, g=generation):
            """The daemon went away, or a shutdown cut it; without one of these the thread reads on."""
            if "loss cuts at once" not in off:
                cut(s, g)

        def retract(s, g=generation):
            s["gone"] = s["gone"] | {g}
            if s["current"] == g:
                s["current"] = 0
                s["connected"] = False
                unref(s, g)

        def drop(s, g=generation):
            if "the last reference closes" in off:
                give(s, dict(s["fds"])[g], None)
            unref(s, g)

        order = [make, connect, known] if "known before connected" in off else [make, known, connect]
        code += [*order, announce, lose, retract, drop]
    return [*code, "end"]


def writer(off):
    def take(s):
        if s["shutdown"]:
            return "end"
        g = s["current"]
        if not s["connected"] or g == 0 or (g <= s["after"] and "generations" not in off):
            return BLOCKED if s["more"] else "end"
        s["mine"] = g
        ref(s, g)
        return None

    def write(s):
        """Half a message at a time: halves counts those of the message at hand that are out."""
        g = s["mine"]
        number = dict(s["fds"])[g]
        if g in s["dead"]:
            return "failed"
        if owner(s, number) != g:
            fail("written to a descriptor that belongs to somebody else")
        if g in s["gone"]:
            fail("written to a connection that was given up")
        if s["halves"] == 0 and g in s["spoilt"]:
            fail("a message begins on a connection on which half of another went out")
        s["halves"] += 1
        if s["halves"] == 2:
            s["halves"] = 0
            return "sent"
        return None

    def full(s):
        """The kernel takes no more for a moment, and the write comes back with an error."""
        return "failed" if s["faults"] == 0 else fail_once(s)

    def fail_once(s):
        s["faults"] -= 1
        return "failed"

    def failed(s):
        g = s["mine"]
        if s["halves"] > 0:
            s["spoilt"] = s["spoilt"] | {g}
            if "half a message ends it" not in off:
                s["after"] = g
                cut(s, g)
        if g in s["dead"]:
            s["after"] = max(s["after"], g)
        s["halves"] = 0
        s["mine"] = 0
        s["tries"] += 1
        unref(s, g)
        return "end" if s["tries"] > 3 else "again"

    def sent(s):
        g = s["mine"]
        s["mine"] = 0
        unref(s, g)
        return "end"

    def maybe_fault(s):
        return BLOCKED if s["faults"] == 0 else fail_once(s)

    return ["again", take, [write, maybe_fault], [write, maybe_fault], "failed", failed, "sent", sent, "end"]


def application():
    def open_file(s):
        give(s, lowest_free(s), "file")

    return [open_file]


def shutdown():
    def begin(s):
        s["shutdown"] = True
        s["connected"] = False
        g = s["current"]
        s["current"] = 0
        if g:
            cut(s, g)
            unref(s, g)

    return [begin]


def explored(off=()):
    variables = {
        "numbers": (),
        "fds": (),
        "refs": (),
        "dead": frozenset(),
        "gone": frozenset(),
        "spoilt": frozenset(),
        "current": 0,
        "connected": False,
        "shutdown": False,
        "mine": 0,
        "after": 0,
        "halves": 0,
        "faults": 1,
        "tries": 0,
        "more": True,
    }

    def invariant(s, ended):
        if s["mine"] and s["mine"] <= s["after"]:
            return "a connection is taken again that the writer was through with"
        held = {s["mine"]: 1} if s["mine"] else {}
        if ended and any(count != held.get(g, 0) for g, count in s["refs"]):
            return "a connection is left open"
        if ended and s["shutdown"] and s["current"]:
            return "a connection is known after the shutdown"
        return None

    writing = {"writer": writer(off)}
    return all_of(
        explore(variables, {"receiver": receiver(off, False), "application": application()} | writing, invariant, ["writer"]),
        explore(variables, {"receiver": receiver(off, False), "shutdown": shutdown()} | writing, invariant, ["writer"]),
        explore(variables, {"receiver": receiver(off, True), "shutdown": shutdown()}, invariant),
    )
