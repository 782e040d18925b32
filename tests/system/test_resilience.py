"""The daemon and the bus through crashes, restarts and hostile input."""

import json
import struct

from gateway import HOSTS, GatewayTest, mac, wait_for
from wire import INT32, STRING, UNSPEC, blobmsg, send_raw_event


class Restarts(GatewayTest):
    def test_the_daemon_is_killed_amid_events_and_finds_its_hosts(self):
        gw = self.up()
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
        wait_for(lambda: '"ovani": 4' in gw.exec("ubus", "call", "sysmgr", "list"), "each start to be reported ready")

        # The watcher tells the new daemon what there is, the next lease its name.
        wait_for(lambda: gw.log("watcher").count("announcing everything") >= 4, "the watcher to see the daemon")
        gw.emit(("arp", "add", "192.168.1.10", mac(1)),
                ("dhcp", "add", "192.168.1.101", mac(3), "--name", "phone-2", "--vendor-class", "android-dhcp-14"))
        gw.host_with(mac(1), IPAddress="192.168.1.10", AddressSource="STATIC")
        gw.host_with(mac(3), HostName="phone-2", AddressSource="DHCP", X_QV_DeviceType="3")
        after = gw.hosts()
        self.assertEqual({address: host["instance"] for address, host in after.items()},
                         {address: host["instance"] for address, host in before.items()})
        self.assertEqual((after[mac(2)]["HostName"], gw.entries()), ("desktop", 3))
        gw("unplug", "desktop")
        gw.host_gone(mac(2))
        self.assertEqual(gw.entries(), 2)

    def test_the_broker_is_killed_and_restarted(self):
        gw = self.up("broker")
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        self.assertEqual(gw.hosts(), {})
        gw("start", "broker")
        gw.host_with(mac(1), IPAddress="192.168.1.10", Active="1")
        gw("plug", "2", "desktop", "--mac", mac(2), "--silent", "dhcp", "desktop", "MSFT 5.0")
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
        kept = ("instance", "HostName", "AddressSource", "LatestActiveTime")
        self.assertEqual([after[name] for name in kept], [before[name] for name in kept])
        with gw.recording("lanhost_param_change") as recorder:
            gw.emit(("dhcp", "add", after["IPAddress"], mac(2), "--name", "renamed"))
            recorder.wait(instance=after["instance"])
        gw.host_with(mac(2), HostName="renamed")


class HostileInput(GatewayTest):
    def test_the_daemon_serves_on_and_the_store_stays_as_it_was(self):
        gw = self.up()
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "desktop", "MSFT 5.0")
        gw.host_with(mac(2), HostName="desktop")
        gw.host_with(mac(1), Active="1")
        gw.settle_daemon()
        before = gw.get(HOSTS)

        colonless = mac(1).replace(":", "")
        for kind in gw.table("events", "--list"):
            event, attribute, size = (kind[name] for name in ("event", "attribute", "bytes"))
            if size:
                gw.emit(*(("raw", event, attribute, "41" * length) for length in (0, 1, size // 2, size - 1)),
                        ("raw", event, attribute, "ff" * 30000),
                        ("raw", event, attribute, "ff" * size),  # no text is terminated, no action known
                        ("raw", event, "other_struct", "00" * size),
                        ("raw", event, "--json", f'{{"{attribute}":"text"}}'),
                        ("raw", event, "--json", f'{{"{attribute}":{{"a":[1,2,{{"b":null}}]}}}}'),
                        ("raw", event))
        gw.emit(("mac", "del", mac(1), "--bridge", "br00"), ("mac", "del", mac(1), "--bridge", "BR0"),
                ("arp", "add", "192.168.1.66", mac(1), "--bridge", "br1"),
                ("raw", "109", "mac_struct", "00000000" + "00" * 32 + b"br0".hex() + "00" * 13 + colonless + "02"),
                ("raw", "112", "mac_struct", "00" * 60), ("wan",),
                ("raw", "dhcp_user_event", "dhcp_user_string", "41" * 100),
                ("raw", "dhcp_user_event", "--json", '{"dhcp_user_string":7}'), ("raw", "dhcp_user_event"))
        gw.emit(*(("dhcp-text", text) for text in (
            "", "#", "x" * 60000, "#" * 60000, "dhcpd#ADD#192.168.1.77#DHCP#t#600#name#PC#class",
            f"dhcpd#EAT#192.168.1.77#DHCP#t#600#name#PC#class#{mac(1)}",
            f"dhcpd#ADD#192.168.1.77#DHCP#t#600#name#PC#class#{mac(1)}-and-more",
            f"dhcpd#DEL#192.168.1.10#DHCP#t#600#name#PC#class#{'zz' * 3000}",
            f"#NB6ADD#ULA#fd00::1#{mac(1)}", f"#NB6DEL#GUA#fd00::1#{mac(1)}", "#ADD6#", "#NB6ADD#GUA#")))

        with gw.recording("test.raw") as recorder:
            send_raw_event(gw, "test.raw", blobmsg(STRING, "sound", b"text\0"))
            recorder.wait(event="test.raw", message='{"sound":"text"}')
        lease = f"dhcpd#DEL#192.168.1.10#DHCP#t#600#n#PC#c#{mac(1)}".encode()
        send_raw_event(gw, "dhcp_user_event", blobmsg(STRING, "dhcp_user_string", lease))  # no terminator
        send_raw_event(gw, "109", b"\xff" * 64)
        send_raw_event(gw, "110", struct.pack(">I", 0x80000000 | 0xFFFFFF) + b"arp")
        send_raw_event(gw, "106", blobmsg(INT32, "port_status_struct", b"\1"))
        send_raw_event(gw, "109", blobmsg(UNSPEC, "m" * 4000, b"\0" * 60))

        gw.settle_daemon()
        self.assertEqual(gw.get(HOSTS), before)
        gw("plug", "3", "late", "--mac", mac(3), "static", "192.168.1.13")
        gw.host_with(mac(3), IPAddress="192.168.1.13")
