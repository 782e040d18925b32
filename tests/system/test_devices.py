"""The road of a device, from the cable to its host object and back."""

import unittest

from gateway import GBK_NAME, HOSTS, Gateway, mac, setUpModule, wait_for  # noqa: F401

LAYER2 = "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig."


class DevicesComeAndGo(unittest.TestCase):
    def setUp(self):
        self.gateway = Gateway()
        self.addCleanup(self.gateway.close)

    def test_a_fixed_address(self):
        gw = self.gateway
        gw("plug", "1", "printer", "--mac", mac(1), "static", "192.168.1.10")
        host = gw.host_with(mac(1), IPAddress="192.168.1.10", AddressSource="STATIC", DeviceType="PC", HostName="",
                            LeaseTimeRemaining="0", Port="1", Layer2Interface=LAYER2 + "1.", Active="1",
                            InterfaceType="Ethernet", ConnectionType="0")
        self.assertEqual((host["port"], host["type"], host["active"]), ("LAN1", "PC", True))
        self.assertEqual(gw.entries(), 1)

        gw("client", "printer", "ip", "address", "delete", "192.168.1.10/24", "dev", "eth0")
        gw("client", "printer", "ip", "address", "add", "192.168.1.11/24", "dev", "eth0")
        moved = gw.host_with(mac(1), IPAddress="192.168.1.11", AddressSource="STATIC")
        self.assertEqual(moved["instance"], host["instance"], "a new address is no new host")

        gw("unplug", "printer")
        gw.host_gone(mac(1))
        self.assertEqual(gw.entries(), 0)

    def test_leases(self):
        gw = self.gateway
        with gw.recording("dhcp_user_event") as leases:
            gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "DESKTOP-1", "MSFT 5.0")
            gw("plug", "3", "tv", "--mac", mac(3), "dhcp", GBK_NAME.encode("gbk"))
            gw("plug", "4", "phone", "--mac", mac(4), "dhcp", "Pixel-8", "android-dhcp-14")
            desktop = gw.host_with(mac(2), HostName="DESKTOP-1", X_QV_DeviceType="5", DeviceType="PC",
                                   AddressSource="DHCP", Port="2", Active="1", LeaseTimeRemaining="600")
            gw.host_with(mac(3), HostName=GBK_NAME, X_QV_DeviceType="0", AddressSource="DHCP", Port="3")
            gw.host_with(mac(4), HostName="Pixel-8", X_QV_DeviceType="3", DeviceType="phone", AddressSource="DHCP",
                         Port="4")
            self.assertEqual(gw.entries(), 3)

            # A renewal brings neither name nor vendor class, and takes neither away.
            def renewed_once():
                gw("renew", "desktop")  # the server tells nobody when it is within the second of the last
                return len(leases.select(mac=mac(2), action="ADD")) > 1
            wait_for(renewed_once, "a renewed lease")
            for lease in leases.select(mac=mac(2)):
                self.assertEqual((lease["name"], lease["vendor_class"]), ("DESKTOP-1", "MSFT 5.0"))
            gw.settle_daemon()
            renewed = gw.host(mac(2))
            self.assertEqual({k: renewed[k] for k in ("instance", "HostName", "X_QV_DeviceType", "IPAddress")},
                             {k: desktop[k] for k in ("instance", "HostName", "X_QV_DeviceType", "IPAddress")})

            gw("release", "phone")  # its cable stays
            gw.host_gone(mac(4))
            leases.wait(mac=mac(4), action="DEL")

        gw("unplug", "desktop")
        gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "DESKTOP-2", "MSFT 5.0")
        gw.host_with(mac(2), HostName="DESKTOP-2", AddressSource="DHCP")

    def test_a_device_changes_ports(self):
        gw = self.gateway
        gw("plug", "1", "laptop", "--mac", mac(1), "dhcp", "laptop")
        gw("plug", "4", "other", "--mac", mac(4), "static", "192.168.1.14")
        gw.host_with(mac(1), HostName="laptop", Port="1", Layer2Interface=LAYER2 + "1.")
        gw.host_with(mac(4), Port="4")
        gw("unplug", "laptop")
        gw("plug", "3", "laptop", "--mac", mac(1), "dhcp", "laptop")
        gw.host_with(mac(1), HostName="laptop", Port="3", Layer2Interface=LAYER2 + "3.", AddressSource="DHCP")
        self.assertEqual(gw.host(mac(4))["Port"], "4")
        self.assertEqual(gw.entries(), 2)

    def test_one_change_is_announced_once(self):
        gw = self.gateway
        gw("plug", "1", "printer", "--mac", mac(1), "--silent", "static", "192.168.1.10")
        gw("plug", "2", "desktop", "--mac", mac(2), "--silent", "dhcp", "desktop")
        first = gw.host_with(mac(1), Active="1")["instance"]
        second = gw.host_with(mac(2), HostName="desktop")["instance"]
        changes = (
            (("arp", "add", "192.168.1.77", mac(1)), first, {"IPAddress": "192.168.1.77"}),
            (("dhcp", "add", "192.168.1.78", mac(2), "--name", "new-name"), second, {"HostName": "new-name"}),
            (("arp", "add", "192.168.1.79", mac(1)), first, {"IPAddress": "192.168.1.79"}),
            (("mac", "del", mac(1)), first, None),
            (("dhcp", "del", "192.168.1.78", mac(2)), second, None),
        )
        for event, instance, outcome in changes:
            with self.subTest(event=event), gw.recording("lanhost_param_change") as recorder:
                gw.emit(*event)
                gw.settle_daemon()
                announced = recorder.settle()
                self.assertEqual([e["instance"] for e in announced], [instance])
                host = gw.host(event[2] if event[0] == "mac" else event[3])
                self.assertEqual(outcome is None, host is None)
                for name, value in (outcome or {}).items():
                    self.assertEqual(host[name], value)
        with gw.recording("lanhost_param_change") as recorder:
            gw.emit("arp", "del", "192.168.1.79", mac(1))
            gw.emit("mac", "del", mac(9))
            gw.settle_daemon()
            self.assertEqual(recorder.settle(), [], "nothing changed")


class OtherGateways(unittest.TestCase):
    def raise_gateway(self, **options):
        gateway = Gateway(**options)
        self.addCleanup(gateway.close)
        return gateway

    def test_a_silent_device_ages_out(self):
        gw = self.raise_gateway(ageing=1)
        gw("plug", "1", "printer", "--mac", mac(1), "--silent", "static", "192.168.1.10")
        gw("plug", "2", "talker", "--mac", mac(2), "static", "192.168.1.12")
        gw.host_with(mac(2), Active="1")
        gw.host_gone(mac(1))
        gw("client", "printer", "busybox", "ping", "-c", "1", "-W", "2", "192.168.1.1")
        gw.host_with(mac(1), IPAddress="192.168.1.10", Active="1")

    def test_other_operators_keep_the_object(self):
        for operator in ("cm", "cu"):
            with self.subTest(operator=operator):
                gw = self.raise_gateway(operator=operator)
                gw("plug", "2", "desktop", "--mac", mac(2), "dhcp", "desktop", "MSFT 5.0")
                host = gw.host_with(mac(2), HostName="desktop", Active="1")
                gw("unplug", "desktop")
                left = gw.host_with(mac(2), Active="0", LeaseTimeRemaining="0", HostName="desktop")
                self.assertGreaterEqual(int(left["LatestInactiveTime"]), int(host["LatestActiveTime"]))
                gw("plug", "3", "desktop", "--mac", mac(2), "dhcp", "desktop", "MSFT 5.0")
                back = gw.host_with(mac(2), Active="1", Port="3")
                self.assertEqual(back["instance"], host["instance"])
                self.assertEqual(gw.get(HOSTS + "HostNumberOfEntries"), "1")


if __name__ == "__main__":
    unittest.main()
