"""LAN policy: ports, VLAN bindings, hosts' ceilings and aliases, by the methods of the bus; what the drivers were
asked is the evidence."""

import json
import unittest

from gateway import HOSTS, Gateway, mac, setUpModule, wait_for  # noqa: F401

LAN = "InternetGatewayDevice.LANDevice.1."
ETHERNET = LAN + "LANEthernetInterfaceConfig."
CM = "InternetGatewayDevice.LANInterfaces."
MESH_MODE = LAN + "WLANMeshConfiguration.MeshMode"
PORT, HOST = "ovani_devfuc_port_cfg", "set_lanhost_config"


class Policy(unittest.TestCase):
    def up(self, operator):
        self.gateway = Gateway(operator=operator)
        self.addCleanup(self.gateway.close)
        return self.gateway

    def call(self, method, message):
        """A method of the daemon; its status, by the command line client's exit."""
        return self.gateway.exec("ubus", "call", "ovani", method, json.dumps(message), check=False).returncode

    def ports(self):
        return {port["port"]: port for port in json.loads(self.gateway.ctl("ports", "--json"))}

    def bindings(self, port):
        return {b["lan_vlan"]: b["wan_vlan"] for b in self.ports()[port]["bindings"]} if port in self.ports() else {}

    def limits(self):
        return {device["mac"]: device for device in json.loads(self.gateway.ctl("limits", "--json"))}

    def host(self, number):
        """Brings a host; its object's path."""
        self.gateway.emit("mac", "add", mac(number))
        self.gateway.emit("arp", "add", f"192.168.1.{number}", mac(number))
        return f"{HOSTS}Host.{self.gateway.host_with(mac(number), Active='1')['instance']}."

    def test_each_operator_from_its_sample(self):
        # What is bound at start-up, what a binding's names are, and whether Enable and the MAC limit are heeded.
        for operator, voice, bound, url, prefix in (
                ("cm", 46, {"LAN2": {48: 48}, "LAN3": {10: 41, 20: 48}, "Wi-Fi 2": {30: 41}},
                 CM + "LANEthernetInterfaceConfig.", "X_CMCC"),
                ("ct", 46, {"LAN2": {45: 45}, "LAN3": {10: 41, 20: 45}, "Wi-Fi 2": {30: 41}}, ETHERNET, "X_CT-COM"),
                ("cu", 3961, {"LAN2": {3964: 3964}, "LAN3": {10: 4093, 20: 3964}}, ETHERNET, "X_CU")):
            with self.subTest(operator=operator):
                gw = self.up(operator)
                wait_for(lambda: gw.exec("ubus", "list", check=False).stdout.count("ovani"), "the daemon")
                self.assertEqual({name: self.bindings(name) for name in self.ports() if self.bindings(name)}, bound)
                self.assertEqual([self.ports()["LAN2"][n] for n in ("auto", "rate", "duplex")], [False, 100, "Full"])
                self.assertEqual([self.ports()["LAN1"][n] for n in ("auto", "rate", "duplex")], [True, 1000, "Half"])
                television = self.ports()["LAN2"]["bindings"][0]
                self.assertEqual([television[n] for n in ("service", "type", "priority")], ["IPTV", "BRIDGE", 5])
                self.assertEqual(len(self.limits()), 19 if operator == "ct" else 0)

                for text, mode, expected in ((f"7/{voice},x,8/{voice}", "1", {7: voice, 8: voice}), ("x", "1", {}),
                                             (f"9/{voice},4095/{voice}", "1", {9: voice}), ("NULL", "1", {}),
                                             (f"9/{voice}", "", {9: voice}), ("", "0", {})):
                    data = {f"{prefix}_VLAN": text, f"{prefix}_Mode": mode}
                    self.assertEqual(self.call(PORT, {"url": url + "4.", "data": data}), 0)
                    self.assertEqual(self.bindings("LAN4"), expected, text)
                self.call(PORT, {"url": ETHERNET + "1.", "data": {"Enable": "0", "X_CMCC_MACAddressNum": "7"}})
                port = self.ports()["LAN1"]
                self.assertEqual((port["enabled"], port["mac_limit"]), (False, 7) if operator == "cm" else (None, None))

                # The SSIDs' numbers follow the four Ethernet ports'.
                for path in (CM + "WLANConfiguration.3.", LAN + "WLANConfiguration.3."):
                    self.call(PORT, {"url": path, "data": {f"{prefix}_VLAN": f"5/{voice}", f"{prefix}_Mode": "1"}})
                    self.assertEqual(self.bindings("Wi-Fi 3"), {5: voice})
                    self.call(PORT, {"url": path, "data": {f"{prefix}_Mode": "0"}})
                    self.assertEqual(self.bindings("Wi-Fi 3"), {})

    def test_leaving_means_what_the_operator_says(self):
        for operator, deleted in (("ct", True), ("cm", False), ("cu", False)):
            with self.subTest(operator=operator):
                gw = self.up(operator)
                first = self.host(1)
                gw.emit("mac", "del", mac(1))
                gw.settle_daemon()
                if deleted:
                    self.assertEqual((gw.host(mac(1)), gw.entries()), (None, 0))
                else:
                    self.assertEqual([gw.host(mac(1))[n] for n in ("Active", "LeaseTimeRemaining")], ["0", "0"])
                second = self.host(2)
                self.assertEqual((second == first, gw.entries()), (deleted, 1 if deleted else 2))
                self.assertNotEqual(self.host(1), second)

    def test_a_wan_change_sets_the_mac_limits_again_and_binds_nothing(self):
        gw = self.up("cm")
        wait_for(lambda: self.bindings("LAN3"), "the bindings")
        gw.ctl("set", "InternetGatewayDevice.X_QV_Driver.LANPort.3.MACLimit", "99")
        gw.ctl("set", "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.1.WANPPPConnection.2.", "X_CMCC_VLANIDMark=42")
        gw.emit("wan")
        gw.settle_daemon()
        self.assertEqual((self.ports()["LAN3"]["mac_limit"], self.bindings("LAN3")), (8, {10: 41, 20: 48}))

    def test_hosts(self):
        gw = self.up("cu")
        path = self.host(1)
        with gw.recording("lanhost_param_change") as announced:
            for data in ({"MaxUSBandwidth": "100"}, {"MaxDSBandwidth": "200"}, {"HostAlias": "study"},
                         {"HostAlias": "书房"}, {"Brand": "x", "Nonsense": "y"}):
                self.assertEqual(self.call(HOST, {"url": path, "data": data}), 0)
            self.assertEqual(len(announced.settle()), 6, "one a parameter, whatever it is")
        self.assertEqual([self.limits()[mac(1)][n] for n in ("max_up", "max_down", "total_up")], [100, 200, None])
        self.assertEqual(gw.get(HOSTS + "HostAliases.1.HostAlias"), "书房")
        self.assertNotIn("HostAliases.2.", gw.get(HOSTS + "HostAliases."))
        self.assertEqual(self.call(HOST, {"url": HOSTS + "Host.99.", "data": {"MaxUSBandwidth": "1"}}), 0)
        self.assertEqual(list(self.limits()), [mac(1)])

    def test_what_nobody_should_call(self):
        gw = self.up("cm")
        path, pid = self.host(1), gw.pid("daemon")
        before = gw.ctl("store", "export")
        good = {"X_CMCC_VLAN": "5/41", "X_CMCC_Mode": "1", "MaxUSBandwidth": "1", "MaxBitRate": "10"}
        many = good | {f"n{i}": "v" for i in range(996)}
        for method, right in ((PORT, ETHERNET + "4."), (HOST, path)):
            for message, accepted in (
                    ({}, False), ({"url": right}, False), ({"data": good}, False), ({"url": 5, "data": good}, False),
                    ({"url": right, "data": "x"}, False), ({"url": right, "data": list(good)}, False),
                    ({"url": right, "data": many}, False),
                    ({"url": right, "data": {name: 5 for name in good}}, True), ({"url": right, "data": {}}, True),
                    ({"url": right, "data": {"x" * 500: "y" * 5000}}, True), ({"url": "", "data": good}, True),
                    ({"url": ETHERNET + "99999999999.", "data": good}, True),
                    ({"url": HOSTS + "Host.-1.", "data": good}, True), ({"url": "x." * 2000, "data": good}, True)):
                status = self.call(method, message)
                self.assertEqual(status == 0, accepted, (method, str(message)[:100]))
                self.assertEqual(gw.ctl("store", "export"), before, (method, str(message)[:100]))
        many.popitem()
        self.assertEqual(self.call(PORT, {"url": ETHERNET + "4.", "data": many}), 0)
        self.assertEqual(self.bindings("LAN4"), {5: 41})
        self.assertEqual(gw.pid("daemon"), pid)
        self.assertEqual(self.call(PORT, {"url": ETHERNET + "4.", "data": {"X_CMCC_VLAN": "/".join("5" * 200)}}), 0)
        self.assertEqual(self.bindings("LAN4"), {})


class Front(unittest.TestCase):
    """ovanictl as a front end."""

    def test_set_tells_the_daemon_once(self):
        gw = Gateway(operator="cm")
        self.addCleanup(gw.close)
        gw.emit("mac", "add", mac(1))
        gw.emit("arp", "add", "192.168.1.1", mac(1))
        path = f"{HOSTS}Host.{gw.host_with(mac(1), Active='1')['instance']}."
        with gw.recording("lanhost_param_change") as announced:
            self.assertEqual(gw.ctl("set", path, "HostAlias=a=b", "OS="), "set_lanhost_config: Success\n")
            self.assertEqual(len(announced.settle()), 2)
        self.assertEqual(gw.get(HOSTS + "HostAliases.1.HostAlias"), "a=b")
        before = gw.ctl("store", "export")
        for wrong in ((path, "HostAlias"), (path, "HostAlias=x", "None=y"), (path, "HostAlias=x", "Port=" + "9" * 300),
                      (path + "HostAlias", "x", "OS=y"), (HOSTS + "Host.99.", "HostAlias=x")):
            failed = gw.ctl("set", *wrong, check=False)
            self.assertEqual((failed.returncode, failed.stdout), (1, ""), wrong)
        self.assertEqual(gw.ctl("store", "export"), before, "all of it or nothing")
        gw("stop", "daemon")
        told = gw.ctl("set", path + "HostAlias", "later", check=False)
        self.assertEqual((told.returncode, told.stdout, gw.get(path + "HostAlias")), (0, "", "later"))
        self.assertIn("no daemon", told.stderr)

    def test_export_and_import(self):
        gw = Gateway(without=["daemon", "dhcp", "watcher", "sysmgr"])
        self.addCleanup(gw.close)
        odd = (b"", b"\\x41", b"a=b#c", b"\x01\x7f\xff\r\n\t", "名\u202e".encode(), bytes(range(1, 32)), b" a ")
        for number, value in enumerate(odd, 1):
            gw.ctl("set", ETHERNET + "1.X_CU_VLAN", value)
            gw.exec("sh", "-c", "ovanictl store export /var/1 && ovanictl set $1 x && ovanictl store import /var/1 &&"
                    "ovanictl store export /var/2 && cmp /var/1 /var/2", "sh", ETHERNET + "1.X_CU_VLAN")
            self.assertEqual(json.loads(gw.ctl("get", "--json", ETHERNET + "1.X_CU_VLAN"))[ETHERNET + "1.X_CU_VLAN"],
                             value.decode(errors="replace"), number)
        text = gw.exec("cat", "/var/1")
        lines = text.splitlines()
        self.assertEqual([line.split("=")[0] for line in lines], sorted(line.split("=")[0] for line in lines))
        self.assertEqual(lines, [line.strip() for line in lines], "no editor strips anything")
        good = MESH_MODE + "=Master\n# for people\n\n"
        for wrong in ("x", "=", ".=", "None=1", MESH_MODE + "=" + "x" * 32, MESH_MODE + "=\\", MESH_MODE + "=\\x0",
                      MESH_MODE + "=\\x00", MESH_MODE + "=\tx", HOSTS + "HostNumberOfEntries=3", ETHERNET + "1.=2"):
            refused = gw.exec("sh", "-c", "printf '%s' \"$1\" | ovanictl store import", "sh", good + wrong + "\n" + good,
                              check=False)
            self.assertEqual(refused.returncode, 1, wrong)
            self.assertIn("-:4: ", refused.stderr, wrong)
        self.assertEqual(gw.ctl("store", "export"), text)


if __name__ == "__main__":
    unittest.main()
