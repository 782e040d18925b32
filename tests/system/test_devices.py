"""The road of a device, from the cable to its host object and back."""

from gateway import GatewayTest, mac, wait_for

LAYER2 = "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig."


class Devices(GatewayTest):
    def test_addresses_ports_and_leases_change(self):
        gw = self.up()
        gw("plug", "1", "laptop", "--mac", mac(1), "static", "192.168.1.10")
        gw("plug", "4", "other", "--mac", mac(4), "static", "192.168.1.14")
        host = gw.host_with(mac(1), IPAddress="192.168.1.10", AddressSource="STATIC", DeviceType="PC", HostName="",
                            LeaseTimeRemaining="0", Port="1", port="LAN1", Layer2Interface=LAYER2 + "1.", Active="1",
                            InterfaceType="Ethernet", ConnectionType="0", type="PC", active=True)
        gw.host_with(mac(4), Port="4")
        gw("client", "laptop", "ip", "address", "delete", "192.168.1.10/24", "dev", "eth0")
        gw("client", "laptop", "ip", "address", "add", "192.168.1.11/24", "dev", "eth0")
        gw.host_with(mac(1), IPAddress="192.168.1.11", AddressSource="STATIC", instance=host["instance"])

        gw("unplug", "laptop")
        with gw.recording("dhcp_user_event") as leases:
            gw("plug", "3", "laptop", "--mac", mac(1), "dhcp", "LAPTOP-1", "MSFT 5.0")
            leased = gw.host_with(mac(1), HostName="LAPTOP-1", X_QV_DeviceType="5", AddressSource="DHCP", Port="3",
                                  Layer2Interface=LAYER2 + "3.", LeaseTimeRemaining="600")
            self.assertEqual((gw.host(mac(4))["Port"], gw.entries()), ("4", 2))

            # A renewal brings neither name nor vendor class, and takes neither away.
            def renewed_once():
                gw("renew", "laptop")  # the server tells nobody when it is within the second of the last
                return len(leases.select(action="ADD")) > 1
            wait_for(renewed_once, "a renewed lease")
            self.assertEqual({(e["name"], e["vendor_class"]) for e in leases.events}, {("LAPTOP-1", "MSFT 5.0")})
            gw.settle_daemon()
            kept = ("instance", "HostName", "X_QV_DeviceType", "IPAddress")
            renewed = gw.host(mac(1))
            self.assertEqual([renewed[name] for name in kept], [leased[name] for name in kept])

            gw("release", "laptop")  # its cable stays
            gw.host_gone(mac(1))
            leases.wait(action="DEL")
        gw("unplug", "laptop")
        gw("plug", "2", "laptop", "--mac", mac(1), "dhcp", "LAPTOP-2", "MSFT 5.0")
        gw.host_with(mac(1), HostName="LAPTOP-2", AddressSource="DHCP", Port="2")

    def test_a_silent_device_ages_out(self):
        gw = self.up(ageing=1)
        gw("plug", "1", "printer", "--mac", mac(1), "--silent", "static", "192.168.1.10")
        gw("plug", "2", "talker", "--mac", mac(2), "static", "192.168.1.12")
        gw.host_with(mac(2), Active="1")
        gw.host_gone(mac(1))
        gw("client", "printer", "busybox", "ping", "-c", "1", "-W", "2", "192.168.1.1")
        gw.host_with(mac(1), IPAddress="192.168.1.10", Active="1")
