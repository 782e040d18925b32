"""Messages for the bus that the library would not send, by hand."""

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


def send_raw_event(gateway, name, members):
    """Returns when the broker has handled it, or hangs up."""
    data = blobmsg(STRING, "id", name.encode() + b"\0") + blobmsg(TABLE, "data", members)
    body = blob(OBJID, struct.pack(">I", EVENT_OBJECT)) + blob(METHOD, b"send\0") + blob(DATA, data)
    with socket.socket(socket.AF_UNIX) as client, contextlib.suppress(ConnectionResetError):
        client.settimeout(60)
        client.connect(f"/proc/{gateway.read('init').strip()}/root/run/ubus/ubus.sock")
        client.sendall(struct.pack(">BBHI", 0, INVOKE, 1, 0) + blob(0, body))
        stream = client.makefile("rb")
        while header := stream.read(12):  # the broker's greeting comes first
            _, kind, _, _, length = struct.unpack(">BBHII", header)
            stream.read((length & 0xFFFFFF) - 4)
            if kind == STATUS:
                return
