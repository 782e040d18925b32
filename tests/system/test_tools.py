"""The DHCP hook and ovanictl, fed with what nobody should send."""

import json
import unicodedata
import unittest

from gateway import GBK_NAME, HOSTS, Gateway, mac, setUpModule, wait_for  # noqa: F401

CARRIER = "InternetGatewayDevice.DeviceInfo.X_QV_Carrier"


class Hook(unittest.TestCase):
    def setUp(self):
        self.gateway = Gateway(without=["daemon", "dhcp"])
        self.addCleanup(self.gateway.close)

    def hook(self, *arguments, check=True, **environment):
        settings = [f"DNSMASQ_{name.upper()}=".encode() + value for name, value in environment.items()]
        return self.gateway.exec("env", *settings, "ovani-dhcp-hook", *arguments, check=check)

    def test_whatever_a_client_sends(self):
        gw = self.gateway
        sent_and_told = (
            (b"plain", b"MSFT 5.0", "plain", "MSFT 5.0", "Computer"),
            (b"Pixel", b"android-dhcp-14", "Pixel", "android-dhcp-14", "Phone"),
            (b'q"uo\'te\\{}', b"$(reboot) `id` %s", 'q"uo\'te\\{}', "$(reboot) `id` %s", ""),
            (b"a#b#DEL#c", b"#ADD6#", "a_b_DEL_c", "_ADD6_", ""),
            (b"tab\tnew\nline\x1b[2J\x7f", b"\r\n\x01", "tab_new_line_[2J_", "___", ""),
            (GBK_NAME.encode(), b"\xff\xfe", GBK_NAME, "\ufffd\ufffd", ""),
            (b"n" * 2000, b"v" * 60000, "n" * 255, "v" * 255, ""),
            (b"", b"", "from-lease", "", ""),
        )
        with gw.recording("dhcp_user_event") as recorder:
            for name, vendor, told_name, told_vendor, told_type in sent_and_told:
                with self.subTest(name=name[:20]):
                    self.hook("add", mac(1), "192.168.1.7", "from-lease", supplied_hostname=name, vendor_class=vendor,
                              time_remaining=b"600")
                    told = recorder.settle()[-1]
                    self.assertNotIn("#", told.pop("acknowledged"))
                    self.assertEqual(told, {
                        "event": "dhcp_user_event", "action": "ADD", "address": "192.168.1.7", "source": "DHCP",
                        "lease": "600", "name": told_name, "type": told_type, "vendor_class": told_vendor,
                        "mac": mac(1)})

    def test_a_lease_from_its_beginning_to_its_end(self):
        gw = self.gateway
        with gw.recording("dhcp_user_event") as recorder:
            def told():
                last = recorder.settle()[-1]
                return [last[name] for name in ("action", "lease", "name", "vendor_class", "type")]

            self.hook("add", mac(1), "192.168.1.7", supplied_hostname=b"pc", vendor_class=b"MSFT 5.0",
                      time_remaining=b"9")
            self.hook("old", mac(2), "192.168.1.8", "other", time_remaining=b"600")
            self.assertEqual(told(), ["ADD", "600", "other", "", ""], "one client's data is not another's")
            self.hook("old", mac(1), "192.168.1.7", "assigned", time_remaining=b"600")
            self.assertEqual(told(), ["ADD", "600", "pc", "MSFT 5.0", "Computer"])
            self.hook("old", mac(1), "192.168.1.7", supplied_hostname=b"pc2")
            self.assertEqual(told(), ["ADD", "-1", "pc2", "MSFT 5.0", "Computer"])
            self.hook("del", mac(1), "192.168.1.7", "assigned")
            self.assertEqual(told()[:2], ["DEL", "0"])
            self.hook("add", mac(1), "192.168.1.7", time_remaining=b"600")
            self.assertEqual(told(), ["ADD", "600", "", "", ""], "a new lease begins anew")

            count = len(recorder.settle())
            self.hook("add", "00:01:00:01:aa", "fd00::7", iaid=b"1")
            self.hook("tftp", "100", "192.168.1.7", "/file")
            for arguments in ((), ("add",), ("add", "02:00", "192.168.1.7"), ("add", mac(1), "192.168.1")):
                self.assertEqual(self.hook(*arguments, check=False).returncode, 2)
            self.assertEqual(len(recorder.settle()), count)
        gw("stop", "broker")
        self.assertEqual(self.hook("add", mac(1), "192.168.1.7", check=False).returncode, 1)


class Ctl(unittest.TestCase):
    def setUp(self):
        self.gateway = Gateway()
        self.addCleanup(self.gateway.close)

    def test_the_table_of_hosts(self):
        gw = self.gateway
        evil = b"\x1b[2J\x1b]0;x\x07\xe2\x80\xae\xc2\x9b31m"  # cursor, title, right-to-left, C1
        names = (GBK_NAME.encode(), b"plain", evil, "名" .encode() * 21)
        for number, name in enumerate(names, 1):
            gw.emit("mac", "add", mac(number), "--port", "eth1" if number > 1 else "rai0")
            gw.emit("arp", "add", f"192.168.1.{number}", mac(number))
            gw.emit("dhcp-text", b"d#ADD#192.168.1.%d#DHCP#t#600#%b#Phone##%b" % (number, name, mac(number).encode()))
        gw.settle_daemon()
        self.assertEqual(gw.host(mac(3))["name"].encode(), evil)
        self.assertEqual([gw.host(mac(n))["port"] for n in (1, 2)], ["Wi-Fi 5", "LAN2"])

        lines = gw.ctl("hosts").splitlines()
        self.assertEqual(len(lines), 1 + len(names))
        columns = set()
        for line in lines:
            self.assertFalse([c for c in line if unicodedata.category(c) in ("Cc", "Cf")])
            before = line[:line.index("MAC" if line is lines[0] else "02:00")]
            columns.add(sum(2 if unicodedata.east_asian_width(c) == "W" else 1 for c in before))
        self.assertEqual(len(columns), 1, lines)
        self.assertIn("\\x1B[2J", lines[3])
        self.assertIn("…", lines[4])

    def test_get_and_set(self):
        gw = self.gateway
        self.assertEqual(gw.get(CARRIER), "1")
        gw.ctl("set", CARRIER, "2")
        self.assertEqual(gw.get(CARRIER), "2")
        for path in ("InternetGatewayDevice.DeviceInfo", "InternetGatewayDevice.DeviceInfo."):
            self.assertIn(f"{CARRIER} = 2", gw.get(path).splitlines())
            self.assertEqual(json.loads(gw.ctl("get", "--json", path))[CARRIER], "2")
        for wrong in (("get", "InternetGatewayDevice.Nothing"), ("get", HOSTS + "Host.77."),
                      ("set", CARRIER, "x" * 300), ("set", HOSTS + "HostNumberOfEntries", "9"),
                      ("set", "InternetGatewayDevice.DeviceInfo.", "1"), ("emit", "mac", "add", "02:00"),
                      ("emit", "arp", "add", "1.2.3", mac(1)), ("emit", "raw", "x", "y", "0"),
                      ("emit", "raw", "x", "--json", "{"), ("--socket", "/none", "emit", "wan")):
            failed = gw.ctl(*wrong, check=False)
            self.assertEqual((failed.returncode, failed.stdout), (1, ""), wrong)
            self.assertTrue(failed.stderr.startswith("ovanictl: "), failed.stderr)
        for wrong in ((), ("none",), ("get",), ("emit", "mac", "maybe", mac(1)), ("hosts", "--events")):
            self.assertEqual(gw.ctl(*wrong, check=False).returncode, 2, wrong)
        for command in ((), ("hosts",), ("get",), ("set",), ("events",), ("emit",), ("emit", "raw"), ("sysmgr",)):
            self.assertIn("Usage: ovanictl", gw.ctl(*command, "--help"))

    def test_the_watched_table_follows(self):
        gw = self.gateway
        watching = gw.start_inside("ovanictl", "hosts", "--watch", "--events")
        try:
            self.assertIn("NAME", watching.stdout.readline())
            gw.emit("mac", "add", mac(1), "--port", "eth0")
            gw.emit("arp", "add", "192.168.1.10", mac(1))
            seen = ""
            while not ("192.168.1.10" in seen and "LAN1" in seen and "learned" in seen):
                line = watching.stdout.readline()
                self.assertTrue(line, seen)
                seen += line
        finally:
            watching.terminate()
            watching.communicate()


if __name__ == "__main__":
    unittest.main()
