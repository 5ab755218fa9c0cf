#!/usr/bin/python3
"""A client of the hub and the daemon in another language, written from docs/formats.md and docs/hub.md alone.

    hub_client.py BUS-SOCKET get                    the preferences, as JSON
    hub_client.py BUS-SOCKET set TYPE MEMBER VALUE  sets one of them; prints the result code
    hub_client.py BUS-SOCKET replace [URL ACTION]…  replaces the allow/block list; prints the result code
    hub_client.py BUS-SOCKET fill N                 the same, with N made-up URLs
    hub_client.py BUS-SOCKET reports AFTER          the reports behind a record, as JSON, one a line
    hub_client.py EVENT-SOCKET event URL            sends an event
    hub_client.py FILE read                         reads a snapshot of the preferences from a file of UTF-8
    hub_client.py - examples                        writes the example archives of the page, and reads each back

It shares no line with the programs, and knows no more of them than the pages say. What it needs besides Python's own
library is a D-Bus client (python3-dbus). It is also a sample for whoever writes a client: transport, archive and
payloads stand one behind the other below.
"""
import array
import base64
import fcntl
import json
import os
import socket
import struct
import sys

# The transport: docs/hub.md.

LARGE = 256 * 1024
SEALS = fcntl.F_SEAL_WRITE | fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW


def as_bytes(text):
    """A text is a list of 32-bit characters, low byte first: any value may occur, so it is no Python text."""
    characters = array.array("I", text)
    if sys.byteorder == "big":
        characters.byteswap()
    return characters.tobytes()


def as_text(data, bytes_a_character=4):
    if bytes_a_character == 1:
        return list(data)
    characters = array.array("I", data)
    if sys.byteorder == "big":
        characters.byteswap()
    return characters.tolist()


def memory_file(data):
    descriptor = os.memfd_create("payload", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    with os.fdopen(os.dup(descriptor), "wb") as file:
        file.write(data)
    fcntl.fcntl(descriptor, fcntl.F_ADD_SEALS, SEALS)
    return descriptor


class Hub:
    def __init__(self, path):
        import dbus.bus
        self.types = dbus
        self.bus = dbus.bus.BusConnection("unix:path=" + path)

    def command(self, number, payload=None, module=7):
        """Sends a command and gives the text of the reply, or None when it has none."""
        data = as_bytes(payload or [])
        carried, signature = [self.types.ByteArray(data)], "tiibibay"
        if len(data) > LARGE:
            descriptor = memory_file(data)
            carried, signature = [self.types.types.UnixFd(descriptor), self.types.Byte(4)], "tiibibhy"
            os.close(descriptor)
        name = f"com.orvanta.hvb1.Module{module}"
        reply = self.bus.call_blocking(name, f"/com/orvanta/hvb1/Module{module}", "com.orvanta.hvb1.Module",
                                       f"Command{number}", signature,
                                       [0, -1, module, False, 0, payload is not None] + carried,
                                       timeout=60, byte_arrays=True)
        succeeded, valid, has_payload = reply[:3]
        if not (succeeded and valid):
            raise RuntimeError(f"command {number} failed")
        if not has_payload:
            return None
        if isinstance(reply[3], self.types.types.UnixFd):
            with os.fdopen(reply[3].take(), "rb") as file:
                file.seek(0)
                return as_text(file.read(), int(reply[4]))
        return as_text(bytes(reply[3]))

    def log(self, after):
        hub = "com.orvanta.hvb1.Hub"
        return self.bus.call_blocking(hub, "/com/orvanta/hvb1/Hub", hub, "ReadLog", "tub", [after, 1000, False],
                                      byte_arrays=True)


# The archive: docs/formats.md.

class Writer:
    def __init__(self):
        self.text = [ord(c) for c in "22 serialization::archive 18"]
        self.known = set()

    def number(self, value):
        self.text += [ord(c) for c in f" {int(value)}"]

    def narrow(self, data):
        self.number(len(data))
        self.text += [32, *data]

    def preamble(self, name, version=0):
        if name not in self.known:
            self.known.add(name)
            self.number(0)
            self.number(version)

    def pairs(self, container, types, pairs, write_key, write_value):
        self.preamble((container, types))
        self.number(len(pairs))
        self.number(0)
        for key, value in pairs:
            self.preamble(("pair", types))
            write_key(key)
            write_value(value)


class Reader:
    def __init__(self, text):
        self.text = text
        self.at = 0
        self.known = {}
        header = [self.word() for _ in range(3)]
        if header[:2] != ["22", "serialization::archive"] or int(header[2]) > 19:
            raise ValueError("no archive that can be read")

    def word(self):
        while self.text[self.at] in (32, 10):
            self.at += 1
        begin = self.at
        while self.at < len(self.text) and self.text[self.at] not in (32, 10):
            self.at += 1
        return "".join(map(chr, self.text[begin:self.at]))

    def number(self):
        return int(self.word())

    def wide(self):
        size = self.number()
        begin = self.at + 1
        self.at = begin + size
        if self.at > len(self.text):
            raise ValueError("a text ends too early")
        return self.text[begin:self.at]

    def narrow(self):
        return bytes(self.wide())

    def preamble(self, name):
        """Gives the class version. The number of a tracked object stands in front of the object."""
        if name not in self.known:
            self.known[name] = (self.number(), self.number())
        is_tracked, version = self.known[name]
        if is_tracked:
            self.number()
        return version

    def pairs(self, container, types, read_key, read_value):
        self.preamble((container, types))
        count = self.number()
        self.number()
        pairs = []
        for _ in range(count):
            self.preamble(("pair", types))
            key = read_key()
            pairs.append((key, read_value()))
        return pairs


# The payloads.

MEMBERS = ["enabled", "safe_search", "red", "yellow", "unrated", "type", "individual", "category_blocking", "false",
           "allow_over_block", "unverified"]
DEFAULTS = [1, 0, 3, 2, 1, 10, 0, 0, 0, 0, 1]
TEXT_TO_NUMBER = "narrow text to number"
TEXT_TO_TEXT = "wide text to wide text"


def write_preferences(changes, categories=(), urls=()):
    writer = Writer()
    writer.preamble("STPreferences")
    for value in {**dict(zip(MEMBERS, DEFAULTS)), **changes}.values():
        writer.number(value)
    writer.pairs("map", TEXT_TO_NUMBER, categories, writer.narrow, writer.number)
    keys = [(base64.b64encode(url), action) for url, action in urls]
    writer.pairs("multimap", TEXT_TO_NUMBER, keys, writer.narrow, writer.number)
    return writer.text


def read_preferences(text):
    reader = Reader(text)
    reader.preamble("STPreferences")
    snapshot = {member: reader.number() for member in MEMBERS}
    categories = reader.pairs("map", TEXT_TO_NUMBER, reader.narrow, reader.number)
    urls = reader.pairs("multimap", TEXT_TO_NUMBER, reader.narrow, reader.number)
    snapshot["categories"] = [shown(name) for name, _ in categories]
    snapshot["urls"] = [[shown(base64.b64decode(key).rstrip(b"\0")), action] for key, action in urls]
    return snapshot


def shown(data):
    return data.decode("utf-8", "backslashreplace")


def wide_shown(text):
    """Texts of an event have one byte in each character, whose sign was carried on; all others are characters."""
    if all(c < 0x80 or c >= 0xFFFFFF80 for c in text):
        return shown(bytes(c & 0xFF for c in text))
    return "".join(chr(c) if c < 0x110000 else "\ufffd" for c in text)


def text_pairs(reader, container):
    pairs = reader.pairs(container, TEXT_TO_TEXT, reader.wide, reader.wide)
    return [[wide_shown(key), wide_shown(value)] for key, value in pairs]


def read_report(text):
    reader = Reader(text)
    reader.preamble("ReportData")
    return {"row": reader.number(), "name": wide_shown(reader.wide()), "sub_type": wide_shown(reader.wide()),
            "time": reader.number(), "type": reader.number()}


def read_detail(text):
    reader = Reader(text)
    version = reader.preamble("DetailReportData")
    detail = {"name": wide_shown(reader.wide()), "attributes": dict(text_pairs(reader, "map")),
              "information": text_pairs(reader, "multimap")}
    if version >= 1:
        detail["nested"] = reader.pairs("multimap", "wide text to map", reader.wide, lambda: text_pairs(reader, "map"))
        detail["flag"] = reader.number() == 1
    return {**detail, "time": reader.number(), "type": reader.number()}


def event(path, url):
    record = struct.pack("=16s272s64s10i", b"other", url.encode(), b"python", 60, 3, 0, 0, 1, 42, 0, 1, 1, 0)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        client.connect(path)
        client.send(record)
        client.recv(1)  # the daemon closes when it has dealt with the event


def examples():
    numbers = Writer()
    numbers.pairs("map", "number to bool", [(3, 0), (7, 1)], numbers.number, numbers.number)
    texts = Writer()
    texts.pairs("map", TEXT_TO_TEXT, [(b"name", b"two words")], texts.narrow, texts.narrow)
    written = write_preferences({"type": 7, "individual": 1, "category_blocking": 1}, [(b"Zoo", 1)],
                                [(b"b.example", 1)])
    reader = Reader(numbers.text)
    print("".join(map(chr, numbers.text)))
    print(json.dumps(reader.pairs("map", "number to bool", reader.number, reader.number)))
    print("".join(map(chr, texts.text)))
    print(json.dumps(text_pairs(Reader(texts.text), "map")))
    print("".join(map(chr, written)))
    print(json.dumps(read_preferences(written)))


def result_of(text):
    print(Reader(text).number())


def main(path, verb, *rest):
    if verb == "examples":
        examples()
    elif verb == "read":
        with open(path, encoding="utf-8") as file:
            print(json.dumps(read_preferences([ord(c) for c in file.read()])))
    elif verb == "event":
        event(path, *rest)
    elif verb == "get":
        print(json.dumps(read_preferences(Hub(path).command(100001))))
    elif verb == "set":
        kind, member, value = rest
        result_of(Hub(path).command(100002, write_preferences({"individual": 1, "type": kind, member: value})))
    elif verb in ("replace", "fill"):
        urls = [(url.encode(), int(action)) for url, action in zip(rest[::2], rest[1::2])]
        if verb == "fill":
            urls = [(f"http://host-{number}.example/a/path".encode(), 1) for number in range(int(rest[0]))]
        result_of(Hub(path).command(100002, write_preferences({"individual": 1, "type": 7}, urls=urls)))
    elif verb == "reports":
        for number, _, module, kind, text, detail, count in Hub(path).log(int(rest[0])):
            print(json.dumps({"id": number, "module": module, "kind": kind, "count": count,
                              "report": read_report(as_text(text)), "detail": read_detail(as_text(detail))}))
    else:
        raise SystemExit(__doc__)


if __name__ == "__main__":
    main(*sys.argv[1:])
