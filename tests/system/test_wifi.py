"""IPv6 hosts and the ARP probe."""

from gateway import GatewayTest, mac


class Attached(GatewayTest):
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
