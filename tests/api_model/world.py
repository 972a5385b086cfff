"""A few objects of each kind, what is done with them, and what can be seen of them after each thing done."""

import ctypes
import os
import tempfile

from library import Property, borrowed, cleared, entry, lend, libc, octets, owned, same
from model import (CLASSES, MESSAGE_LIKE, Address, Notification, Segment, add_element, add_segment, block_text, decode,
                   encode, find_segment, number, seconds, text)

LEAST, MOST = -(1 << 31), (1 << 31) - 1
NAMES = [b"", b"a", b"A", b"b", b"ab", b"a b", b" a", b"a=", b"ba", b"\xc3\xa4", b"\xff", b"\x80a", b"a\t", b"id", b"properties"]
VALUES = NAMES + [b"%s%n", b"x" * 40, b"v" * 1100, b"0", b"-1", b"\x7f", b"\x1f", b" "]
UNFIT = [b":", b"a:b", b"a\nb", b"\r", b"a\r", b"\n"]
LONG = [65533, 65534, 65535, 65536, 65537]

OPERATIONS = []  # how often, what it is done with, and what it does


def operation(weight, *generators):
    def register(function):
        OPERATIONS.append((weight, generators, function))
        return function

    return register


# ---- What operations are done with. Places are numbers that are taken modulo what there is, so that an operation means
# something also when others before it were left out.


def place(r):
    return r.randrange(60)


def path(r):
    return [r.randrange(6) for _ in range(r.randrange(4))]


def name(r):
    if r.random() < 0.003:
        return b"n" * r.choice(LONG)
    return None if r.random() < 0.03 else r.choice(NAMES)


def value(r):
    if r.random() < 0.003:
        return b"v" * r.choice(LONG)
    return None if r.random() < 0.03 else r.choice(VALUES)


def property_name(r):
    return r.choice(UNFIT) if r.random() < 0.15 else name(r)


def property_value(r):
    return r.choice(UNFIT) if r.random() < 0.15 else value(r)


def some_octets(r):
    kind = r.random()
    if kind < 0.3:
        return r.choice(VALUES)
    if kind < 0.33:
        return r.randbytes(r.choice(LONG))
    return r.randbytes(r.choice([0, 1, 3, 4, 5, 31, 32, 33, 63, 64, 65, r.randrange(300)]))


def content(r):
    return None if r.random() < 0.05 else some_octets(r)


def length(r):
    """-1 and below as they are; else as far as there are octets."""
    return r.choice([LEAST, -2, -1, -1, 0, 1, 3, MOST, MOST, MOST, MOST])


def few(r):
    return r.randrange(100, 200) if r.random() < 0.1 else r.randrange(1, 45)


def depth(r):
    return r.choice([255, 256, 257, 300]) if r.random() < 0.1 else r.randrange(1, 6)


def tree(r, names=NAMES, levels=3):
    out = []
    for _ in range(r.randrange(4) if levels else 0):
        segment = Segment(r.choice(names))
        for _ in range(r.randrange(4)):
            add_element(segment, r.choice(NAMES), some_octets(r))
        segment.segments = tree(r, NAMES, levels - 1)
        out.append(segment)
    return out


def damaged(r, some):
    """The octets of a block with some of them changed, lost, repeated or put in."""
    some = bytearray(some)
    for _ in range(r.randrange(4)):
        at = r.randrange(len(some) + 1)
        some[at:at + r.choice([0, 0, 1, 1, 2, 9])] = r.choice([
            b"", b"\0", b"\1", b"\2", b"\3", b"\4", b"\xff\xff", b"\xff\xfe", b"\0\0", r.randbytes(2), some[at // 2:at],
            b"\1\0\2s\0\0", b"\1\0\2t\0\1", b"\1\0\2u\0\2", b"\1\0\0\0", b"\1\xff\xff", b"\2\0\1k\0\0\1v\0", b"\2\xff\xff\0\1v\0",
            b"\2\0\1k\0\xff\xffend\0", b"\2\0\1kk\0\1vv"])
    return bytes(some[:r.randrange(len(some) + 1)] if r.random() < 0.1 else some)


def encoded(r):
    if r.random() < 0.03:
        return None
    some = encode(tree(r))
    return some[:12] + damaged(r, some[12:]) if r.random() < 0.9 else damaged(r, some)


def addresses(r):
    """The octets of an event's addresses."""
    out = []
    for _ in range(r.choice([0, 1, 2, 3, 18])):
        segment = Segment(r.choice([b"srcAddr", b"dstAddr", b"mbrAddr", b"addAddr", b"remAddr", b"xbr", b"", b"x", b"xx0"]))
        for field in Address.STRINGS + [b"key", b"key", b"address", b"matcher"]:
            if r.random() < 0.5:
                odd = r.random() < 0.1
                add_element(segment, field, some_octets(r) if odd else r.choice([b"", b"k", b"K", b"\xe9", b"two words"]))
        if r.random() < 0.6:
            properties = add_segment(segment.segments, b"properties")
            for _ in range(r.randrange(4)):
                add_element(properties, r.choice(NAMES), r.choice(VALUES))
        out.append(segment)
    some = encode(out) if out else b""
    return damaged(r, some) if r.random() < 0.1 else some


def field(r):
    return r.choice([b"", b"f", b"F", b"two words", b"a: b", b"\xc3\xa4", b"f" * 1100])


def event(r):
    """What a daemon may say of an event, and the lines of its properties."""
    time = [b"0", b"1", b"999", b"1000", b"-1", b"-1000", b"-999", b"1700000000123", b"", b"abc-12x", b"a-b12000", b"--5000",
            b"12000-3", b"9223372036854775807", b"9223372036854775808", b"-9223372036854775808"]
    property_line = [b"", b"none", b"a: b", b"A: b", b"a: ", b": b", b"a:b", b"a:", b"a: b: c", b"b:  x", b"\xc3\xa4: \xff"]
    return (r.choice([0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7]), [field(r) for _ in range(9)], [r.choice(time), r.choice(time)],
            r.choice([b"true", b"false", b"TRUE", b""]), [r.choice(property_line) for _ in range(r.randrange(5))])


class World:
    def __init__(self, library, connection):
        self.library, self.connection = library, connection
        self.proplists = [(library.proplist_create(), {}) for _ in range(2)]
        self.blocks = [(library.bb_create(), []) for _ in range(2)]
        self.lists = [(library.laddrlist_create(), []) for _ in range(2)]
        self.notifications = [None] * 3  # handle, model
        self.streams = 0

    # ---- Property lists

    def proplist(self, at):
        return self.proplists[at % 2]

    def check_proplist(self, at):
        z, (handle, model) = self.library, self.proplist(at)
        same("count", z.proplist_count(handle), len(model))
        same("entries", [entry(z.proplist_getIndex(handle, i)) for i in range(len(model))], list(model.items()))
        for index in (len(model), len(model) + 1, MOST):
            same(f"entry {index}", z.proplist_getIndex(handle, index), None)
        for some in NAMES + [b"n7", None]:
            same(f"value of {some}", borrowed(z.proplist_get(handle, some)), model.get(some))

    def put(self, at, some_name, some_value, *arguments):
        """ARGUMENTS are what is handed in for them, when it is not octets of the caller."""
        z, (handle, model) = self.library, self.proplist(at)
        order = list(model)
        before = z.proplist_getIndex(handle, order.index(some_name)) if some_name in model else None
        result = lend(z.proplist_put, handle, *(arguments or (some_name, some_value)))
        if some_name is None or some_value is None:
            same("put", result, None)
            return
        model[some_name] = some_value
        same("the entry put", result, before or z.proplist_getIndex(handle, len(model) - 1))

    @operation(10, place, name, value)
    def proplist_put(self, at, some_name, some_value):
        self.put(at, some_name, some_value)
        self.check_proplist(at)

    @operation(2, place, place, place)
    def proplist_put_own(self, at, i, j):
        """Name and value are the list's own."""
        handle, model = self.proplist(at)
        if model:
            order = list(model)
            i, j = i % len(order), j % len(order)
            pointers = [Property.at(self.library.proplist_getIndex(handle, k)) for k in (i, j)]
            self.put(at, order[i], model[order[j]], pointers[0].name, pointers[1].value)
        self.check_proplist(at)

    @operation(1, place, few)
    def proplist_fill(self, at, count):
        for i in range(count):
            self.put(at, b"n%d" % i, b"v")
        self.check_proplist(at)

    @operation(1, place)
    def proplist_renew(self, at):
        cleared(self.library.proplist_destroy, self.proplist(at)[0])
        self.proplists[at % 2] = (self.library.proplist_create(), {})
        self.check_proplist(at)

    # ---- Body blocks

    def block(self, at):
        return self.blocks[at % 2]

    def segment(self, at, steps):
        """Where the steps lead; None is the top."""
        found, segments = None, self.block(at)[1]
        for step in steps:
            if step % (len(segments) + 1) == len(segments):
                break
            found = segments[step % (len(segments) + 1)]
            segments = found.segments
        return found

    def check_segments(self, handle, segments):
        z = self.library
        for segment in segments:
            same("a segment", bool(handle), True)
            segment.handle = segment.handle or handle
            same("where a segment is", handle, segment.handle)
            same("name of a segment", borrowed(z.bb_seg_getname(handle)), segment.name)
            element = z.bb_elemlist_getfirst(z.bb_seg_getelements(handle))
            for key, expected in segment.elements.items():
                same("an element", bool(element), True)
                same("where an element is", element, segment.handles.setdefault(key, element))
                same("name of an element", borrowed(z.bb_elem_getname(element)), key)
                size = ctypes.c_int32(-7)
                pointer = z.bb_elem_getvalue(element, ctypes.byref(size))
                same("length of a value", size.value, len(expected))
                same("value with its NUL", octets(pointer, len(expected) + 1), expected + b"\0")
                same("value again", z.bb_elem_getvalue(element, None), pointer)
                element = z.bb_elemlist_getnext(element)
            same("element behind the last", element, None)
            self.check_segments(z.bb_seglist_getfirst(z.bb_seg_getsegments(handle)), segment.segments)
            handle = z.bb_seglist_getnext(handle)
        same("segment behind the last", handle, None)

    def encoding(self, at):
        size = ctypes.c_int32(-7)
        handle, segments = self.block(at)
        pointer = self.library.bb_block2body(handle, ctypes.byref(size))
        out = octets(pointer, size.value)
        libc.free(pointer)
        same("encoding", out, encode(segments))
        return out

    def check_block(self, at, segment):
        """The whole, and what is found by name in SEGMENT or at the top."""
        z, (handle, segments) = self.library, self.block(at)
        self.check_segments(z.bb_seglist_getfirst(z.bb_getsegments(handle)), segments)
        same("text of a block", owned(z.bb_toString(handle)), block_text(segments))
        self.encoding(at)
        for some in NAMES + [b"n7", b"s7", None]:
            if segment is None:
                found, result = find_segment(segments, some), z.bb_getsegment(handle, some)
            else:
                found, result = find_segment(segment.segments, some), z.bb_seg_getsegment(segment.handle, some)
                size = ctypes.c_int32(-7)
                pointer = z.bb_seg_getelement(segment.handle, some, ctypes.byref(size))
                expected = segment.elements.get(some)
                same(f"length of element {some}", size.value, len(expected or b""))
                same(f"element {some}", octets(pointer, size.value) if pointer else None, expected)
                same(f"element {some} again", z.bb_seg_getelement(segment.handle, some, None), pointer)
            same(f"segment {some}", result, found and found.handle)

    def new_segment(self, at, parent, some_name):
        z, (handle, segments) = self.library, self.block(at)
        siblings = segments if parent is None else parent.segments
        if parent is None:
            result = lend(z.bb_addsegment, handle, some_name)
        else:
            result = lend(z.bb_seg_addsegment, parent.handle, some_name)
        if some_name is None:
            same("segment added", result, None)
            return None
        segment = add_segment(siblings, some_name)
        same("segment added", bool(result), True)
        segment.handle = segment.handle or result
        same("segment added", result, segment.handle)
        return segment

    @operation(10, place, path, name)
    def block_segment(self, at, steps, some_name):
        parent = self.segment(at, steps)
        self.new_segment(at, parent, some_name)
        self.check_block(at, parent)

    @operation(12, place, path, name, value)
    def block_element(self, at, steps, some_name, some_value):
        segment = self.segment(at, steps)
        result = lend(self.library.bb_seg_addelement, segment and segment.handle, some_name, some_value)
        if segment is None or some_name is None or some_value is None:
            same("element added", result, None)
        else:
            same("element added", bool(result), True)
            add_element(segment, some_name, some_value)
            segment.handles[some_name] = result
        self.check_block(at, segment)

    @operation(12, place, path, name, content, length)
    def block_octets(self, at, steps, some_name, some, size):
        segment = self.segment(at, steps)
        size = min(size, len(some or b""))
        result = lend(self.library.bb_seg_addelement_b, segment and segment.handle, some_name, some, size)
        if segment is None or some_name is None or some is None or size < -1:
            same("element added", result, None)
        else:
            same("element added", bool(result), True)
            add_element(segment, some_name, text(some) if size == -1 else some[:size])
            segment.handles[some_name] = result
        self.check_block(at, segment)

    @operation(2, place, path, place, place)
    def block_own(self, at, steps, i, j):
        """Name and value are those of elements of the segment."""
        z, segment = self.library, self.segment(at, steps)
        if segment and segment.elements:
            order = list(segment.elements)
            some_name, other = order[i % len(order)], order[j % len(order)]
            some = segment.elements[other]
            result = z.bb_seg_addelement_b(segment.handle, z.bb_elem_getname(segment.handles[some_name]),
                                           z.bb_elem_getvalue(segment.handles[other], None), len(some))
            same("element added", bool(result), True)
            add_element(segment, some_name, some)
            segment.handles[some_name] = result
        self.check_block(at, segment)

    @operation(2, place, path, few, place)
    def block_fill(self, at, steps, count, again):
        """Many elements, of which some are replaced."""
        segment = self.segment(at, steps) or self.new_segment(at, None, b"a")
        for i, some in [(i, b"%d" % i) for i in range(count)] + [(i * 7 % count, b"again") for i in range(again)]:
            some_name = b"n%d" % i
            result = lend(self.library.bb_seg_addelement, segment.handle, some_name, some)
            add_element(segment, some_name, some)
            segment.handles[some_name] = result
        self.check_block(at, segment)
        for some_name in segment.elements:
            pointer = self.library.bb_seg_getelement(segment.handle, some_name, None)
            same(f"where the value of {some_name} is", pointer,
                 self.library.bb_elem_getvalue(segment.handles[some_name], None))

    @operation(1, place, path, few)
    def block_widen(self, at, steps, count):
        parent = self.segment(at, steps)
        for i in range(count):
            self.new_segment(at, parent, b"s%d" % i)
        self.check_block(at, parent)

    @operation(1, place, path, depth)
    def block_deepen(self, at, steps, levels):
        parent = self.segment(at, steps)
        for _ in range(levels):
            parent = self.new_segment(at, parent, b"deep")
        self.check_block(at, parent)

    def replace_block(self, at, handle, segments):
        self.library.bb_destroy(self.block(at)[0])
        self.blocks[at % 2] = (handle, segments)
        self.check_block(at, None)

    @operation(3, place, encoded)
    def block_decode(self, at, some):
        handle = lend(self.library.bb_body2block, some, len(some or b"12 octets..."))
        segments = decode(some)
        same("a block", bool(handle), segments is not None)
        if handle:
            self.replace_block(at, handle, segments)

    @operation(3, place, place)
    def block_copy(self, at, source):
        some = self.encoding(source)
        self.replace_block(at, lend(self.library.bb_body2block, some, len(some)), decode(some))

    @operation(1, place)
    def block_renew(self, at):
        self.replace_block(at, self.library.bb_create(), [])

    # ---- Addresses and their lists

    def known_lists(self):
        """Handle and model of every list there is."""
        out = list(self.lists)
        for held in self.notifications:
            if held:
                for getter, model in held[1].lists.items():
                    if model is not None:
                        out.append((getattr(self.library, "notification_" + getter)(held[0]), model))
        return out

    def known_addresses(self):
        out = [(self.library.laddrlist_get(handle, i), address) for handle, model in self.known_lists()
               for i, address in enumerate(model)]
        return out + [(self.library.notification_generatingAddress(held[0]), held[1].generating) for held in self.notifications
                      if held and held[1].generating]

    def check_address(self, handle, model):
        z = self.library
        for getter in ["TierId", "Tier", "Subscription", "InstanceName", "HostName", "Component"]:
            same(getter, borrowed(getattr(z, "logicaladdr_get" + getter)(handle)), model.strings[getter.lower().encode()])
        same("count of properties", z.logicaladdr_getPropertyCount(handle), len(model.properties))
        same("properties", [entry(z.logicaladdr_getPropertyIndex(handle, i)) for i in range(len(model.properties))],
             list(model.properties.items()))
        same("property behind the last", z.logicaladdr_getPropertyIndex(handle, len(model.properties)), None)
        for some in NAMES:
            same(f"property {some}", borrowed(z.logicaladdr_getProperty(handle, some)), model.properties.get(some))
        same("text of an address", owned(z.logicaladdr_toString(handle)), model.text())

    def check_list(self, handle, model):
        z = self.library
        same("count of addresses", z.laddrlist_count(handle), len(model))
        for i, address in enumerate(model):
            self.check_address(z.laddrlist_get(handle, i), address)
        for index in (len(model), MOST):
            same(f"address {index}", z.laddrlist_get(handle, index), None)

    @operation(8, place, place)
    def list_add(self, at, source):
        known = self.known_addresses()
        if known:
            handle, address = known[source % len(known)]
            self.library.laddrlist_add(self.lists[at % 2][0], handle)
            self.lists[at % 2][1].append(address)
        self.check_list(*self.lists[at % 2])

    @operation(2, place, place)
    def list_duplicate(self, at, source):
        known = self.known_lists()
        handle, model = known[source % len(known)]
        copy = self.library.laddrlist_dup(handle)
        same("another list", bool(copy) and copy != handle, True)
        model = list(model)
        cleared(self.library.laddrlist_destroy, self.lists[at % 2][0])
        self.lists[at % 2] = (copy, model)
        self.check_list(copy, model)

    @operation(1, place)
    def list_renew(self, at):
        cleared(self.library.laddrlist_destroy, self.lists[at % 2][0])
        self.lists[at % 2] = (self.library.laddrlist_create(), [])
        self.check_list(*self.lists[at % 2])

    @operation(3)
    def addresses_compare(self):
        known = self.known_addresses()[:12]
        for a, one in known:
            same("equal to null", [self.library.logicaladdr_equals(a, None), self.library.logicaladdr_equals(None, a)], [0, 0])
            for b, other in known:
                same(f"{one.key} equals {other.key}", self.library.logicaladdr_equals(a, b), int(one.equals(other)))

    # ---- Notifications

    def check_notification(self, at):
        held = self.notifications[at % 3]
        if not held:
            return
        z, (handle, model) = self.library, held

        def get(getter):
            return getattr(z, "notification_" + getter)(handle)

        same("class", get("getClass"), model.kind)
        for getter, expected in model.strings.items():
            same(getter, borrowed(get(getter)), expected)
        same("times", [get("creationTime"), get("deliveryTime")], [seconds(model.creation), seconds(model.delivery)])
        same("local only", get("localOnly"), model.local)
        same("membership", get("isMembership"), int(model.kind in (1, 2)))
        size = ctypes.c_int32(-7)
        body = z.notification_body(handle, ctypes.byref(size))
        same("length of the body", size.value, model.length)
        same("body", octets(body, size.value) if body else None, model.body)
        same("body again", z.notification_body(handle, None), body)
        count = ctypes.c_int32(-7)
        array = z.notification_getAllProperties(handle, ctypes.byref(count))
        same("count of properties", count.value, len(model.properties))
        same("an array", bool(array), bool(model.properties))
        found = [entry(array + i * ctypes.sizeof(Property)) for i in range(count.value)]
        libc.free(array)
        same("properties", found, model.properties)
        for some in NAMES + UNFIT + [None]:
            same(f"property {some}", borrowed(z.notification_getProperty(handle, some)), model.property(some))
        same("an address", bool(get("generatingAddress")), model.generating is not None)
        if model.generating:
            self.check_address(get("generatingAddress"), model.generating)
        for getter, expected in model.lists.items():
            same(getter, bool(get(getter)), expected is not None)
            if expected is not None:
                self.check_list(get(getter), expected)
        same("an input stream", bool(get("getInputStream")), hasattr(model, "unread"))
        for form in range(5):
            same(f"text {form}", owned(z.notification_toString(handle, form)), model.text(form, handle))

    def hold(self, at, handle, model):
        self.release(at)
        self.notifications[at % 3] = (handle, model)
        self.check_notification(at)

    def create(self, at, type_, body, size):
        handle = lend(self.library.notification_create, type_, body, size)
        same("a notification", bool(handle), type_ is not None and (body is not None or size < 1))
        if handle:
            model = Notification(0, type_, body and body[:max(size, 0)], size)
            model.received = model.bound = False
            self.hold(at, handle, model)

    @operation(4, place, name, content, length)
    def notification_create(self, at, type_, body, size):
        self.create(at, type_, body, min(size, 1 if body is None else len(body)))

    @operation(2, place, name, place)
    def notification_of_block(self, at, type_, source):
        body = self.encoding(source)
        self.create(at, type_, body, len(body))

    @operation(5, place, name)
    def notification_createstream(self, at, type_):
        handle = lend(self.library.notification_createstream, type_)
        same("a notification", bool(handle), type_ is not None)
        if handle:
            model = Notification(3, type_, None, 0)
            model.received = model.bound = False
            self.hold(at, handle, model)

    @operation(12, place, event, some_octets, addresses)
    def notification_receive(self, at, fields, body, address_octets):
        kind, words, times, local, lines = fields
        model = Notification(kind, words[0], body or None, len(body))
        model.received, model.bound = True, False
        model.strings["id"] = words[1]
        model.creation, model.delivery = map(number, times)
        said = [b"POST /event HTTP/1.1", b"className: " + CLASSES[kind],
                b"SubscriberID: %d" % self.connection.SUBSCRIBER, b"eventType: " + words[0], b"eventId: " + words[1],
                b"creationTime: " + times[0], b"deliveryTime: " + times[1]]
        if kind in MESSAGE_LIKE:
            for label, some in zip(["affectedComponents", "affectedNodes", "generatingComponent", "generatingProcess",
                                    "generatingNode", "instanceName"], words[2:]):
                model.strings[label] = some
                said.append(label.encode() + b": " + some)
            model.local = int(local == b"true")
            for line in lines:
                if b":" in line:
                    key, some = line.split(b":", 1)
                    model.properties.insert(0, (key, some[1:]))
            said += [b"LocalOnly: " + local, b"numberOfProperties: %d" % len(lines)] + lines
        if kind == 4:
            self.streams += 1
            model.stream_key = b"%x.%d" % (id(self), self.streams)
            model.unread, model.empty, model.body, model.length = body, not body, None, 0  # an empty piece is the end
            said.append(b"streamKey: " + model.stream_key)
        said += [b"Content-Length: %d" % len(body), b"AddrList-Length: %d" % len(address_octets), b"", body + address_octets]
        model.received_addresses(address_octets)
        self.hold(at, self.connection.received(b"\r\n".join(said)), model)

    @operation(16, place, property_name, property_value)
    def notification_property(self, at, some_name, some_value):
        held = self.notifications[at % 3]
        result = lend(self.library.notification_setProperty, held and held[0], some_name, some_value)
        same("result", result, held[1].set_property(some_name, some_value) if held else -2)
        self.check_notification(at)

    @operation(1, place)
    def notification_local(self, at):
        held = self.notifications[at % 3]
        self.library.notification_setLocalOnly(held and held[0])
        if held:
            held[1].local = 1
        self.check_notification(at)

    @operation(4, place, place)
    def notification_destination(self, at, source):
        """One of the addresses there are, those of the notification itself among them, or none."""
        held, known = self.notifications[at % 3], self.known_addresses() + [(None, None)]
        handle, address = known[source % len(known)]
        self.library.notification_setDestinationAddr(held and held[0], handle)
        if held and handle:
            held[1].lists["getDestinationAddrs"] = [address]
        self.check_notification(at)

    @operation(4, place, place)
    def notification_destinations(self, at, source):
        held, known = self.notifications[at % 3], self.known_lists() + [(None, None)]
        handle, model = known[source % len(known)]
        self.library.notification_setDestinationAddrs(held and held[0], handle)
        if held and handle:
            held[1].lists["getDestinationAddrs"] = list(model)
        self.check_notification(at)

    @operation(1, place)
    def notification_print(self, at):
        held = self.notifications[at % 3]
        kept = os.dup(2)
        with tempfile.TemporaryFile() as said:
            os.dup2(said.fileno(), 2)
            self.library.notification_print(held and held[0])
            os.dup2(kept, 2)
            os.close(kept)
            said.seek(0)
            same("said", said.read(), held[1].text(0, held[0]) if held else b"NOTIFICATION 0x0 (NULL)\n")

    def publish(self, at):
        handle, model = self.notifications[at % 3]
        self.connection.stamped(model)
        self.library.publisher_publish(self.connection.publisher, handle)
        if model.kind == 3:
            model.stream_key, model.bound = model.strings["id"], True
        else:
            self.notifications[at % 3] = None
            self.connection.expect("what is published", model.message(self.connection.INSTANCE))

    @operation(5, place)
    def notification_publish(self, at):
        held = self.notifications[at % 3]
        if held and not held[1].bound and not (held[1].received and held[1].kind in (3, 4)):
            self.publish(at)
        self.check_notification(at)

    def expect_piece(self, head, data):
        piece = Notification(4, head.strings["type"], data, len(data))
        for some_name, some_value in head.properties:
            piece.set_property(some_name, some_value)
        piece.lists["getDestinationAddrs"] = head.lists["getDestinationAddrs"]
        piece.stream_key = head.stream_key
        self.connection.stamped(piece)
        self.connection.expect("a piece", piece.message(self.connection.INSTANCE))

    @operation(6, place, content, length)
    def stream_write(self, at, data, size):
        at = next((i for i, held in enumerate(self.notifications) if held and held[1].bound), at)
        held = self.notifications[at % 3]
        if held and held[1].received:
            return
        stream = self.library.notification_getOutputStream(held and held[0])
        same("a stream", bool(stream), bool(held) and held[1].kind == 3)
        size = min(size, 1 if data is None else len(data))
        result = lend(self.library.outstream_write, stream, data, size)
        if not stream or data is None or size < 1:
            same("written", result, 0)
        elif not held[1].bound:
            same("written", result, -1)
        else:
            same("written", result, size)
            self.expect_piece(held[1], data[:size])
        same("flushed", self.library.outstream_flush(stream), 0)
        self.check_notification(at)

    @operation(4, place, length)
    def stream_read(self, at, size):
        at = next((i for i, held in enumerate(self.notifications) if held and hasattr(held[1], "unread")), at)
        held = self.notifications[at % 3]
        stream = held and self.library.notification_getInputStream(held[0])
        buffer = ctypes.create_string_buffer(70000)
        size = min(size, 70000)
        if not stream:
            same("read without a stream", self.library.instream_read(None, buffer, size), 0)
            return
        if size > 0 and not held[1].unread and not held[1].empty:
            return  # it would wait for more
        expected = held[1].unread[:max(size, 0)]
        held[1].unread = held[1].unread[len(expected):]
        same("read", self.library.instream_read(stream, buffer, size), len(expected))
        same("octets read", buffer.raw[:len(expected)], expected)

    @operation(4, place)
    def release(self, at):
        """Each in the way that it has to be."""
        held = self.notifications[at % 3]
        if not held:
            return
        z, (handle, model) = self.library, held
        if model.received:
            stream = z.notification_getInputStream(handle)
            cleared(z.instream_close, stream)
            if stream:
                self.connection.end_of(model.stream_key)
            z.subscriber_relinquish(self.connection.subscriber, handle)
        elif model.kind == 3:
            cleared(z.outstream_close, z.notification_getOutputStream(handle))
            if model.bound:
                self.expect_piece(model, b"")
        else:
            self.publish(at)
        self.notifications[at % 3] = None

    @operation(1)
    def nothing(self):
        """Null in the place of each object."""
        z, size = self.library, ctypes.c_int32(-7)
        for kind in ("proplist", "laddrlist"):
            same("count of nothing", getattr(z, kind + "_count")(None), 0)
            getattr(z, kind + "_destroy")(None)
        z.bb_destroy(None)
        same("nothing of nothing", [z.proplist_getIndex(None, 0), z.proplist_put(None, b"a", b"b"), z.laddrlist_get(None, 0),
                                    z.laddrlist_dup(None), z.bb_toString(None), z.bb_addsegment(None, b"a"),
                                    z.bb_getsegment(None, b"a"), z.bb_getsegments(None), z.bb_seg_getname(None),
                                    z.bb_seg_addsegment(None, b"a"), z.bb_seg_getsegment(None, b"a"), z.bb_seg_getsegments(None),
                                    z.bb_seg_getelements(None), z.bb_seg_getelement(None, b"a", ctypes.byref(size)),
                                    z.bb_elem_getname(None), z.bb_seglist_getfirst(None), z.bb_seglist_getnext(None),
                                    z.bb_elemlist_getfirst(None), z.bb_elemlist_getnext(None),
                                    z.notification_body(None, ctypes.byref(size)), z.notification_getOutputStream(None),
                                    z.notification_getInputStream(None), z.notification_generatingAddress(None),
                                    z.logicaladdr_toString(None), z.logicaladdr_getProperty(None, b"a"),
                                    z.logicaladdr_getTier(None)] +
             [getattr(z, "notification_" + getter)(None) for getter in Notification.STRINGS + Notification.LISTS], [None] * 39)
        same("a length left alone", size.value, -7)
        same("an element of nothing", [z.bb_elem_getvalue(None, ctypes.byref(size)), size.value], [None, 0])
        same("properties of nothing", [z.notification_getAllProperties(None, ctypes.byref(size)), size.value], [None, 0])
        same("an empty block", self.null_block(), encode([]))
        same("a notification that is none", [z.notification_getClass(None), z.notification_creationTime(None),
                                             z.notification_deliveryTime(None), z.notification_localOnly(None),
                                             z.notification_isMembership(None), z.logicaladdr_getPropertyCount(None)],
             [8, 0, 0, 0, 0, 0])
        same("text of nothing", owned(z.notification_toString(None, 4)), b"NOTIFICATION 0x0 (NULL)\n")

    def null_block(self):
        size = ctypes.c_int32(-7)
        pointer = self.library.bb_block2body(None, ctypes.byref(size))
        out = octets(pointer, size.value)
        libc.free(pointer)
        return out

    # ---- The end

    def close(self):
        """Nothing that was done to one object has changed another, and everything is given back."""
        for at in range(2):
            self.check_proplist(at)
            self.check_block(at, None)
            self.check_list(*self.lists[at])
        for at in range(3):
            self.check_notification(at)
            self.release(at)
        for at in range(2):
            cleared(self.library.proplist_destroy, self.proplists[at][0])
            self.library.bb_destroy(self.blocks[at][0])
            cleared(self.library.laddrlist_destroy, self.lists[at][0])
