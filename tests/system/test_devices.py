"""The road of a device, from the cable to its host object and back."""

from gateway import HOSTS, OPERATORS, GatewayTest, mac, wait_for

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

    def test_visits_are_told_once_and_leaving_means_what_the_operator_says(self):
        kept_objects = set()
        visitors = {mac(1): ("1", "static", "192.168.1.10"), mac(2): ("2", "dhcp", "pc", "MSFT 5.0"),
                    mac(3): ("ra0", "dhcp", "phone", "android-dhcp-14")}
        for operator in OPERATORS:
            with self.subTest(operator=operator):
                gw = self.up(operator=operator)
                with gw.recording("lanhost_event") as recorder:
                    for visit in (1, 2):
                        for address, (port, *how) in visitors.items():
                            gw("plug", port, "v" + port, "--mac", address, *how)
                        here = {address: gw.host_with(address, Active="1", AddressSource=kind.upper(),
                                                      HostName=name if kind == "dhcp" else "")
                                for address, (_, kind, name, *_) in visitors.items()}
                        for address, (port, *how) in visitors.items():
                            gw("unplug", "v" + port)
                            recorder.wait(visit, mac=address.upper(), action="Offline")
                        self.assertEqual(recorder.presence(), dict.fromkeys(visitors, ["Online", "Offline"] * visit))
                told = {event["mac"].lower(): [event[k] for k in ("name", "attached", "port")]
                        for event in recorder.select(event="lanhost_event")}
                self.assertEqual(told, {mac(1): ["", "wired", 1], mac(2): ["pc", "wired", 2],
                                        mac(3): ["phone", "wireless", 0]})
                left = gw.hosts()
                self.assertEqual(gw.entries(), len(left))
                if left:
                    for address, host in left.items():
                        self.assertEqual([host[k] for k in ("instance", "HostName", "Active", "LeaseTimeRemaining")],
                                         [here[address]["instance"], here[address]["HostName"], "0", "0"])
                        self.assertGreaterEqual(int(host["LatestInactiveTime"]), int(here[address]["LatestActiveTime"]))
                # A deleted object's number goes to the next host.
                self.assertEqual(gw.bring(9), f"{HOSTS}Host.{len(left) + 1}.")
                kept_objects.add(len(left))
        self.assertEqual(kept_objects, {0, len(visitors)}, "some operators delete, some keep")
