"""The queue: two threads that take, one that puts, one that drains and then shuts down, one that closes by itself.

Whoever waits is woken, everything that was taken in comes out or is released once, and the record is not used after its
owner has released it."""

from explore import BLOCKED, all_of, explore, fail, goto, lock, unless, unlock

SAFEGUARDS = {
    "signal on put": "a taker that waits is told of an element",
    "wake as many as came": "elements that come together wake a taker each",
    "broadcast on drain": "takers that wait are told that nothing will come",
    "broadcast on shutdown": "takers that wait are told to leave",
    "drain sees shutdown": "a drain does not wait for elements that nobody may take any more",
    "shutdown tells the drain": "a drain that waits is told of the shutdown",
    "last remover tells": "a shutdown that waits for takers to leave is told by the last",
    "wait looks again": "a taker that was woken looks whether there is an element",
}


def wait(condition, me):
    """Leaving the lock, asleep in the condition, and coming back with it once woken. Who wakes does so in two steps: it takes
    those who are to be woken out of the condition, first those who came first, and tells them when it has left the lock."""

    def sleep(s):
        s[condition] = (*s[condition], me)
        s["asleep"] = s["asleep"] | {me}
        s["lock"] = False

    def wake(s):
        if me in s["asleep"] or s["lock"]:
            return BLOCKED
        s["lock"] = True

    return [sleep, wake]


def wake(s, waiters):
    s["asleep"] = s["asleep"] - set(waiters)


def broadcast(s, condition):
    wake(s, s[condition])
    s[condition] = ()


def taker(me, off):
    def wants_to_wait(s):
        return not s["shut"] and not s["items"] and not s["draining"]

    def enter(s):
        s["removers"] += 1

    def stays(s):
        if "wait looks again" in off:
            return "leave"
        return None if not s["items"] and not s["shut"] and not s["draining"] else "leave"

    def leave(s):
        s["removers"] -= 1

    def take(s):
        if s["shut"] and not s["waited" + me]:
            return "out"
        if s["items"]:
            s["taken"] += 1
            s["items"] -= 1
        elif s["waited" + me] and not s["shut"] and not s["draining"]:
            fail(f"{me} came back with nothing though it waits without limit")
        left = s["shut"] and s["removers"] == 0 and "last remover tells" not in off
        if s["emptied"] and (s["items"] == 0 and not s["shut"] or left):
            broadcast(s, "emptied")

    def mark(s):
        s["waited" + me] = True

    return [
        lock("lock"),
        unless(wants_to_wait, "take"),
        enter,
        mark,
        "again",
        *wait("notempty", me),
        lambda s: None if stays(s) is None else "leave",
        lambda s: "again",
        "leave",
        leave,
        "take",
        take,
        "out",
        unlock("lock"),
    ]


def putter(off, *together):
    """Puts as many as TOGETHER says, in so many steps. Whom to wake is known under the lock; who wakes them has left it."""

    def put(count):
        def step(s):
            if s["draining"] or s["shut"]:
                return "out"
            s["items"] += count
            s["put"] += count
            taken = 1 if "wake as many as came" in off else count
            s["taken out"], s["notempty"] = s["notempty"][:taken], s["notempty"][taken:]
            return None

        return step

    def tell(s):
        if "signal on put" not in off:
            wake(s, s["taken out"])
        s["taken out"] = ()

    code = []
    for count in together:
        code += [lock("lock"), put(count), unlock("lock"), tell]
    return [*code, goto("end"), "out", unlock("lock"), "end"]


def drainer(off):
    def begin(s):
        if s["draining"] or s["shut"]:
            return "out"
        s["draining"] = True
        if "broadcast on drain" not in off:
            broadcast(s, "notempty")

    def done(s):
        return None if s["items"] > 0 and (not s["shut"] or "drain sees shutdown" in off) else "out"

    return [lock("lock"), begin, "again", done, *wait("emptied", "drainer"), lambda s: "again", "out", unlock("lock")]


def closer(off):
    def begin(s):
        s["shut"] = True
        if "broadcast on shutdown" not in off:
            broadcast(s, "notempty")
        if "shutdown tells the drain" not in off:
            broadcast(s, "emptied")

    def done(s):
        return None if s["removers"] > 0 else "empty"

    def empty(s):
        s["released"] += s["items"]
        s["items"] = 0

    return [
        lock("lock"),
        begin,
        "again",
        done,
        *wait("emptied", "closer"),
        lambda s: "again",
        "empty",
        empty,
        unlock("lock"),
    ]


def explored(off=()):
    variables = {
        "lock": False,
        "notempty": (),
        "emptied": (),
        "asleep": frozenset(),
        "taken out": (),
        "items": 0,
        "put": 0,
        "taken": 0,
        "released": 0,
        "removers": 0,
        "draining": False,
        "shut": False,
        "waiteda": False,
        "waitedb": False,
    }

    def invariant(s, ended):
        if s["taken"] + s["released"] + s["items"] != s["put"]:
            return "an element was lost or came out twice"
        if ended and s["items"]:
            return "an element was left behind"
        return None

    takers = {"a": taker("a", off), "b": taker("b", off)}
    drain = {"drain": drainer(off)}
    put = {"put": putter(off, 1, 1)}
    put_two = {"put": putter(off, 2)}
    close = {"close": closer(off)}
    return all_of(
        explore(variables, takers | put | drain | close, invariant),
        explore(variables, takers | put, invariant),
        explore(variables, takers | put_two | drain | close, invariant),
        explore(variables, takers | put_two, invariant),
        explore(variables, takers | drain, invariant),
    )
