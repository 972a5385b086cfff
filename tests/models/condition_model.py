"""A condition: two threads that wait, one of them with a limit that may pass at any moment, and one that wakes both.

Who waits has its record on its stack: it is not touched once its owner has left, and nobody who was to be woken sleeps on."""

from explore import BLOCKED, all_of, explore, fail, lock, unlock

SAFEGUARDS = {
    "who is late leaves": "a record whose owner has left is not found by who wakes later",
    "who was taken out stays": "a record is not left while somebody is about to write to it",
    "next before the word": "a record is not read once its owner may be gone",
    "word before sleep": "who was woken before it sleeps does not sleep",
}


def waiter(me, limited, off):
    def enter(s):
        s["waiting"] = (*s["waiting"], me)
        s["records"] = s["records"] | {me}
        s["lock"] = False

    def doze(s):
        """The kernel compares the word and puts the thread to sleep in one step."""
        if me not in s["words"] or "word before sleep" in off:
            s["sleeping"] = s["sleeping"] | {me}

    def woken(s):
        if me in s["sleeping"]:
            return BLOCKED
        return "back" if me in s["words"] else "again"

    def late(s):
        if not limited:
            return BLOCKED
        s["sleeping"] = s["sleeping"] - {me}
        return "late"

    def leave(s):
        if me in s["waiting"]:
            if "who is late leaves" not in off:
                s["waiting"] = tuple(w for w in s["waiting"] if w != me)
            return "gone"
        if "who was taken out stays" in off:
            return "gone"
        s["lock"] = False

    def told(s):
        return None if me in s["words"] else BLOCKED

    def go(s):
        s["records"] = s["records"] - {me}

    return [
        lock("lock"),
        enter,
        "again",
        doze,
        [woken, late],
        "late",
        lock("lock"),
        leave,
        told,
        "back",
        lock("lock"),
        "gone",
        go,
        unlock("lock"),
    ]


def waker(name, off):
    """Wakes all, once there is somebody."""

    def touch(s, who):
        if who not in s["records"]:
            fail(f"the record of {who} is touched after it has gone")

    def somebody(s):
        return None if s["waiting"] else BLOCKED

    def take(s):
        s[name], s["waiting"] = s["waiting"], ()

    def read_next(s):
        if not s[name]:
            return "done"
        touch(s, s[name][0])
        return None

    def tell(s):
        s["words"] = s["words"] | {s[name][0]}

    def wake(s):
        if "next before the word" in off:
            touch(s, s[name][0])
        s["sleeping"] = s["sleeping"] - {s[name][0]}
        s[name] = s[name][1:]
        return "next"

    return [somebody, lock("lock"), take, unlock("lock"), "next", read_next, tell, wake, "done"]


def explored(off=()):
    variables = {
        "lock": False,
        "waiting": (),
        "sleeping": frozenset(),
        "words": frozenset(),
        "records": frozenset(),
        "one": (),
        "two": (),
    }
    limited = {name: waiter(name, True, off) for name in ("a", "b")}
    wakers = {name: waker(name, off) for name in ("one", "two")}
    return all_of(
        explore(variables, {"a": waiter("a", False, off), "one": waker("one", off)}),
        explore(variables, limited | {"one": waker("one", off)}, None, ["one"]),
        explore(variables, limited | wakers, None, ["one", "two"]),
    )
