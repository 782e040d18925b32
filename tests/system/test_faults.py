"""The daemon where its surroundings fail: commands, bridge, kernel tables and bus full, strange or missing."""

import os
import random
import re
import shutil
import stat
import unittest

from gateway import BUILD, Gateway, mac, setUpModule, wait_for  # noqa: F401
from wire import arp_event, mac_event, send_raw_events, wifi_event


def raw(number):
    return bytes.fromhex(mac(number).replace(":", ""))


class Faults(unittest.TestCase):
    def raise_gateway(self, *without, **options):
        self.gateway = Gateway(without=list(without), **options)
        self.addCleanup(self.gateway.close)
        return self.gateway

    def neighbours_queued(self):
        """Bytes waiting for the daemon's neighbour watcher, and messages it has lost."""
        rows = [line.split() for line in self.gateway.exec("cat", "/proc/net/netlink").splitlines()[1:]]
        queued, lost = [(int(row[4]), int(row[8])) for row in rows if int(row[3], 16) == 0x1d][0]
        return queued, lost

    def test_commands_that_fail(self):
        """What the daemon asks of brctl, ip and ubus is answered by nobody, by silence, by nonsense, at length."""
        gw = self.raise_gateway("daemon")
        gw("plug", "1", "pc", "--mac", mac(1), "static", "192.168.1.10")
        wait_for(lambda: mac(1) in gw.exec("ip", "neigh"), "the ARP entry")
        nonsense = "\n".join((
            "\\377\\376%n%n%s\\033[2J", f"1 {mac(1)} maybe 0.0 eth3", f"1 {mac(1)[:-1]} no 0.0 eth3",
            f"1 {mac(7)} no 0.0 ether-$(reboot)-net-999", f"{mac(9)} no 0.0 wlan0", "5 no no no ra0",
            f"fe80::5 dev br0 lladdr $(reboot);`id` {mac(9)}", "a b c d e f g h"))
        fakes = {"absent": None, "silent": "", "nonsense": f"printf '{nonsense}\n'",
                 "long": f"printf '{mac(9)} no %0100000d\n' 7"}
        for kind, fake in fakes.items():
            with self.subTest(commands=kind):
                path = os.path.join(gw.state, "path-" + kind)
                os.mkdir(path)
                for tool in ("awk", "grep", "sed", "cat", "sh"):
                    os.symlink(shutil.which(tool), os.path.join(path, tool))
                for command in ("brctl", "ip", "ubus") if fake is not None else ():
                    with open(os.path.join(path, command), "w", encoding="ascii") as script:
                        script.write("#!/bin/sh\n" + fake + "\n")
                    os.chmod(script.name, stat.S_IRWXU)
                reports = gw.log("sysmgr").count("ovani is ready")
                told = gw.log("watcher").count("announcing everything")
                log = os.path.join(gw.state, "log", kind)
                daemon = gw.start_inside(
                    "sh", "-c", f"echo $$ >{path}.pid; PATH={path} exec {BUILD}/bin/ovani >{log} 2>&1")
                gw.daemon_ready(reports + 1)
                wait_for(lambda: gw.log("watcher").count("announcing everything") > told, "the watcher to tell")
                gw.host_with(mac(1), Active="1", IPAddress="192.168.1.10", Port="1")
                gw.emit("wifi", "join", mac(9), "0")
                gw.emit("arp", "add", "192.168.1.9", mac(9))
                gw.emit("dhcp-text", f"d#ADD6#2001:db8::{len(kind)}#{mac(1)}#fe80::6")
                gw.batch("ip", f"neigh replace 2001:db8:1::99 lladdr {mac(1)} dev br0 nud permanent",
                         "neigh del 2001:db8:1::99 dev br0")
                gw.settle_daemon()
                hosts = gw.hosts()
                self.assertEqual(list(hosts), [mac(1)])
                self.assertEqual([hosts[mac(1)][k] for k in ("Port", "IPAddress", "IPv6Address", "IPv6LLAddress")],
                                 ["1", "192.168.1.10", f"2001:db8::{len(kind)}", "fe80::6"])
                self.assertIsNone(daemon.poll())
                with open(path + ".pid", encoding="ascii") as pid:
                    gw.exec("kill", pid.read().strip())
                daemon.communicate(timeout=30)
                if kind in ("absent", "silent"):
                    with open(log, "rb") as said:
                        self.assertIn(b"popen brctl showmacs br0 failed", said.read())

    def test_no_bridge_at_first(self):
        gw = self.raise_gateway("daemon", "watcher", "dhcp")
        gw.exec("ip", "link", "delete", "br0")
        gw("start", "daemon")
        gw.daemon_ready()
        gw.emit("mac", "add", mac(1), "--port", "eth2")
        gw.emit("arp", "add", "192.168.1.11", mac(1))
        gw.host_with(mac(1), Port="3", IPAddress="192.168.1.11")
        gw.batch("ip", "link add br0 type bridge", "link set eth0 master br0", "address add 192.168.1.1/24 dev br0",
                 "link set br0 up")
        gw("start", "watcher")
        gw("plug", "1", "pc", "--mac", mac(2), "static", "192.168.1.12")
        gw.host_with(mac(2), Port="1", IPAddress="192.168.1.12")

    def test_as_many_devices_as_fit_and_more(self):
        """The ceiling of 254 objects and of 256 remembered MACs, met at the start."""
        for count in (254, 300):
            with self.subTest(devices=count):
                gw = self.raise_gateway("daemon", "watcher", "dhcp")
                address = {mac(n): f"192.168.{1 + n // 200}.{2 + n % 200}" for n in range(count)}
                gw.fdb(*(f"fdb add {each} dev eth1 master static" for each in address))
                gw.batch("ip", *(f"neigh add {ip} lladdr {each} dev br0 nud permanent" for each, ip in address.items()))
                gw("start", "daemon")
                gw.daemon_ready()
                for told in (False, True):
                    hosts = gw.hosts()
                    self.assertEqual((len(hosts), gw.entries()), (254, 254))
                    for each, host in hosts.items():
                        self.assertEqual((host["IPAddress"], host["Port"], host["Active"]), (address[each], "2", "1"))
                    if not told:  # it tells first that the port has no link, and that retires them
                        with gw.recording("110") as recorder:
                            gw("start", "watcher")
                            recorder.wait(count, action="added")
                            gw.settle_daemon()
                refused = next(iter(address.keys() - hosts.keys()), None)
                if count > 254:
                    self.assertIn("hostNumberOfEntries 254, hostMaxNumber 254", gw.log("daemon"))
                    leaving = next(iter(hosts))
                    gw.fdb(f"fdb del {leaving} dev eth1 master")
                    gw.host_gone(leaving)
                    gw.emit("mac", "add", refused, "--port", "eth3")
                    gw.emit("arp", "add", address[refused], refused)
                    gw.host_with(refused, Port="4", IPAddress=address[refused])
                    self.assertEqual(gw.entries(), 254)

    def test_names_of_500_bytes(self):
        gw = self.raise_gateway("watcher", "dhcp")
        gw.daemon_ready()
        names = {mac(1): (b"n" * 500, "n" * 127), mac(2): ("电".encode() * 166 + b"nn", "电" * 42)}
        for number, (address, (name, stored)) in enumerate(names.items(), 1):
            gw.emit("mac", "add", address)
            gw.emit("arp", "add", f"192.168.1.{number}", address)
            gw.emit("dhcp-text", b"d#ADD#192.168.1.%d#DHCP#t#600#%b#%b#%b#%b" % (
                number, name, b"t" * 500, b"c" * 500, address.encode()))
            gw.settle_daemon()
            host = gw.host(address)
            self.assertEqual((host["HostName"].rstrip("\ufffd"), host["AddressSource"]), (stored, "DHCP"))
        self.assertEqual(gw.entries(), 2)

    def test_thousands_of_neighbours(self):
        """More IPv6 neighbours than the daemon's socket holds: what is lost is lost, what comes after is heard."""
        gw = self.raise_gateway()
        gw("plug", "1", "pc", "--mac", mac(1), "static", "192.168.1.10")
        before = gw.host_with(mac(1), Active="1", IPv6Address="")
        daemon = gw.pid("daemon")
        gw.exec("kill", "-STOP", daemon)
        gw.batch("ip", *(f"neigh add 2001:db8:1:1::{n:x} lladdr {mac(n)} dev br0 nud permanent"
                         for n in range(2, 2002)))
        self.assertGreater(self.neighbours_queued()[1], 0, "an overrun")
        gw.exec("kill", "-CONT", daemon)
        wait_for(lambda: self.neighbours_queued()[0] == 0, "the daemon to have read them", 60)
        gw.exec("ip", "neigh", "add", "2001:db8:1:1::1", "lladdr", mac(1), "dev", "br0", "nud", "permanent")
        gw.host_with(mac(1), IPv6Address="2001:db8:1:1::1", IPv6LLAddress="", instance=before["instance"])
        self.assertEqual((gw.pid("daemon"), len(gw.hosts())), (daemon, 1))


class Storm(unittest.TestCase):
    STATIONS = 100
    ROUNDS = 4

    def test_a_storm_leaves_nothing_behind(self):
        """10,000 events a round over one population: tables, store and reality agree, memory stands."""
        gw = Gateway(without=["watcher", "dhcp"])
        self.addCleanup(gw.close)
        gw.daemon_ready()
        daemon = gw.pid("daemon")

        def arrive(number):
            wifi = chance.choice(("ra0", "rai0", "eth1"))
            yield mac_event(1, raw(number), wifi)
            if wifi != "eth1":
                yield wifi_event(1, raw(number), {"ra0": 0, "rai0": 4}[wifi])
            yield arp_event(f"192.168.1.{number}", raw(number))
            where[number] = {"ra0": "1", "rai0": "5", "eth1": "2"}[wifi]

        def leave(number):
            if where.pop(number, "2") == "2":
                yield mac_event(0, raw(number), "eth1")
            else:
                yield wifi_event(0, raw(number), chance.choice((0, 4)))

        def resident():
            return int(re.search(r"VmRSS:\s*(\d+)", gw.exec("cat", f"/proc/{daemon}/status"))[1])

        where, memory, chance = {}, [], random.Random(7)
        for _ in range(self.ROUNDS):
            events = []
            chance.seed(7)
            while len(events) < 10000:
                number = chance.randrange(1, self.STATIONS + 1)
                events += leave(number) if number in where and chance.random() < 0.6 else arrive(number)
            with gw.recording("lanhost_event") as recorder:
                send_raw_events(gw, events)
                gw.settle_daemon()
                balance = {}
                for event in recorder.settle():
                    balance.setdefault(event["mac"].lower(), []).append(event["action"])
            hosts = gw.hosts()
            self.assertEqual({address: tuple(host[k] for k in ("IPAddress", "Port", "Active"))
                              for address, host in hosts.items()},
                             {mac(n): (f"192.168.1.{n}", port, "1") for n, port in where.items()})
            self.assertEqual(gw.entries(), len(where))
            for address, told in balance.items():
                self.assertNotIn(("Online", "Online"), list(zip(told, told[1:])), address)
                self.assertNotIn(("Offline", "Offline"), list(zip(told, told[1:])), address)
                self.assertEqual(told[-1] == "Online", address in hosts)
            memory.append(resident())
        self.assertEqual(gw.pid("daemon"), daemon)
        # Some pages come late; a station's node lost with each leave would be 200 kB a round.
        if "libasan" not in gw.exec("cat", f"/proc/{daemon}/maps"):
            self.assertLess(memory[-1] - memory[0], 256, memory)
        for number in list(where):
            send_raw_events(gw, leave(number))
        gw.settle_daemon()
        self.assertEqual((gw.hosts(), gw.entries()), ({}, 0))


if __name__ == "__main__":
    unittest.main()
