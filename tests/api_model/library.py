"""The library by its public header, and the daemon's side of its connection; all in one thread."""

import ctypes
import os
import re
import socket
import tempfile

DECLARATION = re.compile(r"ZEB_API\s+((?:const )?\w+)\s+(\**)(zeb_\w+)\(([^)]*)\);")
NUMBERS = {"int32_t": ctypes.c_int32, "uint32_t": ctypes.c_uint32, "int64_t": ctypes.c_int64, "void": None}
PATIENCE = 20  # seconds for what has to come at once

libc = ctypes.CDLL(None)
libc.free.argtypes = [ctypes.c_void_p]


class Allocations(ctypes.Structure):
    """What mallinfo2 returns."""

    _fields_ = [(name, ctypes.c_size_t) for name in ["arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks",
                                                     "uordblks", "fordblks", "keepcost"]]


libc.mallinfo2.restype = Allocations


def allocated():
    """Octets in use of the process's heap; the interpreter's small objects are not among them."""
    found = libc.mallinfo2()
    return found.uordblks + found.hblkhd


class Property(ctypes.Structure):
    _fields_ = [("name", ctypes.c_void_p), ("value", ctypes.c_void_p)]

    @staticmethod
    def at(pointer):
        return Property.from_address(pointer)


class Difference(Exception):
    """The library does not do what the model does."""

    def __init__(self, what, actual, expected):
        super().__init__(what)
        self.what, self.actual, self.expected = what, actual, expected


def same(what, actual, expected):
    if actual != expected:
        raise Difference(what, actual, expected)


def octets(pointer, length):
    return ctypes.string_at(pointer, length)


def borrowed(pointer):
    return ctypes.string_at(pointer) if pointer else None


def owned(pointer):
    out = borrowed(pointer)
    libc.free(pointer)
    return out


def entry(pointer):
    if not pointer:
        return None
    found = Property.at(pointer)
    return borrowed(found.name), borrowed(found.value)


def lend(function, *arguments):
    """Calls with octets that are gone when it returns: the library has to have copied what it keeps."""
    lent = [ctypes.create_string_buffer(a, len(a) + 1) if isinstance(a, bytes) else a for a in arguments]
    result = function(*lent)
    for argument in lent:
        if isinstance(argument, ctypes.Array):
            ctypes.memset(argument, 0x5A, len(argument))
    return result


def cleared(function, handle):
    """Destroys by the address of a handle, which has to be null then; twice, the second time for nothing."""
    variable = ctypes.c_void_p(handle)
    for _ in range(2):
        function(ctypes.byref(variable))
        same(f"handle after {function.__name__}", variable.value, None)


class Library:
    def __init__(self, path, header):
        loaded = ctypes.CDLL(path)
        with open(header, encoding="ascii") as declarations:
            words = re.sub(r"/\*.*?\*/", "", declarations.read(), flags=re.DOTALL)
        for result, stars, name, arguments in DECLARATION.findall(words):
            function = getattr(loaded, name)
            function.restype = ctypes.c_void_p if stars else NUMBERS[result]
            function.argtypes = [] if arguments == "void" else [
                NUMBERS.get(a.split()[0], ctypes.c_void_p) if "*" not in a else ctypes.c_void_p for a in arguments.split(",")]
            setattr(self, name[len("zeb_"):], function)


class Connection:
    """The runtime, connected to this very process, with a subscriber and a publisher."""

    INSTANCE = b"instance one"
    COMPONENT = b"component"
    SUBSCRIBER = 1

    def __init__(self, library):
        self.library = library
        self.rest = b""
        with socket.create_server(("127.0.0.1", 0)) as listener, tempfile.TemporaryDirectory() as home:
            listener.settimeout(PATIENCE)
            os.environ["TAMBEK_ZEB_PROXY_PORT"] = str(listener.getsockname()[1])
            same("zeb_init", lend(library.init_wtambekhome, home.encode()), 0)
            self.socket, _ = listener.accept()
            self.socket.settimeout(PATIENCE)
            self.head()
        self.say(b"Result: success\r\n", before=2, behind=5, end=b"instanceName: " + self.INSTANCE + b"\r\n")
        self.subscriber = library.subscriber_create_async(None, None, None, None)
        self.head()
        self.send(b"POST /status HTTP/1.1\r\nResult: success\r\nSubscriberID: %d\r\n\r\n" % self.SUBSCRIBER)
        while library.subscriber_status(self.subscriber, None):
            pass
        self.host = socket.gethostname().encode()
        self.process = b"%s:%d" % (self.host, os.getpid())
        self.publishers = 0  # the subscriber has one of its own, which is the first
        self.publisher = None
        self.renew()

    def say(self, words, before, behind, end):
        self.send(b"x\r\n" * before + words + b"x\r\n" * behind + end + b"\r\n")

    def send(self, some):
        self.socket.sendall(some)

    def head(self):
        while b"\r\n\r\n" not in self.rest:
            self.rest += self.socket.recv(65536)
        self.rest = self.rest.split(b"\r\n\r\n", 1)[1]

    def expect(self, what, expected):
        """The next octets that the library sends are these."""
        while len(self.rest) < len(expected) and expected.startswith(self.rest):
            try:
                self.rest += self.socket.recv(1 << 20)
            except TimeoutError:
                break
        same(what, self.rest[:len(expected)], expected)
        self.rest = self.rest[len(expected):]

    def stamped(self, notification):
        """The first publish fills in the origin."""
        if notification.strings["generatingComponent"] is None:
            notification.strings.update(generatingComponent=self.COMPONENT, generatingNode=self.host,
                                        generatingProcess=self.process,
                                        id=self.process + b"%d%d" % (self.publishers, self.sequence))
            self.sequence += 1
            notification.creation = -1

    def received(self, message):
        self.send(message)
        handle = self.library.subscriber_receive(self.subscriber, 1, PATIENCE * 1000)
        same("a notification", bool(handle), True)
        return handle

    def end_of(self, stream):
        """The piece that ends a stream; a stream that was closed is released then."""
        lines = [b"className: IncomingStreamingNotification", b"SubscriberID: %d" % self.SUBSCRIBER]
        names = [b"eventType", b"eventId", b"creationTime", b"deliveryTime", b"affectedComponents", b"affectedNodes",
                 b"generatingComponent", b"generatingProcess", b"generatingNode", b"instanceName", b"LocalOnly"]
        lines += [name + b": " for name in names]
        lines += [b"numberOfProperties: 0", b"streamKey: " + stream, b"Content-Length: 0", b"AddrList-Length: 0", b"", b""]
        self.send(b"POST /event HTTP/1.1\r\n" + b"\r\n".join(lines))

    def renew(self):
        """After a difference: nothing is under way, and a new publisher begins with its first number."""
        if self.publisher:
            self.socket.settimeout(0.2)
            try:
                while self.socket.recv(1 << 20):
                    pass
            except TimeoutError:
                self.socket.settimeout(PATIENCE)
            self.rest = b""
            self.library.publisher_close(self.publisher)
            while left := self.library.subscriber_receive(self.subscriber, 0, 0):
                self.library.subscriber_relinquish(self.subscriber, left)
        self.publisher = lend(self.library.publisher_create, self.COMPONENT)
        self.publishers += 1
        self.sequence = 1

    def close(self):
        self.library.publisher_close(self.publisher)
        self.library.subscriber_close(self.subscriber)
        same("zeb_shutdown", self.library.shutdown(), 0)
        self.socket.close()
