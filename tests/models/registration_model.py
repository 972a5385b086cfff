"""The answer to a subscribe request and the thread that waits for it, with or without a limit, while the daemon answers
twice (once more after a reconnect) and a shutdown takes all subscribers out of the table.

The creator never waits for an answer that has come, is not left waiting by a shutdown, and nobody touches the record after
its last reference."""

from explore import BLOCKED, all_of, broadcast, explore, fail, goto, lock, unlock, wait

SAFEGUARDS = {
    "look before waiting": "an answer that came before the wait is seen under the lock",
    "broadcast on answer": "the waiting creator is told of the answer",
    "closing wakes the creator": "a shutdown tells a creator that waits without limit",
    "closing ends the wait": "the creator looks whether it has been closed",
    "creation holds a reference": "a shutdown takes the handle's reference back while the creation still runs",
    "shutdown holds a reference": "what a shutdown took out of the table stays until it has closed it",
    "settled means nobody asks": "an answer after the time-out is dropped",
}


def touch(s, who):
    if s["freed"]:
        fail(f"{who} touches a released record")


def unref(s, who):
    touch(s, who)
    s["refs"] -= 1
    if s["refs"] == 0:
        s["freed"] = True


def creator(off, limited):
    def enter(s):
        s["refs"] = 1 if "creation holds a reference" in off else 2
        s["state"] = "pending"
        s["listed"] = True

    def must_wait(s):
        touch(s, "creator")
        if "look before waiting" in off and not s["slept"]:
            return None
        closed = s["closing"] and "closing ends the wait" not in off
        return None if s["state"] == "pending" and not closed else "done"

    def note(s):
        s["slept"] = True

    def done(s):
        touch(s, "creator")
        s["created"] = s["state"] == "answered" and not s["closing"]
        s["asked"] = s["state"] == "answered"
        s["state"] = "settled"

    def leave_table(s):
        """Refused, timed out or closed: the record is taken out of the table if it is still there."""
        if s["created"]:
            return "keep"
        s["listed"] = False
        return None

    def close(s):
        touch(s, "creator")
        if s["closing"]:
            return "keep"
        s["closing"] = True
        unref(s, "creator")
        return None

    def keep(s):
        if "creation holds a reference" not in off:
            unref(s, "creator")

    def time_out(s):
        if s["mutex"]:
            return BLOCKED
        s["mutex"] = True
        s["answered_cond"] = s["answered_cond"] - {"creator"}

    sleep, wake = wait("answered_cond", "mutex", "creator")
    return [
        enter,
        lock("mutex"),
        "again",
        must_wait,
        note,
        sleep,
        [wake, time_out] if limited else wake,
        goto("done") if limited else goto("again"),
        "done",
        done,
        unlock("mutex"),
        leave_table,
        close,
        "keep",
        keep,
    ]


def receiver(off):
    def answer(s):
        """Under the registry's lock, so that the record is in the table and stays."""
        if s["state"] == "" or s["registry"] or s["mutex"]:
            return BLOCKED
        if not s["listed"]:
            return None
        touch(s, "receiver")
        if s["state"] == "settled" and "settled means nobody asks" not in off:
            return None
        s["state"] = "answered"
        if "broadcast on answer" not in off:
            broadcast(s, "answered_cond")
        return None

    return [answer, answer]


def shutdown(off):
    def take(s):
        if s["state"] == "" or s["registry"]:
            return BLOCKED
        if not s["listed"]:
            return "end"
        s["listed"] = False
        if "shutdown holds a reference" not in off:
            s["refs"] += 1
        return None

    def close(s):
        touch(s, "shutdown")
        if s["closing"]:
            return "leave"
        s["closing"] = True
        return None

    def wake(s):
        if s["mutex"]:
            return BLOCKED
        if "closing wakes the creator" not in off:
            broadcast(s, "answered_cond")
        return None

    def leave(s):
        if "shutdown holds a reference" not in off:
            unref(s, "shutdown")

    return [take, close, wake, lambda s: unref(s, "shutdown"), "leave", leave, "end"]


def explored(off=()):
    variables = {
        "mutex": False,
        "registry": False,
        "answered_cond": frozenset(),
        "state": "",
        "slept": False,
        "listed": False,
        "closing": False,
        "created": False,
        "asked": False,
        "refs": 0,
        "freed": False,
    }

    def invariant(s, ended):
        if s["state"] == "answered" and s["asked"]:
            return "an answer that nobody asked for is kept"
        if ended and not s["created"] and not s["freed"]:
            return "the record of a creation that failed is left behind"
        return None

    def situation(limited, **others):
        threads = {"creator": creator(off, limited)}
        return explore(variables, threads | others, invariant)

    answer, end = receiver(off), shutdown(off)
    return all_of(
        situation(False, receiver=answer),
        situation(False, shutdown=end),
        situation(False, receiver=answer, shutdown=end),
        situation(True, receiver=answer),
        situation(True, receiver=answer, shutdown=end),
    )
