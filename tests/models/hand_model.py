"""A request in the send thread's hand, between queue and wire, at the moment when the connection is lost and what the next
daemon has to know is put together from the subscribers and the queue.

On the next connection each subscriber is subscribed once, and nothing that was to be taken back on the lost one is taken
back there."""

from explore import BLOCKED, all_of, explore, fail, goto, lock, unlock

SAFEGUARDS = {
    "taken under the lock": "who holds the lock knows that nothing is between queue and wire",
    "the loss waits for the hand": "what was taken for the lost connection is back in the queue when that is looked through",
    "cut before the wait": "a writer that is waited for fails, and takes nothing afterwards",
    "a lost connection gets nothing": "nothing is taken out for a connection that is cut",
    "looked at under the lock": "a connection that is cut while the writer waits for the lock is seen",
    "put back under the lock": "what could not be written is in the queue when the lock is free",
    "awaited without the lock": "a loss does not wait for something to be published",
    "what is queued is not doubled": "a request that waits in the queue is not made again",
    "announced last": "nothing is written on a connection before its requests are queued",
    "unsubscribes go with the loss": "the next daemon has never heard of what they would end",
}

LOST, NEXT = 1, 2
SUBSCRIBE, UNSUBSCRIBE = "subscribe", "unsubscribe"


def queue(s, kind):
    s["queue"] = s["queue"] + ((kind, "before" if not s["handled"] else "after"),)


def sender(off):
    def take_connection(s):
        if s["connected"] <= s["through"]:
            return BLOCKED
        s["mine"] = s["connected"]
        return None

    def await_item(s):
        return None if s["queue"] else BLOCKED

    def look(s):
        if s["mine"] in s["dead"]:
            s["through"] = s["mine"]
            return "free"
        return None

    def look_unlocked(s):
        if s["mine"] in s["dead"]:
            s["through"] = s["mine"]
            return "again"
        return None

    def take(s):
        if not s["queue"]:
            return "free"
        s["hand"] = s["queue"][0]
        s["queue"] = s["queue"][1:]
        return None

    def write(s):
        if s["mine"] in s["dead"]:
            return "failed"
        kind, when = s["hand"]
        if s["mine"] == NEXT:
            if kind == UNSUBSCRIBE and when == "before":
                fail("the next daemon is told to forget what it never knew")
            if kind == SUBSCRIBE:
                s["subscribed"] += 1
                if s["subscribed"] > 1:
                    fail("a subscription is sent twice")
        s["hand"] = None
        return None

    def put_back(s):
        s["queue"] = (s["hand"], *s["queue"])
        s["hand"] = None
        s["through"] = s["mine"]

    locked = "taken under the lock" not in off
    enter = [lock("lock")] if locked else []
    leave = [unlock("lock")] if locked else []
    waiting = [*enter, await_item] if "awaited without the lock" in off else [await_item, *enter]
    if "a lost connection gets nothing" in off:
        looking = waiting
    elif "looked at under the lock" in off:
        looking = [await_item, look_unlocked, *enter]
    else:
        looking = [*waiting, look]
    failing = [*leave, put_back] if "put back under the lock" in off else [put_back, *leave]

    def is_through(s):
        return "again" if s["mine"] <= s["through"] else "item"

    return [
        "again",
        take_connection,
        "item",
        *looking,
        take,
        write,
        "free",
        *leave,
        is_through,
        "failed",
        *failing,
        goto("again"),
    ]


def receiver(off):
    def cut(s):
        s["dead"] = s["dead"] | {LOST}

    def retract(s):
        s["connected"] = 0

    def handle(s):
        s["handled"] = True
        if "unsubscribes go with the loss" not in off:
            s["queue"] = tuple(item for item in s["queue"] if item[0] != UNSUBSCRIBE)

    def register_again(s):
        waiting = any(kind == SUBSCRIBE for kind, _ in s["queue"])
        if s["live"] and (not waiting or "what is queued is not doubled" in off):
            queue(s, SUBSCRIBE)

    def announce(s):
        s["connected"] = NEXT

    settle = [] if "the loss waits for the hand" in off else [lock("lock"), unlock("lock")]
    losing = [*settle, cut] if "cut before the wait" in off else [cut, *settle]
    renewing = [announce, register_again] if "announced last" in off else [register_again, announce]
    return [*losing, retract, handle, *renewing]


def create():
    def activate(s):
        s["live"] = True
        queue(s, SUBSCRIBE)

    return activate


def close():
    def deregister(s):
        s["live"] = False
        queue(s, UNSUBSCRIBE)

    return deregister


def explored(off=()):
    variables = {
        "lock": False,
        "queue": (),
        "hand": None,
        "dead": frozenset(),
        "connected": LOST,
        "mine": 0,
        "through": 0,
        "handled": False,
        "live": False,
        "subscribed": 0,
    }

    def invariant(s, ended):
        if ended and not s["queue"] and s["hand"] is None and s["live"] and s["subscribed"] == 0:
            return "a subscriber is forgotten"
        return None

    def with_application(start, *calls):
        threads = {"application": list(calls), "sender": sender(off), "receiver": receiver(off)}
        return explore(start, threads, invariant, ["sender"])

    return all_of(
        with_application(variables, create()),
        with_application(variables, create(), close()),
        with_application(dict(variables, live=True), close()),
    )
