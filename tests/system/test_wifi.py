"""Wi-Fi stations, IPv6 hosts, a daemon that starts late, and the ARP probe."""

import time

from gateway import GatewayTest, mac, wait_for

WLAN = "InternetGatewayDevice.LANDevice.1.WLANConfiguration."


class Attached(GatewayTest):
    def test_stations_join_roam_and_leave(self):
        gw = self.up()
        with gw.recording("lanhost_event", "111") as recorder:
            gw("plug", "ra0", "tablet", "--mac", mac(1), "static", "192.168.1.61")
            gw("plug", "ra0", "phone", "--mac", mac(2), "dhcp", "phone", "android-dhcp-14")
            for number, source in ((1, "STATIC"), (2, "DHCP")):
                gw.host_with(mac(number), AddressSource=source, Port="1", port="SSID 1 (ra0)", Active="1",
                             Layer2Interface=WLAN + "1.", InterfaceType="802.11")

            # To the daemon a roaming station leaves and joins again.
            gw("roam", "phone", "rai0")
            roamed = gw.host_with(mac(2), Port="5", port="SSID 5 (rai0)", Layer2Interface=WLAN + "5.", HostName="phone",
                                  AddressSource="DHCP", X_QV_DeviceType="3", Active="1")
            recorder.wait(event="111", action="joined", mac=mac(2), ssid=4)
            self.assertEqual(recorder.presence(), {mac(1): ["Online"], mac(2): ["Online", "Offline", "Online"]})
            self.assertEqual([(e["action"], e["ssid"]) for e in recorder.select(event="111", mac=mac(2))],
                             [("joined", 0), ("left", 0), ("joined", 4)])
            self.assertEqual(gw.host(mac(1))["Port"], "1")

            # One that joins without having left moves, and was never away.
            gw.emit(("wifi", "join", mac(2), 0))
            self.assertEqual(len(recorder.presence()[mac(2)]), 3)
            changed = {k: v for k, v in gw.host(mac(2)).items() if roamed[k] != v and "Time" not in k and k != "since"}
            self.assertEqual(changed, {"Port": "1", "port": "SSID 1 (ra0)"})

            gw("unplug", "phone")
            gw.host_gone(mac(2))
            # Where the bridge still has it, it comes back to.
            gw("plug", "1", "phone", "--mac", mac(2), "static", "192.168.1.62")
            gw.host_with(mac(2), Port="1", IPAddress="192.168.1.62", InterfaceType="Ethernet")
            self.assertEqual(recorder.presence()[mac(2)], ["Online", "Offline", "Online", "Offline", "Online"])

    def test_a_daemon_that_starts_late(self):
        gw = self.up("daemon")
        devices = {}
        for number, port, shown, address, *how in (
                (1, "1", "LAN1", "192.168.1.11", "static", "192.168.1.11"),
                (2, "4", "LAN4", "192.168.1.100", "dhcp", "host-2", "android-dhcp-14"),
                (3, "rai0", "SSID 5 (rai0)", "192.168.1.13", "static", "192.168.1.13"),
                (4, "ra0", "SSID 1 (ra0)", "192.168.1.101", "dhcp", "host-4", "android-dhcp-14")):
            gw("plug", port, f"d{number}", "--mac", mac(number), "--silent", *how)
            wait_for(lambda: address in gw.exec("ip", "neigh", "show", "dev", "br0"), address)
            devices[mac(number)] = shown, address
        with gw.recording("lanhost_event") as recorder:
            gw("start", "daemon")
            wait_for(lambda: gw.log("watcher").count("announcing everything"), "the watcher to see the daemon")
            for each in devices:
                gw.host_with(each, Active="1", AddressSource="STATIC", DeviceType="PC", HostName="")
            time.sleep(1.1)  # dnsmasq tells of a renewal only if the lease then ends at another second
            for number in (2, 4):
                gw("renew", f"d{number}")
                gw.host_with(mac(number), AddressSource="DHCP", HostName=f"host-{number}", DeviceType="phone")
            self.assertEqual(recorder.presence(), dict.fromkeys(devices, ["Online"]))
        self.assertEqual({each: (host["port"], host["IPAddress"]) for each, host in gw.hosts().items()}, devices)
        self.assertEqual(gw.entries(), len(devices))

    def test_ipv6_addresses(self):
        gw = self.up()
        gw("plug", "1", "pc", "--mac", mac(1), "--ipv6", "dhcp", "pc")
        gw("plug", "2", "camera", "--mac", mac(2), "--link-local", "static", "192.168.1.12")
        gw("plug", "ra0", "phone", "--mac", mac(3), "--ipv6", "static", "192.168.1.13")
        gw("plug", "3", "printer", "--mac", mac(4), "static", "192.168.1.14")
        for number, has_global, has_local in ((1, True, True), (2, False, True), (3, True, True), (4, False, False)):
            host = gw.host_with(mac(number), IPv6Address=f"2001:db8:1::ff:fe0a:{number}" if has_global else "",
                                IPv6LLAddress=f"fe80::ff:fe0a:{number}" if has_local else "")
            shown = host["IPv6Address"] or host["IPv6LLAddress"] or "-"
            self.assertRegex(gw.ctl("hosts"), f"{mac(number)} .* {shown} ")
        self.assertEqual(gw.entries(), 4)

    def test_the_probe(self):
        gw = self.up()
        gw("plug", "1", "pc", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "ra0", "tablet", "--mac", mac(2), "static", "192.168.1.61")

        def probe(*commands):
            """What each says and its exit status; all run at once."""
            running = [gw.start_inside("ovanictl", "probe", *command.split()) for command in commands]
            return [(process.communicate(timeout=60)[0].strip(), process.returncode) for process in running]

        def cached():
            return gw.exec("ip", "neigh", "show", "192.168.1.61", "nud", "all").split()[-1:] not in ([], ["FAILED"])

        silent = "192.168.1.61 does not answer"
        self.assertEqual(probe("192.168.1.10", "192.168.1.61 --wifi"),
                         [("192.168.1.10 answers", 0), ("192.168.1.61 answers", 0)])
        self.assertEqual([status for _, status in probe("192.168.1.10 -i eth9", "no-address", "")], [1, 1, 2])

        gw("client", "tablet", "ip", "link", "set", "eth0", "arp", "off")
        self.assertEqual(probe("192.168.1.77", "192.168.1.61", "192.168.1.61 --wifi"),
                         [("192.168.1.77 does not answer", 3), (silent, 3),
                          (silent + ", but its station is associated", 3)])
        self.assertTrue(cached(), "neither a wired host's entry nor an associated station's is touched")
        gw("unplug", "tablet")
        gw.exec("rm", "/sbin")  # of the gateway's own root; ip and bridge are found elsewhere, arp is not
        self.assertEqual(probe("192.168.1.61 --wifi")[0][1], 3)
        self.assertTrue(cached(), "without arp it cannot be removed")
        gw.exec("ln", "-s", "usr/sbin", "/sbin")
        self.assertEqual(probe("192.168.1.61 --wifi"), [(silent + ", its station has left: ARP entry removed", 3)])
        self.assertFalse(cached())
