"""The DHCP hook and ovanictl, fed with what nobody should send."""

import base64
import json
import os
import time
import unicodedata
from datetime import datetime

from gateway import GBK_NAME, HOSTS, GatewayTest, mac

CARRIER = "InternetGatewayDevice.DeviceInfo.X_QV_Carrier"


class Hook(GatewayTest):
    def setUp(self):
        self.gateway = self.up("daemon", "dhcp")

    def hook(self, *arguments, check=True, **environment):
        settings = [f"DNSMASQ_{name.upper()}=".encode() + value for name, value in environment.items()]
        return self.gateway.exec("env", *settings, "ovani-dhcp-hook", *arguments, check=check)

    def test_whatever_a_client_sends(self):
        with self.gateway.recording("dhcp_user_event") as recorder:
            for name, vendor, told_name, told_vendor, told_type in (
                    (b"plain", b"MSFT 5.0", "plain", "MSFT 5.0", "Computer"),
                    (b"Pixel", b"android-dhcp-14", "Pixel", "android-dhcp-14", "Phone"),
                    (b'q"uo\'te\\{}', b"$(reboot) `id` %s", 'q"uo\'te\\{}', "$(reboot) `id` %s", ""),
                    (b"a#b#DEL#c", b"#ADD6#", "a_b_DEL_c", "_ADD6_", ""),
                    (b"tab\tnew\nline\x1b[2J\x7f", b"\r\n\x01", "tab_new_line_[2J_", "___", ""),
                    (GBK_NAME.encode(), b"\xff\xfe", GBK_NAME, "\ufffd\ufffd", ""),
                    (b"n" * 2000, b"v" * 60000, "n" * 255, "v" * 255, ""),
                    (b"", b"", "from-lease", "", "")):
                self.hook("add", mac(1), "192.168.1.7", "from-lease", supplied_hostname=name, vendor_class=vendor,
                          time_remaining=b"600")
                [told] = recorder.take()
                self.assertRegex(told.pop("acknowledged"), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")
                self.assertEqual(told, {
                    "event": "dhcp_user_event", "action": "ADD", "address": "192.168.1.7", "source": "DHCP",
                    "lease": "600", "name": told_name, "type": told_type, "vendor_class": told_vendor,
                    "mac": mac(1)})

    def test_a_lease_from_its_beginning_to_its_end(self):
        here, there = (mac(1), "192.168.1.7"), (mac(2), "192.168.1.8")
        named = {"supplied_hostname": b"pc", "vendor_class": b"MSFT 5.0"}
        with self.gateway.recording("dhcp_user_event") as recorder:
            for arguments, environment, told in (
                    (("add", *here), named | {"time_remaining": b"9"}, ["ADD", "9", "pc", "MSFT 5.0", "Computer"]),
                    # One client's data is not another's.
                    (("old", *there, "other"), {"time_remaining": b"600"}, ["ADD", "600", "other", "", ""]),
                    (("old", *here, "assigned"), {"time_remaining": b"600"},
                     ["ADD", "600", "pc", "MSFT 5.0", "Computer"]),
                    (("old", *here), {"supplied_hostname": b"pc2"}, ["ADD", "-1", "pc2", "MSFT 5.0", "Computer"]),
                    (("del", *here, "assigned"), {}, ["DEL", "0", "pc2", "MSFT 5.0", "Computer"]),
                    # A new lease begins anew.
                    (("add", *here), {"time_remaining": b"600"}, ["ADD", "600", "", "", ""])):
                self.hook(*arguments, **environment)
                [event] = recorder.take()
                self.assertEqual([event[name] for name in ("action", "lease", "name", "vendor_class", "type")], told)
            self.hook("add", "00:01:00:01:aa", "fd00::7", iaid=b"1")
            self.hook("tftp", "100", "192.168.1.7", "/file")
            for arguments in ((), ("add",), ("add", "02:00", "192.168.1.7"), ("add", mac(1), "192.168.1")):
                self.assertEqual(self.hook(*arguments, check=False).returncode, 2)
            self.assertEqual(recorder.take(), [])
        self.gateway("stop", "broker")
        self.assertEqual(self.hook("add", *here, check=False).returncode, 1)


class Ctl(GatewayTest):
    def test_the_table_of_hosts(self):
        gw = self.up("watcher", "dhcp")
        evil = b"\x1b[2J\x1b]0;x\x07\xe2\x80\xae\xc2\x9b31m"  # cursor, title, right-to-left, C1
        names = {GBK_NAME.encode(): GBK_NAME, b"plain": "plain", evil: evil.decode(), "名".encode() * 21: "名" * 21,
                 b"n" * 500: "n" * 127, "电".encode() * 166 + b"nn": "电" * 42 + "\ufffd"}
        for number, name in enumerate(names, 1):
            gw.bring(number, "eth1" if number > 1 else "rai0")
            gw.emit(("dhcp-text", b"d#ADD#192.168.1.%d#DHCP#t#600#%b#%b#%b#%b" % (
                number, name, b"t" * len(name), b"c" * len(name), mac(number).encode())))
        gw.settle_daemon()
        hosts = gw.hosts()
        self.assertEqual([host["name"] for host in hosts.values()], list(names.values()))
        self.assertEqual([hosts[mac(n)]["port"] for n in (1, 2)], ["SSID 5 (rai0)", "LAN2"])

        lines = gw.ctl("hosts").splitlines()
        self.assertEqual(len(lines), 1 + len(names))
        columns = set()
        for line in lines:
            self.assertFalse([c for c in line if unicodedata.category(c) in ("Cc", "Cf")])
            before = line[:line.index("MAC" if line is lines[0] else "02:00")]
            columns.add(sum(2 if unicodedata.east_asian_width(c) == "W" else 1 for c in before))
        self.assertEqual(len(columns), 1, lines)
        self.assertIn("\\x1B[2J", lines[3])
        self.assertEqual(gw.ctl("hosts", "-o", "port,NAME").splitlines()[1].split(), ["SSID", "5", "(rai0)", GBK_NAME])

    def test_commands_right_and_wrong(self):
        gw = self.up("daemon", "watcher", "dhcp")
        failed = gw.ctl("get", CARRIER, check=False)
        self.assertRegex(failed.stderr, "^ovanictl: no store at .*\n$")
        self.assertNotIn("store.db", " ".join(os.listdir(gw.state)), "who looks makes nothing")
        gw.ctl("set", CARRIER, "2")
        self.assertEqual(gw.get(CARRIER), "2")
        for path in ("InternetGatewayDevice.DeviceInfo", "InternetGatewayDevice.DeviceInfo."):
            self.assertIn(f"{CARRIER} = 2", gw.get(path).splitlines())
            self.assertEqual(json.loads(gw.ctl("get", "--json", path))["parameters"][CARRIER], "2")
        for wrong in (("get", "InternetGatewayDevice.Nothing"), ("get", HOSTS + "Host.77."),
                      ("set", CARRIER, "x" * 300), ("set", HOSTS + "HostNumberOfEntries", "9"),
                      ("set", "InternetGatewayDevice.DeviceInfo.", "1"), ("emit", "mac", "add", "02:00"),
                      ("emit", "arp", "add", "1.2.3", mac(1)), ("emit", "raw", "x", "y", "0"),
                      ("emit", "raw", "x", "--json", "{"), ("--socket", "/none", "emit", "wan")):
            failed = gw.ctl(*wrong, check=False)
            self.assertEqual((failed.returncode, failed.stdout), (1, ""), wrong)
            self.assertTrue(failed.stderr.startswith("ovanictl: "), failed.stderr)
        for wrong in ((), ("none",), ("get",), ("emit",), ("emit", "mac", "maybe", mac(1)), ("hosts", "-o", "X")):
            self.assertEqual(gw.ctl(*wrong, check=False).returncode, 2, wrong)
        for command in ((), ("hosts",), ("get",), ("set",), ("events",), ("emit",), ("emit", "raw"), ("sysmgr",)):
            self.assertIn("Usage: ovanictl", gw.ctl(*command, "--help"))

    def test_events_are_folded_and_named(self):
        gw = self.up("watcher", "dhcp")
        gw.bring(1)
        gw.ctl("host", mac(1), "set", "alias=TV")
        unknown = gw.ctl("events", "nothing", check=False)
        self.assertEqual(unknown.returncode, 2)
        self.assertIn("mac (109), ", unknown.stderr)
        followed = [gw.start_inside("ovanictl", "events", *how) for how in (("mac", "host"), ("mac", "--json", "-n1"))]
        for each in followed:
            self.addCleanup(each.communicate)
            self.addCleanup(each.terminate)
            self.assertEqual(each.stdout.readline(), "listening\n")
        gw.emit(*[("mac", "add", mac(9))] * 37, ("raw", "lanhost_param_change", "--json", '{"objnum": 1}'))
        told = [followed[0].stdout.readline() for _ in range(3)]
        self.assertEqual([line.split("  ", 1)[1].split()[0] for line in told], ["mac", "mac", "host"])
        self.assertTrue(told[1].endswith("  ×36\n") and told[2].endswith("  TV\n"), told)
        gw.ctl("host", "TV", "set", "alias=Radio")
        self.assertTrue(followed[0].stdout.readline().endswith("  Radio\n"))
        gw("stop", "daemon")  # who reads a store that nobody has open sees what comes, too
        after = gw.start_inside("ovanictl", "events", "host")
        self.addCleanup(after.communicate)
        self.addCleanup(after.terminate)
        after.stdout.readline()
        for alias in ("Radio", "TV"):
            gw.emit(("raw", "lanhost_param_change", "--json", '{"objnum": 1}'))
            self.assertTrue(after.stdout.readline().endswith(f"  {alias}\n"))
            gw.ctl("host", "1", "set", "alias=TV", check=False)
        event = json.loads(followed[1].stdout.readline())
        self.assertEqual((event["schema"], event["mac"]), (1, mac(9)))
        self.assertIn(bytes.fromhex(mac(9).replace(":", "")), base64.b64decode(event["raw"]))
        self.assertAlmostEqual(datetime.fromisoformat(event["time"]).timestamp(), time.time(), delta=20)

    def test_lines_of_events(self):
        gw = self.up("daemon", "watcher", "dhcp")
        with gw.recording() as recorder:
            gw.emit(("mac", "add", mac(1), "-p", "eth1"), ("dhcp-text", b"a b\xff\\"), ("dhcp-text", ""), ("wan",),
                    ("mac", "del", mac(1)))
            self.assertEqual([e.get("interface", e.get("error", e.get("message"))) for e in recorder.take()],
                             ["eth1", "too few fields: a b\ufffd\\", "too few fields: ", "{}", "eth0"])
            for wrong in ("mac add 02:00", "none", "--help", "mac maybe " + mac(1), "dhcp-text \\x0", "dhcp-text \t"):
                failed = gw.ctl("emit", "lines", input=f"wan\n\n# for people\n{wrong}\nwan\n", check=False)
                self.assertEqual((failed.returncode, failed.stdout), (1, ""), wrong)
                self.assertTrue(failed.stderr.startswith("ovanictl: line 4: "), failed.stderr)
                self.assertEqual([event["event"] for event in recorder.take()], ["wan_vlan_info"], wrong)
        kinds = [line.split()[0] for line in gw.ctl("events", "--list").splitlines()[1:]]
        self.assertEqual(kinds, [kind["event"] for kind in gw.table("events", "--list")])


class Doctor(GatewayTest):
    def test_what_is_wrong_is_found(self):
        gw = self.up("dhcp")

        def examined(*how):
            done = gw.exec(*how, "ovanictl", "doctor", "--json", check=False)
            report = json.loads(done.stdout)
            self.assertEqual((report["schema"], report["state"]),
                             (1, ["sound", "warning", "fault"][done.returncode]), done)
            return [(f["severity"], f["subject"], f["text"]) for f in report["findings"] if f["severity"] != "sound"]

        def finds(*expected, how=()):
            found = examined(*how)
            self.assertEqual([finding[:2] for finding in found], [wrong[:2] for wrong in expected], found)
            for (*_, text), (*_, part) in zip(found, expected):
                self.assertIn(part, text)

        finds()
        gw.ctl("set", "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.2.", "X_CT-COM_VLAN=5/77",
               "X_CT-COM_Mode=1")
        binding = ("warning", "bindings", "LAN2: no connection carries WAN VLAN 77")
        finds(binding)
        gw.bring(1)
        gw("stop", "watcher")
        gw("plug", "2", "device", "--mac", mac(2), "--silent", "static", "192.168.1.12")
        gw.ctl("set", HOSTS + "LANHostMaxNumber", "1")
        gw.ctl("store", "import", input=HOSTS + "Host.1.MaxUSBandwidth=-5\n")
        watcher = ("warning", "watcher", "no ovani-brwatch")
        others = (("warning", "leases", "none since"), ("warning", "store", "full, with 1 host"),
                  ("warning", "hosts", mac(1)), ("warning", "hosts", f"{mac(2)} at eth1"), binding,
                  ("warning", "values", HOSTS + 'Host.1.MaxUSBandwidth is "-5"'))
        finds(watcher, *others)
        gw.exec("kill", "-STOP", gw.pid("daemon"))
        gw("start", "watcher")
        finds(("fault", "object", "does not answer"), *others)
        gw("kill", "daemon")
        finds(("fault", "daemon", "does not run, for "), ("fault", "object", "no \"ovani\" on the bus, for"), *others)
        gw.exec("chmod", "700", "/var/run/ubus")
        finds(("fault", "bus", "no right to use"), ("fault", "daemon", ""), ("fault", "store", "no right to read"),
              how=("setpriv", "--reuid", "65534", "--clear-groups"))
        gw("stop", "broker")
        finds(("fault", "bus", "no broker at"), ("fault", "daemon", ""), *others)
