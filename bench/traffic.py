"""The gateway's events in their bytes, and a client that sends them as fast as the broker takes them."""

import contextlib
import os
import select
import socket
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "tests", "system"))
from wire import DATA, EVENT_OBJECT, INVOKE, METHOD, OBJID, STATUS, STRING, TABLE, UNSPEC, blob, blobmsg  # noqa: E402

PING, LOOKUP, ADD_OBJECT = 3, 4, 6
STATUS_ATTRIBUTE, OBJPATH, SIGNATURE = 1, 2, 6
METHOD_NOT_FOUND = 3
HEADER = struct.Struct(">BBHII")  # of a message and of its one blob
LAN = "InternetGatewayDevice.LANDevice.1."


# --- Hosts and what is said of them

def mac(number):
    return f"02:00:00:{number >> 16:02x}:{number >> 8 & 255:02x}:{number & 255:02x}"


def mac_bytes(number):
    return b"\2\0\0" + number.to_bytes(3, "big")


def address(number, variant=0):
    """Of one of its two networks."""
    network = 0xC0A80000 if variant == 0 and number < 0xFFFF else 0x0A000000
    return socket.inet_ntoa(struct.pack(">I", network + number))


def name(number):
    return f"host-{number}"


def message(kind, body, peer=0):
    return struct.pack(">BBHI", 0, kind, 0, peer) + blob(0, body)


def text(label, value):
    return blobmsg(STRING, label, value.encode() + b"\0")


def event(label, members):
    data = blobmsg(STRING, "id", label.encode() + b"\0") + blobmsg(TABLE, "data", members)
    return message(INVOKE, blob(OBJID, struct.pack(">I", EVENT_OBJECT)) + blob(METHOD, b"send\0") + blob(DATA, data))


def mac_event(number, learned=1, port=None):
    record = struct.pack("<I16s16s16s6sB", 1, (port or f"eth{number % 4}").encode(), b"", b"br0", mac_bytes(number),
                         learned)
    return event("109", blobmsg(UNSPEC, "mac_struct", record))


def arp_event(number, variant=0):
    record = struct.pack("<II4s6s64s", 1, 1, socket.inet_aton(address(number, variant)), mac_bytes(number), b"br0")
    return event("110", blobmsg(UNSPEC, "arp_struct", record))


def wifi_event(number, joined=1, ssid=0):
    return event("111", blobmsg(UNSPEC, "wifi_user_struct", struct.pack("<I6sBB", 1, mac_bytes(number), ssid, joined)))


def port_event(port, up):
    return event("106", blobmsg(UNSPEC, "port_status_struct", struct.pack("<IBB", 1, port, up)))


def lease_event(number, seconds=3600, verb="ADD"):
    bare = mac(number).replace(":", "")
    return event("dhcp_user_event", text("dhcp_user_string", f"lan#{verb}#{address(number)}#DHCP#2026-11-01 00:00:00#"
                                                             f"{seconds}#{name(number)}#Computer#MSFT 5.0#{bare}"))


def ipv6_event(number):
    return event("dhcp_user_event",
                 text("dhcp_user_string", f"lan#ADD6#2001:db8::{number:x}#{mac(number)}#fe80::{number:x}"))


def call(object_id, method, members=b""):
    return message(INVOKE, blob(OBJID, struct.pack(">I", object_id)) + blob(METHOD, method.encode() + b"\0")
                   + blob(DATA, members), object_id)


def config_call(object_id, method, path, **pairs):
    data = b"".join(text(key, value) for key, value in pairs.items())
    return call(object_id, method, text("url", LAN + path) + blobmsg(TABLE, "data", data))


def all_kinds(daemon, hosts, round_number):
    """Every kind of event and both methods, for these hosts; half of it changes something with the round."""
    odd = round_number % 2
    for n in hosts:
        yield mac_event(n)
        yield arp_event(n, odd)
        yield lease_event(n, 3600 - odd)
        yield wifi_event(n, 1, odd)
        yield config_call(daemon, "set_lanhost_config", f"Hosts.Host.{n % 254 + 1}.", MaxUSBandwidth=str(1000 + odd))
        if n % 16 == 0:
            yield port_event(9, odd)
            yield mac_event(n, 0)
            yield wifi_event(n + 1, 0)
            yield event("wan_vlan_info", b"")
            yield config_call(daemon, "ovani_devfuc_port_cfg", "LANEthernetInterfaceConfig.1.",
                              MaxBitRate="100" if odd else "1000", DuplexMode="Full")
    yield ipv6_event(hosts[0])  # one: it starts commands


# --- The client

class Gone(Exception):
    """The broker, the daemon or an answer."""


class Bus:
    """A client of a gateway's broker, from outside."""

    def __init__(self, gateway):
        self.socket = socket.socket(socket.AF_UNIX)
        self.input = b""
        try:
            self.socket.connect(gateway.root("run/ubus/ubus.sock"))
            self.socket.settimeout(60)
            self.receive()  # its greeting
        except OSError as error:
            raise Gone(str(error)) from None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def receive(self):
        """The next message: its kind and its attributes."""
        while len(self.input) < HEADER.size or len(self.input) < 8 + (HEADER.unpack_from(self.input)[4] & 0xFFFFFF):
            try:
                more = self.socket.recv(1 << 20)
            except OSError as error:
                raise Gone(str(error)) from None
            if not more:
                raise Gone("the broker has hung up")
            self.input += more
        _, kind, _, _, length = HEADER.unpack_from(self.input)
        end = 8 + (length & 0xFFFFFF)
        attributes, at = {}, HEADER.size
        while at + 4 <= end:
            word, = struct.unpack_from(">I", self.input, at)
            size = word & 0xFFFFFF
            attributes[word >> 24 & 127] = self.input[at + 4:at + size]
            at += size + 3 & ~3
        self.input = self.input[end:]
        return kind, attributes

    def request(self, data):
        """Its status and the last answer."""
        self.socket.sendall(data)
        answer = {}
        while True:
            kind, attributes = self.receive()
            if kind == STATUS:
                return struct.unpack(">I", attributes[STATUS_ATTRIBUTE])[0], answer
            answer = attributes

    def daemon(self):
        """The id of its object."""
        status, answer = self.request(message(LOOKUP, blob(OBJPATH, b"ovani\0")))
        if status != 0:
            raise Gone("the daemon is not on the bus")
        return struct.unpack(">I", answer[OBJID])[0]

    def publish(self, path):
        """Whether the broker lets it. Nobody will answer there."""
        return self.request(message(ADD_OBJECT, blob(OBJPATH, path.encode() + b"\0") + blob(SIGNATURE, b"")))[0] == 0

    def settle(self, patience=60):
        """Returns when the daemon has handled what was sent: it answers calls in the same order."""
        self.socket.settimeout(patience)
        status, _ = self.request(call(self.daemon(), "none"))
        if status != METHOD_NOT_FOUND:
            raise Gone(f"no answer: status {status}")

    def send(self, messages, patience=60):
        """Events and calls; returns when the daemon has handled them. At most some hundred, else some are lost."""
        messages = list(messages)
        self.socket.settimeout(patience)
        self.socket.sendall(b"".join(messages))
        for _ in messages:
            while self.receive()[0] != STATUS:
                pass
        self.settle(patience)


class Flood(threading.Thread):
    """Sends the same over and over and waits for nobody, until stopped; so many a second, if told."""

    def __init__(self, gateway, messages, rate=None):
        super().__init__(daemon=True)
        self.bus = Bus(gateway)
        self.bus.socket.setblocking(False)
        self.messages = list(messages)
        self.lap = b"".join(self.messages)
        self.pause = len(self.messages) / rate if rate else 0
        self.sent = 0
        self.stopped = False
        self.start()

    def run(self):
        with contextlib.suppress(OSError):
            at = 0
            while not self.stopped:
                readable, writable, _ = select.select([self.bus.socket], [self.bus.socket], [], 0.1)
                if readable and not self.bus.socket.recv(1 << 20):
                    break
                if writable:
                    at += self.bus.socket.send(self.lap[at:at + 65536])
                    if at == len(self.lap):
                        at, self.sent = 0, self.sent + len(self.messages)
                        time.sleep(self.pause)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stopped = True
        self.join()
        self.bus.socket.close()
