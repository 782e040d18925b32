"""The bus on the wire: events made by hand, one by one or by the thousand."""

import contextlib
import socket
import struct

STATUS, INVOKE = 1, 5
OBJID, METHOD, DATA = 3, 4, 7
EVENT_OBJECT = 1
UNSPEC, TABLE, STRING, INT32 = 0, 2, 3, 5


def pad(data):
    return data + bytes(-len(data) % 4)


def blob(kind, payload, extended=0):
    return pad(struct.pack(">I", extended | kind << 24 | len(payload) + 4) + payload)


def blobmsg(kind, name, payload):
    name = name.encode()
    return blob(kind, pad(struct.pack(">H", len(name)) + name + b"\0") + payload, 0x80000000)


def record_event(name, attribute, layout, *fields):
    """An event that carries a raw record."""
    return name, blobmsg(UNSPEC, attribute, pad(struct.pack("<I" + layout, 1, *fields)))


def mac_event(learned, address, port):
    return record_event("109", "mac_struct", "16s16s16s6sB", port.encode(), b"", b"br0", address, learned)


def arp_event(address, mac):
    return record_event("110", "arp_struct", "I4s6s64s", 1, socket.inet_aton(address), mac, b"br0")


def wifi_event(joined, address, ssid):
    return record_event("111", "wifi_user_struct", "6sBB", address, ssid, joined)


def send_raw_events(gateway, events, burst=64):
    """Puts on the bus what the library would not; returns when the broker has handled all of it, or hangs up."""
    with open(gateway.state + "/init", encoding="ascii") as file:
        init = file.read().strip()
    messages = []
    for name, members in events:
        data = blobmsg(STRING, "id", name.encode() + b"\0") + blobmsg(TABLE, "data", members)
        body = blob(OBJID, struct.pack(">I", EVENT_OBJECT)) + blob(METHOD, b"send\0") + blob(DATA, data)
        messages.append(struct.pack(">BBHI", 0, INVOKE, 1, 0) + blob(0, body))
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(60)
        client.connect(f"/proc/{init}/root/run/ubus/ubus.sock")
        stream = client.makefile("rb")
        for first in range(0, len(messages), burst):
            pending = messages[first:first + burst]
            with contextlib.suppress(ConnectionResetError):
                client.sendall(b"".join(pending))
                answers = len(pending)
                while answers and (header := stream.read(12)):  # the broker's greeting comes first
                    _, kind, _, _, length = struct.unpack(">BBHII", header)
                    stream.read((length & 0xFFFFFF) - 4)
                    answers -= kind == STATUS


def send_raw_event(gateway, name, members):
    send_raw_events(gateway, [(name, members)])
