"""What the structures of the interface are, in lists and dictionaries of octets, and every text and every octet that comes
of them. Nothing here knows how the library does it."""

import struct

CLASSES = [b"MessageNotification", b"MembershipListNotification", b"MembershipDeltaNotification", b"OutgoingStreamingNotification",
           b"IncomingStreamingNotification", b"StateGetNotification", b"StateSetNotification", b"LeaveGroupNotification"]
MESSAGE_LIKE = (0, 3, 4)
ILLEGAL_NAME = rb"ILLEGAL PROPERTY NAME [Property name must not contain ':', '\r', or '\n']"
ILLEGAL_VALUE = rb"ILLEGAL PROPERTY VALUE [Property value must not contain '\r' or '\n']"
SIGNATURE = bytes.fromhex("00A37C08E778EE245FD3B64E")


def text(octets):
    """A string: nothing after the first NUL is part of it."""
    return None if octets is None else octets.split(b"\0", 1)[0]


def shown(octets):
    return b"(null)" if octets is None else octets


# ---- Body blocks: a list of segments


class Segment:
    def __init__(self, name):
        self.name = name
        self.elements = {}  # name: value, in order
        self.segments = []
        self.handle = None  # where the library has it
        self.handles = {}  # and its elements


def find_segment(segments, name):
    return next((segment for segment in segments if segment.name == name), None)


def add_segment(segments, name):
    segment = find_segment(segments, name)
    if segment is None:
        segment = Segment(name)
        segments.append(segment)
    return segment


def add_element(segment, name, value):
    """One that replaces another stands at the end."""
    segment.elements.pop(name, None)
    segment.handles.pop(name, None)
    segment.elements[name] = value


def encode(segments, level=0):
    out = [SIGNATURE] if level == 0 else []
    for segment in segments:
        out.append(struct.pack(">BH", 1, (len(segment.name) + 1) & 0xFFFF) + segment.name + b"\0" + bytes([level & 0xFF]))
        for name, value in segment.elements.items():
            out.append(struct.pack(">BH", 2, len(name) & 0xFFFF) + name + b"\0")
            out.append(struct.pack(">H", len(value) & 0xFFFF) + value + b"\0")
        out.append(encode(segment.segments, level + 1))
    return b"".join(out)


class End(Exception):
    """Nothing more can be read of a block."""


class Reader:
    def __init__(self, octets):
        self.octets = octets

    def take(self, count):
        if count > len(self.octets):
            raise End
        taken, self.octets = self.octets[:count], self.octets[count:]
        return taken

    def number(self):
        return struct.unpack(">H", self.take(2))[0]

    def tag(self):
        return 4 if len(self.octets) <= 3 else self.take(1)[0]

    def field(self):
        """A name or value with its NUL. None when it is not there whole, and then nothing of it is consumed."""
        length = self.number()
        if length == 0xFFFF:  # its length and its NUL come to none: a string wherever it ends, not consumed
            return text(self.octets) + b"\0" if b"\0" in self.octets else None
        return self.take(length + 1) if length < len(self.octets) else None

    def segment(self):
        length = self.number()
        if length == 0xFFFF:
            raise End
        run = self.take(length + 1)
        return Segment(text(run[:-1])), run[-1]

    def element(self, segment):
        name, value = self.field(), self.field()
        if name is not None and value is not None:
            add_element(segment, text(name), value[:-1])


def decode(octets):
    if octets is None or octets[:12] != SIGNATURE:
        return None
    top = []
    lists = [top]  # where a segment of each level goes
    reader = Reader(octets[12:])
    try:
        if reader.tag() != 1:
            return top
        while True:
            segment, level = reader.segment()
            if level >= len(lists):
                return top
            lists[level].append(segment)
            lists[level + 1:] = [segment.segments]
            tag = reader.tag()
            while tag == 2:
                reader.element(segment)
                tag = reader.tag()
            if tag == 4:
                return top
    except End:
        return top


def block_text(segments):
    def lines(some, depth):
        for segment in some:
            yield b"  " * depth + b"Seg:" + segment.name + b"\n"
            for name, value in segment.elements.items():
                readable = all(32 <= octet < 127 for octet in value)
                yield b"  " * depth + b"  " + name + b"=" + (value if readable else b"<binary-data>") + b"\n"
            yield from lines(segment.segments, depth + 1)

    return b"".join(lines(segments, 0)) if segments else None


# ---- Logical addresses


class Address:
    STRINGS = [b"id", b"tier", b"tierid", b"component", b"hostname", b"instancename", b"subscription"]

    def __init__(self, segment):
        self.strings = {name: text(segment.elements.get(name)) for name in self.STRINGS}
        self.key = text(segment.elements.get(b"key"))
        self.address = segment.elements.get(b"address", b"")
        self.matcher = segment.elements.get(b"matcher", b"")
        properties = find_segment(segment.segments, b"properties")
        self.properties = {} if properties is None else {name: text(value) for name, value in properties.elements.items()}

    def equals(self, other):
        return self.key is not None and self.key == other.key

    def text(self):
        labels = [(b"{TierId", b"tierid"), (b",Tier", b"tier"), (b",Hostname", b"hostname"), (b",InstanceName", b"instancename"),
                  (b",Component", b"component"), (b",Subscription", b"subscription")]
        fields = [label + b"=" + shown(self.strings[name]) for label, name in labels]
        return b"".join(fields + [b"," + name + b"=" + value for name, value in self.properties.items()]) + b"}"

    def segment(self, number):
        out = Segment(b"dstAddr%d" % number)
        out.elements = {name: value for name, value in self.strings.items() if value is not None}
        out.elements[b"address"] = self.address
        if self.matcher:
            out.elements[b"matcher"] = self.matcher
        properties = Segment(b"properties")
        properties.elements = self.properties
        out.segments = [properties]
        return out


def addresses_body(addresses):
    return encode([address.segment(i) for i, address in enumerate(addresses)]) if addresses else b""


# ---- Notifications


def number(words):
    """A time as the daemon writes it: whatever stands before the digits is passed over, and the value wraps."""
    sign, value, digits = 1, 0, False
    for i, octet in enumerate(words):
        if 48 <= octet <= 57:
            if not digits and i and words[i - 1] == 45:
                sign = -1
            digits = True
            value = value * 10 + octet - 48
        elif digits:
            break
    return (sign * value + (1 << 63)) % (1 << 64) - (1 << 63)


def seconds(milliseconds):
    return abs(milliseconds) // 1000 * (1 if milliseconds >= 0 else -1)


class Notification:
    STRINGS = ["type", "stamp", "id", "instanceName", "generatingComponent", "generatingNode", "generatingProcess",
               "affectedComponents", "affectedNodes"]
    LISTS = ["getDestinationAddrs", "obtainMemberList", "getMembersAdded", "getMembersRemoved"]

    def __init__(self, kind, type_, body, length):
        self.kind = kind
        self.strings = dict.fromkeys(self.STRINGS)
        self.strings["type"] = type_
        self.body = body if length > 0 else None
        self.length = length
        self.local = 0
        self.creation = self.delivery = 0
        self.properties = []  # as the interface lists them
        self.generating = None
        self.lists = dict.fromkeys(self.LISTS)
        self.stream_key = None

    def set_property(self, name, value):
        if name is None or value is None:
            return -2
        bad_name = any(octet in name for octet in b":\r\n")
        bad_value = any(octet in value for octet in b"\r\n")
        self.properties.insert(0, (ILLEGAL_NAME if bad_name else name, ILLEGAL_VALUE if bad_value else value))
        return -1 if bad_name or bad_value else 0

    def property(self, name):
        return next((value for key, value in self.properties if key == name), None)

    def received_addresses(self, body):
        target = None
        for segment in decode(body) or []:
            address = Address(segment)
            letter = segment.name[1:2]
            if letter == b"r":
                self.generating = address
                continue
            target = {b"s": self.LISTS[0], b"b": self.LISTS[1], b"d": self.LISTS[2], b"e": self.LISTS[3]}.get(letter, target)
            if target:
                self.lists[target] = (self.lists[target] or []) + [address]

    def hexadecimal(self):
        body = self.body or b""
        rows = [body[i:i + 32] for i in range(0, len(body), 32)] or [b""]

        def row(octets):
            return octets.hex(" ", -4) + (" " if octets and len(octets) % 4 == 0 else "")

        return "\n".join("    " + row(octets) for octets in rows).encode() + b"\n"

    def rendered(self, form):
        if form == 1:
            return self.hexadecimal()
        if form == 2:
            return shown(text(self.body))
        block = decode(self.body)
        if block is not None:
            return shown(block_text(block))
        return b"<zeb_bodyblock-format-error>" if form == 3 else self.hexadecimal()

    def text(self, form, where):
        s = self.strings
        out = []

        def line(label, value):
            out.append(b"  " + (label + b":").ljust(22) + value + b"\n")

        out.append(b"NOTIFICATION 0x%x ==>\n" % where)
        line(b"Notification Class", CLASSES[self.kind])
        line(b"Notification ID", shown(s["id"]))
        line(b"Notification Type", shown(s["type"]))
        line(b"Creation Time", b"%d" % (seconds(self.creation) % (1 << 64)))
        line(b"Delivery Time", b"%d" % seconds(self.delivery))
        if self.kind in MESSAGE_LIKE:
            for label in ["generatingComponent", "generatingNode", "generatingProcess", "instanceName", "affectedComponents",
                          "affectedNodes"]:
                words = "".join(" " + c if c.isupper() else c for c in label)
                line((words[0].upper() + words[1:]).encode(), shown(s[label]))
            line(b"Local Only Flag", b"true" if self.local else b"false")
            for name, value in self.properties:
                line(b"Property", name + b"=" + value)
        listed = []
        if self.kind in (0, 3, 4, 5, 6):
            line(b"Source Addr", self.generating.text() if self.generating else b"(null)")
            listed = [(b"Destination Addr", "getDestinationAddrs")]
        elif self.kind == 1:
            listed = [(b"Member Addr", "obtainMemberList")]
        elif self.kind == 2:
            listed = [(b"Added Addr", "getMembersAdded"), (b"Member Addr", "getMembersRemoved")]
        for label, name in listed:
            for address in self.lists[name] or []:
                line(label, address.text())
        if self.kind in (0, 3, 4, 6):
            line(b"Body Length", b"%d" % self.length)
            if form and self.length:
                out.append(b"  Body:\n" + self.rendered(form) + b"\n")
        return b"".join(out)

    def message(self, instance):
        """As it is published, for the daemon whose name is INSTANCE."""
        out = []

        def line(label, value):
            out.append(label + b": " + (value or b"") + b"\r\n")

        body = self.body or b""
        addresses = addresses_body(self.lists["getDestinationAddrs"])
        out.append(b"POST /event HTTP/1.1\r\n")
        line(b"className", CLASSES[self.kind])
        line(b"SubscriberID", b"0")
        line(b"eventType", self.strings["type"])
        line(b"eventId", self.strings["id"])
        if self.kind in MESSAGE_LIKE:
            for name in ["affectedComponents", "affectedNodes", "generatingComponent", "generatingProcess", "generatingNode"]:
                line(name.encode(), self.strings[name])
            line(b"instanceName", instance)
            line(b"LocalOnly", b"true" if self.local else b"false")
            line(b"numberOfProperties", b"%d" % len(self.properties))
            for name, value in self.properties:
                line(name, value)
        if self.kind == 4:
            line(b"streamKey", self.stream_key)
        line(b"Content-Length", b"%d" % len(body))
        line(b"AddrList-Length", b"%d" % len(addresses))
        return b"".join(out) + b"\r\n" + body + addresses
