"""The daemon and the bus through crashes, restarts and hostile input."""

import struct
import unittest

from gateway import HOSTS, Gateway, mac, setUpModule, wait_for  # noqa: F401
from wire import INT32, STRING, blobmsg, send_raw_event


class Restarts(unittest.TestCase):
    def raise_gateway(self, **options):
        self.gateway = Gateway(**options)
        self.addCleanup(self.gateway.close)
        return self.gateway

    def test_the_daemon_is_killed_amid_events_and_finds_its_hosts(self):
        gw = self.raise_gateway()
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "desktop", "MSFT 5.0")
        gw("plug", "3", "phone", "--mac", mac(3), "dhcp", "phone", "android-dhcp-14")
        gw.host_with(mac(2), HostName="desktop")
        gw.host_with(mac(3), HostName="phone")
        gw.host_with(mac(1), Active="1")
        before = gw.hosts()

        stream = gw.start_inside("bash", "-c", f"""
            for ((i = 0; ; i++)); do
                ovanictl emit arp add 192.168.1.$((20 + i % 200)) {mac(1)}
                ovanictl emit dhcp add 192.168.1.101 {mac(3)} --name phone --vendor-class android-dhcp-14
                echo $i
            done""")
        try:
            for _ in range(3):
                for _ in range(10):
                    stream.stdout.readline()
                gw("kill", "daemon")
                gw("start", "daemon")
        finally:
            stream.terminate()
            stream.communicate()

        # The watcher tells the new daemon what there is, the next lease its name.
        wait_for(lambda: gw.log("watcher").count("announcing everything") >= 4, "the watcher to see the daemon")
        gw.emit("arp", "add", "192.168.1.10", mac(1))
        gw.emit("dhcp", "add", "192.168.1.101", mac(3), "--name", "phone-2", "--vendor-class", "android-dhcp-14")
        gw.host_with(mac(1), IPAddress="192.168.1.10", AddressSource="STATIC")
        gw.host_with(mac(3), HostName="phone-2", AddressSource="DHCP", X_QV_DeviceType="3")
        after = gw.hosts()
        self.assertEqual({address: host["instance"] for address, host in after.items()},
                         {address: host["instance"] for address, host in before.items()})
        self.assertEqual(after[mac(2)]["HostName"], "desktop")
        self.assertEqual(gw.entries(), 3)
        gw("unplug", "desktop")
        gw.host_gone(mac(2))
        self.assertEqual(gw.entries(), 2)

    def test_the_broker_is_killed_and_restarted(self):
        gw = self.raise_gateway()
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "2", "desktop", "--mac", mac(2), "--silent", "dhcp", "desktop", "MSFT 5.0")
        gw.host_with(mac(1), Active="1")
        before = gw.host_with(mac(2), HostName="desktop", AddressSource="DHCP")
        daemon = gw.pid("daemon")

        gw.exec("kill", "-STOP", daemon)  # it will be the last to come back
        gw("kill", "broker")
        gw("unplug", "printer")  # while nobody can be told
        gw("plug", "3", "late", "--mac", mac(3), "static", "192.168.1.13")
        self.assertIsNotNone(gw.host(mac(1)))
        gw("start", "broker")
        wait_for(lambda: gw.log("watcher").endswith("on the bus\nno daemon on the bus\n"), "the watcher to be back")
        gw.exec("kill", "-CONT", daemon)

        gw.host_gone(mac(1))
        gw.host_with(mac(3), IPAddress="192.168.1.13", Port="3")
        # Its tables are what they were: an address it knows from a lease is confirmed, not taken for a fixed one.
        gw.settle_daemon()
        after = gw.host(mac(2))
        self.assertEqual([after[k] for k in ("instance", "HostName", "AddressSource", "LatestActiveTime")],
                         [before[k] for k in ("instance", "HostName", "AddressSource", "LatestActiveTime")])
        self.assertEqual(gw.pid("daemon"), daemon)
        with gw.recording("lanhost_param_change") as recorder:
            gw.emit("dhcp", "add", after["IPAddress"], mac(2), "--name", "renamed")
            recorder.wait(instance=after["instance"])
        gw.host_with(mac(2), HostName="renamed")

    def test_no_broker_at_first(self):
        gw = self.raise_gateway(without=["broker"])
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        self.assertEqual(gw.hosts(), {})
        gw("start", "broker")
        gw.host_with(mac(1), IPAddress="192.168.1.10")
        gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "desktop")
        gw.host_with(mac(2), HostName="desktop")

    def test_it_reports_ready(self):
        gw = self.raise_gateway()
        wait_for(lambda: '"ovani": 1' in gw.exec("ubus", "call", "sysmgr", "list"), "the daemon's report")
        gw("stop", "daemon")
        gw("start", "daemon")
        wait_for(lambda: '"ovani": 2' in gw.exec("ubus", "call", "sysmgr", "list"), "its second report")


# --- hostile input ----------------------------------------------------------------------------------------------

class HostileInput(unittest.TestCase):
    def test_the_daemon_serves_on_and_the_store_stays_as_it_was(self):
        gw = Gateway()
        self.addCleanup(gw.close)
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "desktop", "MSFT 5.0")
        gw.host_with(mac(2), HostName="desktop")
        gw.host_with(mac(1), Active="1")
        gw.settle_daemon()
        before, daemon = gw.get(HOSTS), gw.pid("daemon")

        colonless = mac(1).replace(":", "")
        records = {"109": ("mac_struct", 59), "110": ("arp_struct", 82), "106": ("port_status_struct", 6),
                   "111": ("wifi_user_struct", 12)}
        for event, (attribute, size) in records.items():
            for length in (0, 1, size // 2, size - 1):
                gw.emit("raw", event, attribute, "41" * length)
            gw.emit("raw", event, attribute, "ff" * 30000)
            gw.emit("raw", event, attribute, "ff" * size)  # no text is terminated, no action known
            gw.emit("raw", event, "other_struct", "00" * size)
            gw.emit("raw", event, "--json", f'{{"{attribute}":"text"}}')
            gw.emit("raw", event, "--json", f'{{"{attribute}":{{"a":[1,2,{{"b":null}}]}}}}')
            gw.emit("raw", event)
        gw.emit("mac", "del", mac(1), "--bridge", "br00")
        gw.emit("mac", "del", mac(1), "--bridge", "BR0")
        gw.emit("arp", "add", "192.168.1.66", mac(1), "--bridge", "br1")
        gw.emit("raw", "109", "mac_struct", "00000000" + "00" * 32 + b"br0".hex() + "00" * 13 + colonless + "02")
        gw.emit("raw", "112", "mac_struct", "00" * 60)
        for text in ("", "#", "x" * 60000, "#" * 60000, "dhcpd#ADD#192.168.1.77#DHCP#t#600#name#PC#class",
                     f"dhcpd#EAT#192.168.1.77#DHCP#t#600#name#PC#class#{mac(1)}",
                     f"dhcpd#ADD#192.168.1.77#DHCP#t#600#name#PC#class#{mac(1)}-and-more",
                     f"dhcpd#DEL#192.168.1.10#DHCP#t#600#name#PC#class#{'zz' * 3000}",
                     f"#NB6ADD#ULA#fd00::1#{mac(1)}", f"#NB6DEL#GUA#fd00::1#{mac(1)}", "#ADD6#", "#NB6ADD#GUA#"):
            gw.emit("dhcp-text", text)
        gw.emit("raw", "dhcp_user_event", "dhcp_user_string", "41" * 100)
        gw.emit("raw", "dhcp_user_event", "--json", '{"dhcp_user_string":7}')
        gw.emit("raw", "dhcp_user_event")
        gw.emit("wan")

        lease = f"dhcpd#DEL#192.168.1.10#DHCP#t#600#n#PC#c#{mac(1)}".encode()
        with gw.recording("test.raw") as recorder:
            send_raw_event(gw, "test.raw", blobmsg(STRING, "sound", b"text\0"))
            recorder.wait(event="test.raw", message='{"sound":"text"}')
        send_raw_event(gw, "dhcp_user_event", blobmsg(STRING, "dhcp_user_string", lease))  # no terminator
        send_raw_event(gw, "109", b"\xff" * 64)
        send_raw_event(gw, "110", struct.pack(">I", 0x80000000 | 0xFFFFFF) + b"arp")
        send_raw_event(gw, "106", blobmsg(INT32, "port_status_struct", b"\1"))
        send_raw_event(gw, "109", blobmsg(0, "m" * 4000, b"\0" * 60))

        gw.settle_daemon()
        self.assertEqual(gw.get(HOSTS), before)
        self.assertEqual(gw.pid("daemon"), daemon)
        gw.exec("kill", "-0", daemon)
        gw("plug", "3", "late", "--mac", mac(3), "static", "192.168.1.13")
        gw.host_with(mac(3), IPAddress="192.168.1.13")


if __name__ == "__main__":
    unittest.main()
