#!/usr/bin/env python3
"""zebd under stress: hostile clients, slow ones, too many, restarts and members that come and go. All of it must leave
others served, memory within the limits, and what everybody was told true.

    daemon.py ZEBD [--short] [--sanitized] [--seed N] [SCENE...]

Exit code 1 when something does not hold; the seed is printed, so that a run can be had again."""

import itertools
import random
import select
import signal
import sys
import time

from host import CONNECT, PATIENCE, Client, Daemon, Failure, Table, check, event, subscribe_request, until

MIB = 1 << 20

# What the process takes beside what the limits count, its allocator's gaps included.
SLACK = 24 * MIB


# ---- Hostile clients ----

def nested(depth):
    return "(" * depth + '"a"' + ")" * depth


def hostile_texts(random_octets):
    """What a client says to be ended or refused. Each is a kind of its own."""
    head = event("/x").split(b"\r\n\r\n")[0]
    return {
        "nonsense": b"GET / HTTP/1.1\r\n\r\n",
        "octets": random_octets,
        "nothing": b"",
        "half a connect": CONNECT[:40],
        "no connect": event("/x"),
        "two connects": CONNECT + CONNECT,
        "another version": CONNECT.replace(b"4", b"9"),
        "a line without end": CONNECT + b"POST /event HTTP/1.1\r\nclassName: " + b"x" * 300000,
        "lines without end": CONNECT + b"POST /subscribe HTTP/1.1\r\n" + b"x: y\r\n" * 300000,
        "properties without end": CONNECT + subscribe_request(1, properties=[("a", "")] * 20000),
        "a body that is too long": CONNECT + head.replace(b"Content-Length: 0", b"Content-Length: 2147483647") + b"\r\n\r\n",
        "a negative length": CONNECT + head.replace(b"Content-Length: 0", b"Content-Length: -1") + b"\r\n\r\n",
        "a number too large": CONNECT + head.replace(b"Content-Length: 0", b"Content-Length: 99999999999999999999") + b"\r\n\r\n",
        "lines in a wrong order": CONNECT + head.replace(b"eventType", b"eventId") + b"\r\n\r\n",
        "a NUL": CONNECT + event("/x\0y"),
        "half a body": CONNECT + event("/x", b"x" * 100000)[:50000],
        "a broken address list": CONNECT + event("/x", addresses=b"\0\xa3\x7c\x08" + b"x" * 1000),
        "an address list of nothing": CONNECT + event("/x", addresses=b"\0" * 10000),
        "deep subscriptions": CONNECT + b"".join(subscribe_request(n, nested(n)) for n in range(1, 200)),
        "wide subscriptions": CONNECT + subscribe_request(1, "&".join(f'("a{n}"|"b{n}")' for n in range(1000))),
        "unknown identifiers": CONNECT + b"POST /unsubscribe HTTP/1.1\r\nContent-Length: 0\r\nSubscriberID: 77\r\n\r\n" * 1000,
        "streams without end": CONNECT + b"".join(
            event("/s", b"x", n, cls="IncomingStreamingNotification", extra=f"streamKey: k{n}\r\n") for n in range(6000)),
        "states for nobody": CONNECT + event("/x", cls="StateSetNotification") * 100,
    }


def attack(port, text, rng):
    """One client with one text, in pieces of any size, that goes in one of three ways."""
    client = Client(port, join=False)
    try:
        pieces = rng.choice((1 << 20, 1000, 7)) if len(text) < 5000 else 1 << 16
        for at in range(0, len(text), pieces):
            client.say(text[at:at + pieces])
    except OSError:
        pass  # it has been ended in the middle
    way = rng.randrange(3)
    if way == 0:
        client.reset()
    elif way == 1:
        client.close()
    return client if way == 2 else None


def hostile(program, table, rng, short):
    settings = {"limits.connect_seconds": 1, "limits.stall_seconds": 1, "limits.body": 10 * MIB}
    with Daemon(program, settings) as daemon:
        good = Client(daemon.port)
        good.round_trip()
        before, kept = daemon.memory(), kept_octets(daemon)
        count, slowest, staying = 0, 0.0, []
        for _ in range(3 if short else 60):
            for name, text in hostile_texts(rng.randbytes(5000)).items():
                left = attack(daemon.port, text, rng)
                staying += [left] if left else []
                count += 1
            slowest = max(slowest, good.round_trip())
            for client in staying[:-50]:
                client.close()
            staying = staying[-50:]
        for client in staying:
            client.close()
        until(lambda: daemon.status()["clients"] == 1, "all but one client are gone")
        counters = daemon.ask("counters")["counters"]
        ended = counters["endedProtocol"] + counters["endedTime"] + counters["endedSocket"]
        table.row("hostile clients", count)
        table.row("  ended by the daemon", ended, least=count / 4)
        table.row("  longest answer to another client", slowest * 1000, "ms", most=5000)
        table.row("  memory at most above the beginning", (daemon.memory("VmHWM") - before) / MIB, "MiB",
                  most=settings["limits.body"] / MIB + SLACK / MIB)
        table.row("  left for subscribers and unfinished messages", kept_octets(daemon) - kept, "octets", most=1000)
        good.close()
        daemon.stop()


def kept_octets(daemon):
    status = daemon.status()
    return status["subscriberBytes"] + status["unfinishedBytes"]


# ---- One that stands still among many ----

def latencies(sender, readers, events, interval):
    """Seconds from saying to reading, over all readers."""
    result = []
    for n in range(events):
        sender.say(event("/tick", b"x" * 1000, n))
        begin = time.monotonic()
        waiting = set(readers)
        while waiting:
            ready, _, _ = select.select(waiting, [], [], PATIENCE)
            check(ready, "an event does not arrive")
            for client in ready:
                client.read()
                if client.take():
                    waiting.remove(client)
                    result.append(time.monotonic() - begin)
        time.sleep(interval)
    return sorted(result)


def stalled(program, table, rng, short):
    """The rounds with and without take turns, since the machine has other work as well; where that is much, there are
    more of them, and the best of each counts."""
    del rng
    events = 30 if short else 300
    with Daemon(program, {"queue.hard": 32 * MIB, "queue.policy": "drop-oldest"}) as daemon:
        readers = [Client(daemon.port) for _ in range(99)]
        for client in readers:
            client.subscribe(text="/tick")
        sender = Client(daemon.port)
        free, beside = [], []
        while len(free) < 5 or (len(free) < 20 and min(beside) > 2 * min(free)):
            free.append(p99(latencies(sender, readers, events, 0.001)))
            still = Client(daemon.port)
            still.subscribe()
            for n in range(30):
                sender.say(event("/bulk", b"x" * 1000000, n))
            sender.round_trip()
            check(daemon.status()["queuedBytes"] > 5 * MIB, "nothing waits for the one that stands still")
            beside.append(p99(latencies(sender, readers, events, 0.001)))
            still.close()
            until(lambda: daemon.status()["clients"] == 100, "it is gone")
        for client in readers + [sender]:
            client.close()
    table.row("p99 latency of 99 subscribers", min(free) * 1e6, "us")
    table.row("  with one more that reads nothing", min(beside) * 1e6, "us")
    table.row("  ratio", min(beside) / min(free), most=2)


def p99(values):
    return values[len(values) * 99 // 100]


# ---- Descriptors ----

def descriptors(program, table, rng, short):
    del rng
    with Daemon(program, files=64) as daemon:
        served = Client(daemon.port)
        slowest = 0.0
        for _ in range(2 if short else 20):
            crowd = [Client(daemon.port, join=False) for _ in range(150)]
            slowest = max([slowest] + [served.round_trip() for _ in range(10)])
            for client in crowd:
                client.close()
            begin = time.monotonic()
            late = Client(daemon.port)
            recovery = time.monotonic() - begin
            late.close()
        table.row("pauses of accepting with 64 descriptors", daemon.counter("acceptFailures"), least=1)
        table.row("  longest answer to a client that was there", slowest * 1000, "ms", most=2000)
        table.row("  time until another one is served again", recovery * 1000, "ms", most=5000)
        served.close()
        daemon.stop()


# ---- Clients that publish and do not read ----

def flood(program, table, rng, short):
    """Each subscribes to everything, so that an event waits for all of them and is there once, or to its own events."""
    total, hard = 32 * MIB, 16 * MIB
    runs = itertools.product(("disconnect", "drop-oldest", "drop-newest"), (False, True))
    for policy, own in (("drop-oldest", False), ("disconnect", True)) if short else runs:
        settings = {"queue.total": total, "queue.hard": hard, "queue.soft": hard, "queue.policy": policy}
        with Daemon(program, settings) as daemon:
            before, octets, slowest, numbers = daemon.memory(), 0, 0.0, itertools.count()
            bystander = Client(daemon.port)
            clients = []
            body = rng.randbytes(20000)
            while octets < (200 if short else 1000) * MIB:
                clients = [client for client in clients if client.socket.fileno() >= 0]
                while len(clients) < 20:
                    clients.append(flooding(Client(daemon.port), next(numbers), body, own))
                for client in clients:
                    octets += flood_piece(client)
                slowest = max(slowest, bystander.round_trip())
            counters = daemon.ask("counters")["counters"]
            table.row(f"published by clients that do not read, {'own events' if own else 'all events'}, {policy}",
                      octets / MIB, "MiB")
            table.row("  events dropped by the limit of all" if own else "  events dropped by the limit of one",
                      counters["droppedTotal" if own else "droppedHard"], least=1)
            table.row("  memory at most above the beginning", (daemon.memory("VmHWM") - before) / MIB, "MiB",
                      most=(total + SLACK) / MIB)
            table.row("  longest answer to another client", slowest * 1000, "ms", most=5000)
            for client in clients + [bystander]:
                client.close()


def flooding(client, number, body, own):
    client.subscribe(text=f"/flood/{number}" if own else "")
    client.socket.setblocking(False)
    client.piece, client.rest = event(f"/flood/{number}", body) * 8, b""
    return client


def flood_piece(client):
    """What goes; rests of a message go before the next one."""
    client.rest = client.rest or client.piece
    try:
        sent = client.socket.send(client.rest)
    except BlockingIOError:
        return 0
    except ConnectionError:
        client.close()
        return 0
    client.rest = client.rest[sent:]
    return sent


# ---- Restarts ----

def restarts(program, table, rng, short):
    """Whoever is there comes back, and then an event reaches everybody."""
    count, times, slowest = (40 if short else 200), (4 if short else 50), 0.0
    with Daemon(program) as daemon:
        clients = reached = 0
        for number in range(times):
            clients = [Client(daemon.port) for _ in range(count)]
            for client in clients:
                client.subscribe(interest="", deltas=True)
            sender = rng.choice(clients)
            sender.say(event("/all", b"", number))
            for client in clients:
                while client.next_line("eventType").line("eventType") != "/all":
                    pass
                reached += 1
            begin = time.monotonic()
            daemon.stop(rng.choice((signal.SIGTERM, signal.SIGKILL)))
            for client in clients:
                client.ends()
                client.close()
            daemon.start(daemon.port)
            slowest = max(slowest, time.monotonic() - begin)
        table.row(f"restarts with {count} clients", times)
        table.row("  events that arrived", reached, least=count * times)
        table.row("  longest until it served again", slowest * 1000, "ms", most=10000)


# ---- Members that come and go ----

class Watcher:
    """What one watcher was told, kept as the list that it implies."""

    def __init__(self, port, group, deltas):
        self.client, self.deltas, self.known = Client(port), deltas, set()
        self.client.subscribe(text="null", interest=f'("group={group}")', deltas=deltas)

    def catch_up(self):
        while select.select([self.client], [], [], 0)[0]:
            check(self.client.read(), "a watcher was ended")
            while message := self.client.take():
                self.take(message)

    def take(self, message):
        kind = message.line("className")
        added = members_in(message.addresses, b"addAddr" if self.deltas else b"mbrAddr")
        removed = members_in(message.addresses, b"delAddr")
        check(kind == ("MembershipDeltaNotification" if self.deltas else "MembershipListNotification"), f"got a {kind}")
        check(not added & removed, "a member in both lists")
        if self.deltas:
            check(not added & self.known and removed <= self.known, "a delta that does not fit what was told before")
            self.known = (self.known | added) - removed
        else:
            self.known = added


def members_in(addresses, role):
    """Values of the property "member" in the segments of a role: each stands behind its name and two lengths."""
    names = set()
    at = addresses.find(role)
    while at >= 0:
        begin = addresses.index(b"member\0", at) + len(b"member\0")
        length = int.from_bytes(addresses[begin:begin + 2], "big")
        names.add(addresses[begin + 2:begin + 2 + length])
        at = addresses.find(role, begin)
    return names


def churn(program, table, rng, short):
    """200 clients come, subscribe anew and go by chance; a model says who is in which group."""
    groups, steps = ["a", "b", "c"], 400 if short else 10000
    with Daemon(program) as daemon:
        watchers = {group: [Watcher(daemon.port, group, deltas) for deltas in (True, False)] for group in groups}
        clients, model, serial, compared = {}, {}, 0, 0
        for step in range(steps):
            slot = rng.randrange(200)
            if slot not in clients:
                clients[slot] = Client(daemon.port)
            client, number = clients[slot], rng.randrange(1, 4)
            act = rng.randrange(10)
            if act < 6:
                serial += 1
                group, name = rng.choice(groups), f"m{serial}"
                client.say(subscribe_request(number, "null", properties=[("group", group), ("member", name)]))
                model[slot, number] = (group, name.encode())
            elif act < 8:
                client.say(b"POST /unsubscribe HTTP/1.1\r\nContent-Length: 0\r\nSubscriberID: %d\r\n\r\n" % number)
                model.pop((slot, number), None)
            else:
                client.round_trip()  # a close with answers unread would throw away what was said last
                client.close()
                del clients[slot]
                model = {key: value for key, value in model.items() if key[0] != slot}
            if step % 40 == 39:
                compared += compare(clients, watchers, model)
        everybody = [each for pair in watchers.values() for each in pair]
        table.row("steps of 200 clients that come and go", steps)
        table.row("  lists compared with the model", compared, least=60)
        table.row("  members at the end", len(model), least=1)
        table.row("  lists and changes that were sent", daemon.counter("membershipNotices"), least=60)
        for each in [watcher.client for watcher in everybody] + list(clients.values()):
            each.close()
        daemon.stop()


def compare(clients, watchers, model):
    """At rest, every watcher knows what the model says."""
    for client in clients.values():
        client.round_trip()

    def all_agree():
        for each in [watcher for pair in watchers.values() for watcher in pair]:
            each.catch_up()
        return all(each.known == {name for group, name in model.values() if group == its}
                   for its, pair in watchers.items() for each in pair)

    until(all_agree, "watchers and model agree")
    return sum(len(pair) for pair in watchers.values())


SCENES = {each.__name__: each for each in (hostile, stalled, descriptors, flood, restarts, churn)}


def main():
    arguments = sys.argv[2:]
    short = "--short" in arguments
    sanitized = "--sanitized" in arguments
    seed = int(arguments[arguments.index("--seed") + 1]) if "--seed" in arguments else random.randrange(1 << 32)
    wanted = [name for name in SCENES if name in arguments] or list(SCENES)
    print(f"seed {seed}")
    table = Table(costs=not sanitized)
    for name in wanted:
        try:
            SCENES[name](sys.argv[1], table, random.Random(f"{seed} {name}"), short)
        except (Failure, OSError) as problem:
            print(f"{name}: {type(problem).__name__}: {problem}")
            table.broken.append(name)
    return 1 if table.broken else 0


if __name__ == "__main__":
    sys.exit(main())
