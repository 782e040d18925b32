"""Wi-Fi stations, IPv6 hosts, presence, a daemon that starts late, and the ARP probe."""

import time
import unittest

from gateway import Gateway, mac, setUpModule, wait_for  # noqa: F401

WLAN = "InternetGatewayDevice.LANDevice.1.WLANConfiguration."


class Attached(unittest.TestCase):
    def raise_gateway(self, **options):
        self.gateway = Gateway(**options)
        self.addCleanup(self.gateway.close)
        return self.gateway

    @staticmethod
    def presence(recorder):
        """What was announced of each host, in order."""
        told = {}
        for event in recorder.settle():
            if event["event"] == "lanhost_event":
                told.setdefault(event["mac"].lower(), []).append(event["action"])
        return told

    def test_stations_join_roam_and_leave(self):
        gw = self.raise_gateway()
        with gw.recording("lanhost_event", "111") as recorder:
            gw("plug", "ra0", "tablet", "--mac", mac(1), "static", "192.168.1.61")
            gw("plug", "ra0", "phone", "--mac", mac(2), "dhcp", "phone", "android-dhcp-14")
            gw("plug", "2", "printer", "--mac", mac(3), "static", "192.168.1.12")
            for number, address, source in ((1, "192.168.1.61", "STATIC"), (2, "192.168.1.100", "DHCP")):
                host = gw.host_with(mac(number), IPAddress=address, AddressSource=source, Port="1", Active="1",
                                    Layer2Interface=WLAN + "1.", InterfaceType="802.11")
                self.assertEqual(host["port"], "Wi-Fi 1")
            gw.host_with(mac(3), Port="2", InterfaceType="Ethernet")

            # To the daemon a roaming station leaves and joins again.
            gw("roam", "phone", "rai0")
            roamed = gw.host_with(mac(2), Port="5", Layer2Interface=WLAN + "5.", HostName="phone",
                                  AddressSource="DHCP", X_QV_DeviceType="3", Active="1")
            self.assertEqual(roamed["port"], "Wi-Fi 5")
            recorder.wait(event="111", action="joined", mac=mac(2), ssid=4)
            gw.settle_daemon()
            self.assertEqual([(e["action"], e["ssid"]) for e in recorder.select(event="111", mac=mac(2))],
                             [("joined", 0), ("left", 0), ("joined", 4)])
            self.assertEqual(self.presence(recorder), {
                mac(1): ["Online"], mac(2): ["Online", "Offline", "Online"], mac(3): ["Online"]})
            self.assertEqual(gw.host(mac(1))["Port"], "1")

            # One that joins without having left moves, and was never away.
            gw.emit("wifi", "join", mac(2), "0")
            gw.settle_daemon()
            self.assertEqual({k: v for k, v in gw.host(mac(2)).items() if "Time" not in k and k != "since"},
                             {k: v for k, v in roamed.items() if "Time" not in k and k != "since"} |
                             {"Port": "1", "port": "Wi-Fi 1"})
            self.assertEqual(len(self.presence(recorder)[mac(2)]), 3)

            gw("unplug", "phone")
            gw.host_gone(mac(2))
            self.assertEqual(self.presence(recorder)[mac(2)], ["Online", "Offline", "Online", "Offline"])
            # Where the bridge still has it, it comes back to.
            gw("plug", "1", "phone", "--mac", mac(2), "static", "192.168.1.62")
            gw.host_with(mac(2), Port="1", IPAddress="192.168.1.62", InterfaceType="Ethernet")
            self.assertEqual(gw.entries(), 3)

    def test_a_visit_is_told_once_whichever_operator(self):
        for operator in ("ct", "cm"):
            with self.subTest(operator=operator):
                gw = self.raise_gateway(operator=operator)
                visitors = {mac(1): ("1", "static", "192.168.1.10"), mac(2): ("2", "dhcp", "pc", "MSFT 5.0"),
                            mac(3): ("ra0", "dhcp", "phone", "android-dhcp-14")}
                with gw.recording("lanhost_event") as recorder:
                    for visit in (1, 2):
                        for address, (port, *how) in visitors.items():
                            gw("plug", port, "v" + port, "--mac", address, *how)
                        for address, (_, kind, name, *_) in visitors.items():
                            gw.host_with(address, Active="1", AddressSource=kind.upper(),
                                         HostName=name if kind == "dhcp" else "")
                        for address, (port, *_) in visitors.items():
                            gw("unplug", "v" + port)
                            recorder.wait(visit, mac=address.upper(), action="Offline")
                        gw.settle_daemon()
                        self.assertEqual(self.presence(recorder),
                                         dict.fromkeys(visitors, ["Online", "Offline"] * visit))
                        gone = [host["Active"] for host in gw.hosts().values()]
                        self.assertEqual(gone, [] if operator == "ct" else ["0"] * 3)

    def test_a_pulled_cable_retires_its_own_hosts(self):
        gw = self.raise_gateway(without=["watcher", "dhcp"])
        places = ("eth1", "eth1", "eth2", "ra1", "rai0")
        gw.daemon_ready()
        with gw.recording("lanhost_event") as recorder:
            for number, interface in enumerate(places, 1):
                gw.emit("mac", "add", mac(number), "--port", interface)
                gw.emit("arp", "add", f"192.168.1.{number}", mac(number))
            gw.settle_daemon()
            self.assertEqual([gw.host(mac(n))["port"] for n in range(1, 6)],
                             ["LAN2", "LAN2", "LAN3", "Wi-Fi 2", "Wi-Fi 5"])
            recorder.events.clear()
            gw.emit("port", "down", "2")
            gw.settle_daemon()
            self.assertEqual(self.presence(recorder), {mac(1): ["Offline"], mac(2): ["Offline"]})
            self.assertEqual(sorted(gw.hosts()), [mac(3), mac(4), mac(5)])
            told = recorder.select(mac=mac(2).upper())[0]
            self.assertEqual([told[k] for k in ("address", "attached", "port")], ["192.168.1.2", "wired", 2])

    def test_a_daemon_that_starts_late(self):
        gw = self.raise_gateway(without=["daemon"])
        devices = {}  # by MAC: port, address
        for number, port in enumerate(("1", "2", "3", "4", "ra0", "ra0", "ra0", "rai0", "rai0", "rai0")):
            leased = number % 2
            address = f"192.168.1.{100 + number // 2 if leased else 10 + number}"
            how = ("dhcp", f"host-{number}", "android-dhcp-14") if leased else ("static", address)
            gw("plug", port, f"d{number}", "--mac", mac(number), "--silent", *how)
            wait_for(lambda: address in gw.exec("ip", "neigh", "show", "dev", "br0"), address)
            devices[mac(number)] = {"1": "LAN1", "2": "LAN2", "3": "LAN3", "4": "LAN4", "ra0": "Wi-Fi 1",
                                    "rai0": "Wi-Fi 5"}[port], address
        with gw.recording("lanhost_event") as recorder:
            gw("start", "daemon")
            wait_for(lambda: gw.log("watcher").count("announcing everything"), "the watcher to see the daemon")
            for number, address in enumerate(devices):
                gw.host_with(address, Active="1", IPAddress=devices[address][1], AddressSource="STATIC",
                             DeviceType="PC", HostName="")
            gw.settle_daemon()
            self.assertEqual({address: (host["port"], host["IPAddress"]) for address, host in gw.hosts().items()},
                             devices)
            self.assertEqual(self.presence(recorder), dict.fromkeys(devices, ["Online"]))
            time.sleep(1.1)  # dnsmasq tells of a renewal only if the lease then ends at another second
            for number in range(1, 10, 2):
                gw("renew", f"d{number}")
                host = gw.host_with(mac(number), AddressSource="DHCP", HostName=f"host-{number}", DeviceType="phone")
                self.assertEqual((host["port"], host["IPAddress"]), devices[mac(number)])
            self.assertEqual(self.presence(recorder), dict.fromkeys(devices, ["Online"]))
        self.assertEqual(gw.entries(), 10)

    def test_ipv6_addresses(self):
        gw = self.raise_gateway()
        gw("plug", "1", "pc", "--mac", mac(1), "--ipv6", "dhcp", "pc")
        gw("plug", "2", "camera", "--mac", mac(2), "--link-local", "static", "192.168.1.12")
        gw("plug", "ra0", "phone", "--mac", mac(3), "--ipv6", "static", "192.168.1.13")
        gw("plug", "3", "printer", "--mac", mac(4), "static", "192.168.1.14")
        interface_id = "ff:fe0a:{}"
        for number, has_global, has_local in ((1, True, True), (2, False, True), (3, True, True), (4, False, False)):
            rest = interface_id.format(number)
            host = gw.host_with(mac(number), IPv6Address=f"2001:db8:1::{rest}" if has_global else "",
                                IPv6LLAddress=f"fe80::{rest}" if has_local else "")
            shown = host["IPv6Address"] or host["IPv6LLAddress"] or "-"
            self.assertRegex(gw.ctl("hosts"), f"{mac(number)} .* {shown} ")
        self.assertEqual(gw.entries(), 4)

    def test_the_probe(self):
        gw = self.raise_gateway()
        gw("plug", "1", "pc", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "ra0", "tablet", "--mac", mac(2), "static", "192.168.1.61")

        def probe(*arguments):
            done = gw.ctl("probe", *arguments, check=False)
            return done.returncode, done.stdout.strip()

        def cached():
            return gw.exec("ip", "neigh", "show", "192.168.1.61", "nud", "all").split()[-1:] not in ([], ["FAILED"])

        self.assertEqual(probe("192.168.1.10"), (0, "192.168.1.10 answers"))
        self.assertEqual(probe("192.168.1.61", "--wifi"), (0, "192.168.1.61 answers"))
        self.assertEqual(probe("192.168.1.77"), (3, "192.168.1.77 does not answer"))
        self.assertEqual([probe("192.168.1.10", "-i", "eth9")[0], probe("no address")[0], probe()[0]], [1, 1, 2])

        gw("client", "tablet", "ip", "link", "set", "eth0", "arp", "off")
        self.assertEqual(probe("192.168.1.61", "--wifi"),
                         (3, "192.168.1.61 does not answer, but its station is associated"))
        gw("unplug", "tablet")
        self.assertEqual(probe("192.168.1.61"), (3, "192.168.1.61 does not answer"))
        self.assertTrue(cached(), "a wired host's entry is not touched")
        gw.exec("rm", "/sbin")  # of the gateway's own root; ip and bridge are found elsewhere
        self.assertEqual(probe("192.168.1.61", "--wifi")[0], 3)
        self.assertTrue(cached(), "without arp it cannot be removed")
        gw.exec("ln", "-s", "usr/sbin", "/sbin")
        self.assertEqual(probe("192.168.1.61", "--wifi"),
                         (3, "192.168.1.61 does not answer, its station has left: ARP entry removed"))
        self.assertFalse(cached())


if __name__ == "__main__":
    unittest.main()
