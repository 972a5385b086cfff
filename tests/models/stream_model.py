"""An incoming stream between the thread that feeds it and the application that reads it, closes it, or never asks for it,
while its subscriber is closed.

The stream is not touched after its last reference, goes in the end, and a reader is woken by the end mark or the close."""

from explore import BLOCKED, all_of, explore, fail

SAFEGUARDS = {
    "counted ends": "which of the two ends is the last is decided in one step",
    "fed before let go": "the end mark goes in while the table still holds the stream",
    "a read holds a reference": "a close by mistake during a read does no harm",
    "unasked ends go with the piece": "the application's end is its notification's until somebody asks for it",
    "closing the subscriber wakes readers": "a reader of a stream that will get no end is woken",
}


def touch(s, who):
    if s["freed"]:
        fail(f"{who} touches a released stream")


def unref(s, who):
    touch(s, who)
    s["refs"] -= 1
    if s["refs"] == 0:
        s["freed"] = True


def let_go(me, other, who, off):
    """Counted: one step. Otherwise each end says that it is done and looks whether the other is."""
    if "counted ends" not in off:
        return [lambda s: unref(s, who)]

    def say(s):
        touch(s, who)
        s[me] = True

    def look(s):
        if s[other]:
            touch(s, who)
            s["freed"] = True

    return [say, look]


def feeder(off):
    def feed(s):
        if s["gone_from_table"]:
            return "end"
        touch(s, "feeder")
        s["chunks"] += 1
        return None

    def end_mark(s):
        touch(s, "feeder")
        s["end"] = True

    def leave(s):
        if s["gone_from_table"]:
            return "end"
        s["gone_from_table"] = True
        return None

    go = let_go("fed", "closed", "feeder", off)
    last = [*go, end_mark] if "fed before let go" in off else [end_mark, *go]
    return [feed, leave, *last, "end"]


def reader(off, asks):
    held = "a read holds a reference" not in off

    def begin(s):
        s["reading"] = True
        touch(s, "reader")
        if held:
            s["refs"] += 1

    def read(s):
        touch(s, "reader")
        if s["chunks"] == 0 and not s["end"] and not s["woken"]:
            return BLOCKED
        s["chunks"] = 0
        return None

    def done(s):
        if held:
            unref(s, "reader")

    if asks == "never":
        piece = [lambda s: None] if "unasked ends go with the piece" in off else let_go("closed", "fed", "piece", off)
        return piece
    if asks == "closes by mistake":
        return [begin, read, done]
    return [begin, read, done, *let_go("closed", "fed", "reader", off)]


def hasty(off):
    """Closes the stream while the other thread is inside its read."""
    begun = [lambda s: None if s["reading"] else BLOCKED]
    return begun + let_go("closed", "fed", "the other thread", off)


def closing(off):
    """The subscriber's close wakes the readers, its release lets go of what is in the table."""

    def take(s):
        if s["gone_from_table"]:
            return "end"
        if "closing the subscriber wakes readers" not in off:
            s["woken"] = True
        s["gone_from_table"] = True
        return None

    return [take, *let_go("fed", "closed", "release", off), "end"]


def explored(off=()):
    variables = {
        "refs": 2,
        "freed": False,
        "fed": False,
        "closed": False,
        "gone_from_table": False,
        "chunks": 0,
        "end": False,
        "woken": False,
        "reading": False,
    }

    def invariant(s, ended):
        return "the stream is left behind" if ended and not s["freed"] else None

    feeding = {"feeder": feeder(off)}
    return all_of(
        explore(variables, feeding | {"reader": reader(off, "reads")}, invariant),
        explore(variables, feeding | {"reader": reader(off, "never")}, invariant),
        explore(variables, {"reader": reader(off, "reads"), "closing": closing(off)}, invariant),
        explore(variables, feeding | {"reader": reader(off, "reads"), "closing": closing(off)}, invariant),
        explore(variables, feeding | {"reader": reader(off, "closes by mistake"), "hasty": hasty(off)}, invariant),
    )
