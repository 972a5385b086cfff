"""A client of remote calls whose group is left: its dispatcher closes the old subscriber and creates a new one, which waits
for the daemon, while the application calls, and destroys the client.

No call waits for the daemon behind the client's lock, no subscriber stays open behind a client that is gone, and each
subscriber is closed once."""

from explore import BLOCKED, all_of, explore, fail, goto, lock, unlock

SAFEGUARDS = {
    "created without the lock": "nobody waits for the client while it waits for the daemon",
    "active is looked at again": "a subscriber created for a client that has ended is closed",
    "adopted under the lock": "a destroy finds the subscriber, or its creator finds the destroy",
    "taken away by one": "the destroy or the dispatcher closes the old subscriber, not both",
    "client outlives the dispatcher": "the dispatcher holds a reference to the client",
}

OLD, NEW = 1, 2


def touch(s, who):
    if s["freed"]:
        fail(f"{who} touches a released client")


def close(s, which, who):
    if which in s["closed"]:
        fail(f"{who} closes a subscriber a second time")
    s["closed"] = s["closed"] | {which}


def unref(s, who):
    touch(s, who)
    s["refs"] -= 1
    if s["refs"] == 0:
        s["freed"] = True


def dispatcher(off):
    held = "client outlives the dispatcher" not in off
    locked = "created without the lock" in off
    alone = "taken away by one" not in off

    def take_old(s):
        touch(s, "dispatcher")
        s["to_close"] = s["subscriber"]
        if alone:
            s["subscriber"] = 0

    def close_old(s):
        if s["to_close"]:
            close(s, s["to_close"], "dispatcher")
        if not alone:
            s["subscriber"] = 0

    def daemon_answers(s):
        if not s["daemon_back"]:
            return BLOCKED
        s["created"] = s["created"] | {NEW}
        return None

    def look(s):
        touch(s, "dispatcher")
        s["seen_active"] = s["active"] or "active is looked at again" in off

    def adopt(s):
        touch(s, "dispatcher")
        if s["seen_active"]:
            s["subscriber"] = NEW
        else:
            close(s, NEW, "dispatcher")

    def leave(s):
        if held:
            unref(s, "dispatcher")

    before = [lock("mutex"), take_old] if locked else [lock("mutex"), take_old, unlock("mutex")]
    after = [] if locked else [lock("mutex")]
    if "adopted under the lock" in off:
        adoption = [*after, look, unlock("mutex"), adopt]
    else:
        adoption = [*after, look, adopt, unlock("mutex")]
    return [*before, close_old, daemon_answers, *adoption, leave]


def call():
    """Any call of the application on the client; the daemon is away for good meanwhile."""
    return [lock("mutex"), lambda s: touch(s, "call"), unlock("mutex")]


def destroy():
    def begin(s):
        touch(s, "destroy")
        s["active"] = False
        s["left"] = s["subscriber"]
        s["subscriber"] = 0

    def close_left(s):
        if s["left"]:
            close(s, s["left"], "destroy")

    return [lock("mutex"), begin, unlock("mutex"), close_left, lambda s: unref(s, "destroy")]


def explored(off=()):
    variables = {
        "mutex": False,
        "refs": 1 if "client outlives the dispatcher" in off else 2,
        "freed": False,
        "active": True,
        "seen_active": False,
        "subscriber": OLD,
        "to_close": 0,
        "left": 0,
        "created": frozenset({OLD}),
        "closed": frozenset(),
        "daemon_back": True,
    }

    def invariant(s, ended):
        if ended and not s["active"] and s["created"] - s["closed"]:
            return "a subscriber stays open behind a client that is gone"
        return None

    away = dict(variables, daemon_back=False)
    return all_of(
        explore(variables, {"dispatcher": dispatcher(off), "destroy": destroy()}, invariant),
        explore(away, {"dispatcher": dispatcher(off), "call": call()}, invariant, ["dispatcher"]),
        explore(away, {"dispatcher": dispatcher(off), "destroy": destroy()}, None, ["dispatcher"]),
    )
