"""Who may still touch a subscriber: the application that receives and closes, a call-back thread, the receive thread that
delivers, and a shutdown that closes whatever it finds.

Nobody touches the record after its last reference, it is closed once, and in the end it is gone."""

from explore import BLOCKED, explore, fail

SAFEGUARDS = {
    "receiving begins with the runtime": "a receive that begins while the runtime ends touches nothing",
    "receiving holds a reference": "a receive outlives a close by another thread",
    "reference before the thread": "a thread's reference is taken before the thread starts",
    "delivery with the table locked": "what is found in the table stays while something is delivered to it",
    "out of the table first": "a close takes the record out of the table before it gives its reference back",
    "closed once": "of two that close, one gives the handle's reference back",
    "retired with the runtime": "a shutdown keeps the record for a close that is on its way",
}


def touch(s, who):
    if s["freed"]:
        fail(f"{who} touches a released record")


def unref(s, who):
    touch(s, who)
    if s["refs"] <= 0:
        fail(f"{who} gives back a reference too many")
    s["refs"] -= 1
    if s["refs"] == 0:
        s["freed"] = True


def first_to_close(s, who, off):
    """One exchange of the flag. Without it two may both see it clear."""
    touch(s, who)
    if s["closing"] and "closed once" not in off:
        return False
    s["closing"] = True
    return True


def receiving(off):
    """The application's promise is that it does not begin a call with a handle it has closed."""

    def join(s):
        if "receiving begins with the runtime" in off:
            return None
        if s["ended"]:
            return "end"
        s["inside"] += 1
        s["receiving"] = True
        return None

    def part(s):
        s["inside"] -= 1 if s["receiving"] else 0

    def enter(s):
        if s["handle_closed"]:
            return "out"
        if "receiving holds a reference" not in off:
            touch(s, "receive")
            s["refs"] += 1
        return None

    def look(s):
        touch(s, "receive")

    def leave(s):
        if "receiving holds a reference" not in off:
            unref(s, "receive")

    return [join, enter, look, look, leave, "out", part, "end"]


def closing(off):
    def begin(s):
        s["handle_closed"] = True
        if s["ended"]:
            return "out"
        s["inside"] += 1
        return None

    def look(s):
        touch(s, "close")
        return "end" if s["closing"] and "closed once" not in off else None

    def out(s):
        if s["table_locked"]:
            return BLOCKED
        if "out of the table first" not in off:
            s["listed"] = False
        return None

    def close(s):
        return None if first_to_close(s, "close", off) else "end"

    def give_back(s):
        unref(s, "close")
        s["listed"] = False

    def leave(s):
        s["inside"] -= 1

    return [begin, look, out, close, give_back, "end", leave, "out"]


def starting(off):
    """Registers a call-back: the dispatcher begins at its own time."""

    def start(s):
        if s["handle_closed"] or s["ended"]:
            return "end"
        touch(s, "register")
        if "reference before the thread" not in off:
            s["refs"] += 1
        s["started"] = True
        return None

    return [start, "end"]


def dispatcher(off):
    def begin(s):
        if not s["started"]:
            return BLOCKED
        if "reference before the thread" in off:
            touch(s, "dispatcher")
            s["refs"] += 1
        return None

    def look(s):
        touch(s, "dispatcher")

    return [begin, look, lambda s: unref(s, "dispatcher")]


def delivering(off):
    def find(s):
        if s["table_locked"]:
            return BLOCKED
        if not s["listed"]:
            return "end"
        s["table_locked"] = "delivery with the table locked" not in off
        return None

    def deliver(s):
        touch(s, "delivery")

    def leave(s):
        s["table_locked"] = False

    return [find, deliver, deliver, leave, "end"]


def shutdown(off):
    def unpublish(s):
        s["ended"] = True

    def take(s):
        if s["table_locked"]:
            return BLOCKED
        if not s["listed"]:
            return "end"
        s["listed"] = False
        if "retired with the runtime" not in off:
            s["refs"] += 1
            s["retired"] = True
        return None

    def close(s):
        return None if first_to_close(s, "shutdown", off) else "end"

    return [unpublish, take, close, lambda s: unref(s, "shutdown"), "end"]


def release(off):
    """The runtime goes when the last call inside has left."""

    def last(s):
        if s["inside"] > 0 or not s["closed_all"]:
            return BLOCKED
        if s["retired"]:
            s["retired"] = False
            unref(s, "runtime")
        return None

    return [last]


def explored(off=()):
    variables = {
        "refs": 1,
        "freed": False,
        "closing": False,
        "handle_closed": False,
        "listed": True,
        "table_locked": False,
        "started": False,
        "retired": False,
        "ended": False,
        "closed_all": False,
        "receiving": False,
        "inside": 0,
    }

    def all_closed(s):
        s["closed_all"] = True

    threads = {
        "receive": receiving(off),
        "close": closing(off),
        "register": starting(off),
        "dispatch": dispatcher(off),
        "deliver": delivering(off),
        "shutdown": [*shutdown(off), all_closed],
        "release": release(off),
    }

    def invariant(s, ended):
        return "the record is left behind" if ended and not s["freed"] and not s["started"] else None

    return explore(variables, threads, invariant, ["dispatch"])
