"""Forks against threads that open descriptors, and against a shutdown that waits for a daemon which does not read.

At the instant of a fork no descriptor is between opening and being marked close-on-exec, everybody who waits is told, and a
fork does not wait for a daemon."""

from explore import BLOCKED, all_of, broadcast, explore, fail, lock, unlock, wait

SAFEGUARDS = {
    "opening waits for the fork": "no descriptor is opened while a fork is under way",
    "the fork waits for openings": "a fork lets those finish that are opening",
    "opening tells the fork": "a fork that waits is told by the last that was opening",
    "the fork tells openers": "those who wait to open are told in the parent",
    "waiting forks go first": "one opening after the other does not keep a fork waiting",
    "shutdown lets the lock go": "a shutdown that waits for the daemon holds no lock that a fork needs",
    "one order of locks": "a fork takes the locks in the order in which everybody else does",
}


def opener(me, off, times):
    def must_wait(s):
        busy = s["forking"] > 0 and "opening waits for the fork" not in off
        polite = s["forkwaiters"] > 0 and "waiting forks go first" not in off
        return None if busy or polite else "enter"

    def enter(s):
        s["openings"] += 1
        s["overtaken"] += 1 if s["forkwaiters"] > 0 else 0

    def leave(s):
        s["openings"] -= 1
        if s["openings"] == 0 and "opening tells the fork" not in off:
            broadcast(s, "cond")

    code = []
    for turn in range(times):
        again, inside = f"again{turn}", f"enter{turn}"
        code += [
            lock("interlock"),
            again,
            lambda s, label=inside: must_wait(s) and label,
            *wait("cond", "interlock", me),
            lambda s, label=again: label,
            inside,
            enter,
            unlock("interlock"),
            lock("interlock"),
            leave,
            unlock("interlock"),
        ]
    return code


def forker(me, off):
    def must_wait(s):
        return None if s["openings"] > 0 and "the fork waits for openings" not in off else "enter"

    def count(by):
        def step(s):
            s["forkwaiters"] += by

        return step

    def enter(s):
        s["forking"] += 1

    def the_fork(s):
        if s["openings"] > 0:
            fail("a fork while a descriptor is being opened")

    def leave(s):
        s["forking"] -= 1
        if s["forking"] == 0 and "the fork tells openers" not in off:
            broadcast(s, "cond")

    inner = ["queue", "registry"] if "one order of locks" in off else ["registry", "queue"]
    return [
        lock("global"),
        lock("interlock"),
        "again",
        must_wait,
        count(1),
        *wait("cond", "interlock", me),
        count(-1),
        lambda s: "again",
        "enter",
        enter,
        unlock("interlock"),
        lock(inner[0]),
        lock(inner[1]),
        the_fork,
        unlock("queue"),
        unlock("registry"),
        lock("interlock"),
        leave,
        unlock("interlock"),
        unlock("global"),
    ]


def stalled_shutdown(off):
    """The drain never ends: nobody reads at the other side."""
    let_go = [] if "shutdown lets the lock go" in off else [unlock("global")]
    return [lock("global"), *let_go, lambda s: BLOCKED]


def reconnecting():
    """What the receive thread does after a loss: it looks through the send queue with the registry locked."""
    return [lock("registry"), lock("queue"), unlock("queue"), unlock("registry")]


def explored(off=()):
    variables = {
        "global": False,
        "interlock": False,
        "registry": False,
        "queue": False,
        "cond": frozenset(),
        "openings": 0,
        "forking": 0,
        "forkwaiters": 0,
        "overtaken": 0,
    }

    def invariant(s, ended):
        return "an opening goes before a fork that waits" if s["overtaken"] else None

    openers = {"a": opener("a", off, 2), "b": opener("b", off, 1)}
    forks = {"f": forker("f", off), "g": forker("g", off)}
    return all_of(
        explore(variables, openers | forks, invariant),
        explore(variables, {"f": forker("f", off), "end": stalled_shutdown(off)}, invariant, ["end"]),
        explore(variables, {"f": forker("f", off), "receiver": reconnecting()}, invariant),
    )
