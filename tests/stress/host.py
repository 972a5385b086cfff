"""A zebd of one's own, and clients of it that are bare sockets."""

import json
import os
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import time

PATIENCE = 60.0  # longest wait for anything, in seconds

CONNECT = b"POST /connect HTTP/1.1\r\nVersion: 4 \r\nFormFactor: stress\r\nSelfId: Pid=1; Home=/\r\n\r\n"


class Failure(Exception):
    """Something that must hold does not."""


def check(holds, words):
    if not holds:
        raise Failure(words)


def until(holds, words):
    """Waits for a condition."""
    end = time.monotonic() + PATIENCE
    while not holds():
        check(time.monotonic() < end, "in vain: " + words)
        time.sleep(0.005)


class Daemon:
    def __init__(self, program, settings=None, files=None, port=0):
        self.program, self.settings, self.files = program, settings or {}, files
        self.folder = tempfile.mkdtemp(prefix="zebd-stress-")
        self.admin_path = os.path.join(self.folder, "admin.sock")
        self.log_path = os.path.join(self.folder, "log")
        self.start(port)

    def start(self, port):
        ready, said = os.pipe()
        command = [self.program, "--port", str(port), "--admin", self.admin_path, "--ready-fd", str(said)]
        for key, value in self.settings.items():
            command += ["--set", f"{key}={value}"]
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=log, pass_fds=[said],
                                            preexec_fn=self.limit_files if self.files else None)
        os.close(said)
        with os.fdopen(ready) as line:
            text = line.readline()
        check(text.startswith("ready port="), "zebd does not come up: " + self.log()[-500:])
        self.port = int(text.split("=")[1])

    def limit_files(self):
        resource.setrlimit(resource.RLIMIT_NOFILE, (self.files, self.files))

    def log(self):
        with open(self.log_path, errors="replace") as log:
            return log.read()

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        code = self.process.wait(PATIENCE)
        check(code == (0 if number == signal.SIGTERM else -number), f"zebd ended with {code}: {self.log()[-500:]}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def ask(self, what):
        with socket.socket(socket.AF_UNIX) as admin:
            admin.settimeout(PATIENCE)
            admin.connect(self.admin_path)
            admin.sendall(json.dumps({"ask": what}).encode() + b"\n")
            answer = b""
            while not answer.endswith(b"\n"):
                piece = admin.recv(1 << 20)
                check(piece, "administration ends in the middle of an answer")
                answer += piece
        return json.loads(answer)

    def status(self):
        return self.ask("status")["status"]

    def counter(self, name):
        return self.ask("counters")["counters"][name]

    def processor(self):
        """Seconds of processor that its loop has used, however busy the machine is."""
        with open(f"/proc/{self.process.pid}/schedstat") as file:
            return int(file.read().split()[0]) / 1e9

    def memory(self, which="VmRSS"):
        """Octets: resident now, or with VmHWM the most there ever were."""
        with open(f"/proc/{self.process.pid}/status") as file:
            for line in file:
                if line.startswith(which + ":"):
                    return int(line.split()[1]) * 1024
        raise Failure("no memory in /proc")


def event(kind, body=b"", number=0, addresses=b"", cls="MessageNotification", extra="", subscriber=0):
    return (f"POST /event HTTP/1.1\r\nclassName: {cls}\r\nSubscriberID: {subscriber}\r\neventType: {kind}\r\n"
            f"eventId: {number}\r\naffectedComponents: \r\naffectedNodes: \r\ngeneratingComponent: stress\r\n"
            f"generatingProcess: stress:1\r\ngeneratingNode: stress\r\ninstanceName: stress\r\nLocalOnly: false\r\n"
            f"numberOfProperties: 0\r\n{extra}Content-Length: {len(body)}\r\nAddrList-Length: {len(addresses)}\r\n\r\n"
            ).encode() + body + addresses


def subscribe_request(number, text="", interest="null", deltas=False, properties=()):
    lines = "".join(f"{name}: {value}\r\n" for name, value in properties)
    return (f"POST /subscribe HTTP/1.1\r\nContent-Length: 0\r\nSubscriberID: {number}\r\nSubscription: {text}\r\n"
            f"Component: stress\r\nMbrInterest: {interest}\r\nMbrDeltas: {'true' if deltas else 'false'}\r\n"
            f"numberOfProperties: {len(properties)}\r\n{lines}\r\n").encode()


class Message:
    def __init__(self, head, body, addresses):
        self.head, self.body, self.addresses = head, body, addresses

    def line(self, name):
        mark = ("\r\n" + name + ": ").encode()
        at = self.head.find(mark)
        return None if at < 0 else self.head[at + len(mark):self.head.index(b"\r\n", at + len(mark))].decode()


class Client:
    def __init__(self, port, join=True):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.got = bytearray()
        if join:
            self.join()

    def join(self):
        self.say(CONNECT)
        check(b"Result: success" in self.next().head, "the connect is refused")

    def say(self, octets):
        self.socket.sendall(octets)

    def take(self):
        """The next message of what has come; None when it is not complete."""
        end = self.got.find(b"\r\n\r\n")
        if end < 0:
            return None
        message = Message(bytes(self.got[:end + 2]), b"", b"")
        body = int(message.line("Content-Length") or 0)
        whole = end + 4 + body + int(message.line("AddrList-Length") or 0)
        if len(self.got) < whole:
            return None
        message.body = bytes(self.got[end + 4:end + 4 + body])
        message.addresses = bytes(self.got[end + 4 + body:whole])
        del self.got[:whole]
        return message

    def read(self):
        """What the socket holds. False at the end of the connection."""
        piece = self.socket.recv(1 << 18)
        self.got += piece
        return bool(piece)

    def next(self):
        while (message := self.take()) is None:
            check(self.read(), "the connection has ended")
        return message

    def next_line(self, name):
        """The next message that has a line of that name."""
        while (message := self.next()).line(name) is None:
            pass
        return message

    def subscribe(self, number=1, **wanted):
        self.say(subscribe_request(number, **wanted))
        answer = self.next_line("Result")
        check(answer.line("Result") == "success", "refused: " + str(answer.line("Message")))

    def round_trip(self):
        """The daemon has taken everything that was said before."""
        begin = time.monotonic()
        self.subscribe(999999, text="null")
        return time.monotonic() - begin

    def ends(self):
        """Reads to the end of the connection."""
        try:
            while self.read():
                pass
        except ConnectionError:
            pass

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.close()

    def close(self):
        self.socket.close()

    def fileno(self):
        return self.socket.fileno()


class Table:
    """Figures as they come, with what they may be. Costs, which have a most, mean nothing in a sanitized build."""

    def __init__(self, costs=True):
        self.broken, self.costs = [], costs

    def row(self, what, figure, unit="", most=None, least=None):
        most = most if self.costs else None
        holds = (most is None or figure <= most) and (least is None or figure >= least)
        limit = f"at most {most:g}" if most is not None else f"at least {least:g}" if least is not None else ""
        print(f"{what:66} {figure:12.6g} {unit:8} {limit}{'' if holds else '   ABOVE' if most is not None else '   BELOW'}",
              flush=True)
        if not holds:
            self.broken.append(what)
