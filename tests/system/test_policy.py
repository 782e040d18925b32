"""LAN policy: ports, VLAN bindings, hosts' ceilings and aliases, by the methods of the bus and by ovanictl as a front
end; what the drivers were asked is the evidence."""

import json
import os
import re

from gateway import HOSTS, OPERATORS, ROOT, GatewayTest, mac

LAN = "InternetGatewayDevice.LANDevice.1."
ETHERNET = LAN + "LANEthernetInterfaceConfig."
CM = "InternetGatewayDevice.LANInterfaces."
MESH = LAN + "WLANMeshConfiguration."
PORT, HOST = "ovani_devfuc_port_cfg", "set_lanhost_config"


def read_sample(operator):
    """An operator's sample, the VLANs it binds by port, and the path and the prefix of its Ethernet ports' bindings."""
    with open(os.path.join(ROOT, "tools", "samples", operator + ".conf"), encoding="utf-8") as file:
        sample = file.read()
    bound, places = {}, {}
    for path, table, port, prefix, pairs in re.findall(
            r"^(\S+\.(LANEthernetInterfaceConfig|WLANConfiguration)\.)(\d+)\.(X_\S+)_VLAN=(\S+)$", sample, re.M):
        name = f"SSID {port} (ra{int(port) - 1})" if table == "WLANConfiguration" else "LAN" + port
        bound[name] = {int(lan): int(wan) for lan, wan in (pair.split("/") for pair in pairs.split(","))}
        places[table] = path, prefix
    return sample, bound, *places["LANEthernetInterfaceConfig"]


class Policy(GatewayTest):
    def call(self, method, url, data):
        """A method of the daemon; its status, by the command line client's exit."""
        message = {k: v for k, v in (("url", url), ("data", data)) if v is not None}
        return self.gateway.exec("ubus", "call", "ovani", method, json.dumps(message), check=False).returncode

    def ports(self):
        return {port["port"]: port for port in self.gateway.table("ports")}

    def port(self, name, *fields):
        return [self.ports()[name]["asked"][field] for field in fields]

    def bindings(self):
        found = {name: {b["lan_vlan"]: b["wan_vlan"] for b in port["bindings"]} for name, port in self.ports().items()}
        return {name: bindings for name, bindings in found.items() if bindings}

    def limits(self):
        return {device["mac"]: device for device in self.gateway.table("limits")}

    def test_each_operator_from_its_sample(self):
        for operator in OPERATORS:
            with self.subTest(operator=operator):
                sample, bound, url, prefix = read_sample(operator)
                gw = self.gateway = self.up(operator=operator)
                self.assertEqual(self.bindings(), bound)
                self.assertEqual(self.port("LAN2", "auto", "rate", "duplex"), [False, 100, "Full"])
                self.assertEqual(self.port("LAN1", "auto", "rate", "duplex"), [True, 1000, "Half"])
                [television] = self.ports()["LAN2"]["bindings"]  # in every sample
                self.assertEqual([television[n] for n in ("service", "type", "priority")], ["IPTV", "BRIDGE", 5])
                self.assertEqual(len(self.limits()), 19 if "X_QV_SpeedLimit=1" in sample else 0)

                wan = television["wan_vlan"]
                for text, mode, expected in ((f"7/{wan},x,8/{wan}", "1", {7: wan, 8: wan}), ("x", "1", {}),
                                             (f"9/{wan},10/4000,4095/{wan}", "1", {9: wan}), ("NULL", "1", {}),
                                             (f"9/{wan}", "", {9: wan}), (f"5/{wan}", "", {5: wan}), ("", "0", {})):
                    self.assertEqual(self.call(PORT, url + "4.", {f"{prefix}_VLAN": text, f"{prefix}_Mode": mode}), 0)
                    self.assertEqual(self.bindings().get("LAN4", {}), expected, text)
                # The SSIDs' numbers follow the four Ethernet ports'.
                for path in (CM + "WLANConfiguration.3.", LAN + "WLANConfiguration.3."):
                    self.call(PORT, path, {f"{prefix}_VLAN": f"5/{wan}", f"{prefix}_Mode": "1"})
                    self.assertEqual(self.bindings()["SSID 3 (ra2)"], {5: wan})
                    self.call(PORT, path, {f"{prefix}_Mode": "0"})
                    self.assertNotIn("SSID 3 (ra2)", self.bindings())

                # Only an operator who limits a port's MACs may switch it off.
                gw("plug", "4", "host", "--mac", mac(1), "dhcp", "study")
                gw.host_with(mac(1), Active="1")
                for rate, duplex, expected in (("100", "Full", [False, 100, "Full"]),
                                               ("Auto", "Auto", [True, 0, "None"])):
                    self.assertEqual(gw.ctl("set", ETHERNET + "4.", "MaxBitRate=" + rate, "DuplexMode=" + duplex),
                                     PORT + ": Success\n")
                    self.assertEqual(self.port("LAN4", "auto", "rate", "duplex"), expected)
                self.call(PORT, url + "4.", {f"{prefix}_MACAddressNum": "7"})
                gw.ctl("set", ETHERNET + "4.Enable", "0")
                heeded = "_MACAddressNum=" in sample
                self.assertEqual(self.port("LAN4", "enabled", "mac_limit"), [False, 7] if heeded else [None, None])
                if heeded:
                    gw.wait_for_host(mac(1), lambda host: not host or host["Active"] == "0", "to leave")
                gw.ctl("set", ETHERNET + "4.Enable", "1")
                gw.host_with(mac(1), Active="1")

    def test_a_wan_change_sets_the_mac_limits_again_and_binds_nothing(self):
        gw = self.gateway = self.up(operator="cm")
        bound = self.bindings()
        gw.ctl("set", "InternetGatewayDevice.X_QV_Driver.LANPort.3.MACLimit", "99")
        connection = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.1.WANPPPConnection.2."
        gw.ctl("set", connection, "X_CMCC_VLANIDMark=42")
        gw.emit(("wan",))
        gw.settle_daemon()
        self.assertEqual((self.port("LAN3", "mac_limit"), self.bindings()), ([8], bound))

    def test_hosts(self):
        gw = self.gateway = self.up("watcher", "dhcp")
        path = gw.bring(1)
        with gw.recording("lanhost_param_change") as announced:
            for data in ({"MaxUSBandwidth": "100"}, {"MaxDSBandwidth": "200"}, {"HostAlias": "study"},
                         {"HostAlias": "书房"}, {"Brand": "x", "Nonsense": "y"}):
                self.assertEqual(self.call(HOST, path, data), 0)
            self.assertEqual(len(announced.settle()), 6, "one a parameter, whatever it is")
        self.assertEqual([self.limits()[mac(1)][n] for n in ("max_up", "max_down", "total_up")], [100, 200, None])
        self.assertEqual(gw.get(HOSTS + "HostAliases.1.HostAlias"), "书房")
        self.assertNotIn("HostAliases.2.", gw.get(HOSTS + "HostAliases."))
        self.assertEqual(self.call(HOST, HOSTS + "Host.99.", {"MaxUSBandwidth": "1"}), 0)
        # The speed-limit list counts whenever a host it names is updated.
        gw.exec("sh", "-c", f"echo 512 1024 {mac(1).upper()} >/qvconf/speedlimit_maclist")
        gw.bring(2)
        gw.emit(("dhcp", "add", "192.168.1.1", mac(1)))
        gw.settle_daemon()
        self.assertEqual({each: (limit["max_up"], limit["max_down"]) for each, limit in self.limits().items()},
                         {mac(1): (512, 1024)})

    def test_a_mesh_satellite_is_connected_as_the_controller_says(self):
        gw = self.up()
        gw.ctl("set", MESH + "MeshMode", "Master")
        gw.exec("sh", "-c", f"echo {mac(2)} wireless >/qvconf/mesh_repeaters && meshinfo repeater_update")
        gw.ctl("set", MESH + "Controller.Repeater.1.connect_type", "")
        gw("plug", "4", "satellite", "--mac", mac(2), "dhcp", "SlaveAP_Attic")
        gw.host_with(mac(2), X_QV_DeviceType="9", InterfaceType="802.11", ConnectionType="1")
        self.assertEqual(gw.get(MESH + "Controller.Repeater.1.connect_type"), "wireless")

    def test_what_nobody_should_call(self):
        gw = self.gateway = self.up(operator="cm")
        path = gw.bring(1)
        before = gw.ctl("store", "export")
        good = {"X_CMCC_VLAN": "5/41", "X_CMCC_Mode": "1", "MaxUSBandwidth": "1", "MaxBitRate": "10"}
        many = good | {f"n{i}": "v" for i in range(996)}
        for method, right in ((PORT, ETHERNET + "4."), (HOST, path)):
            for url, data, accepted in (
                    (None, None, False), (right, None, False), (None, good, False), (5, good, False),
                    (right, "x", False), (right, list(good), False), (right, many, False),
                    (right, dict.fromkeys(good, 5), True), (right, {}, True), (right, {"x" * 500: "y" * 5000}, True),
                    ("", good, True), (ETHERNET + "99999999999.", good, True), (HOSTS + "Host.-1.", good, True),
                    ("x." * 2000, good, True)):
                case = method, str(url)[:100], str(data)[:100]
                self.assertEqual(self.call(method, url, data) == 0, accepted, case)
                self.assertEqual(gw.ctl("store", "export"), before, case)
        many.popitem()
        for data, expected in ((many, {5: 41}), ({"X_CMCC_VLAN": "/".join("5" * 200)}, {})):
            self.assertEqual(self.call(PORT, ETHERNET + "4.", data), 0)
            self.assertEqual(self.bindings().get("LAN4", {}), expected)

    def test_what_is_set_goes_to_store_and_daemon(self):
        gw = self.up("watcher", "dhcp")
        path = gw.bring(1)
        with gw.recording("lanhost_param_change") as announced:
            self.assertEqual(gw.ctl("set", path, "HostAlias=a=b", "OS="), "set_lanhost_config: Success\n")
            self.assertEqual(len(announced.settle()), 2, "one a parameter")
        self.assertEqual(gw.get(HOSTS + "HostAliases.1.HostAlias"), "a=b")
        before = gw.ctl("store", "export")
        for wrong in ((path, "HostAlias"), (path, "HostAlias=x", "None=y"), (path, "HostAlias=x", "Port=" + "9" * 300),
                      (path + "HostAlias", "x", "OS=y"), (HOSTS + "Host.99.", "HostAlias=x"),
                      (path, "HostAlias=x", "MaxUSBandwidth=-5"), (ETHERNET + "1.", "MaxBitRate=100", "DuplexMode=full"),
                      (HOSTS + "LANHostMaxNumber", "255")):
            failed = gw.ctl("set", *wrong, check=False)
            self.assertEqual((failed.returncode, failed.stdout), (1, ""), wrong)
        self.assertEqual(gw.ctl("store", "export"), before, "all of it or nothing")
        gw("stop", "daemon")
        told = gw.ctl("set", path + "HostAlias", "later", check=False)
        self.assertEqual((told.returncode, told.stdout, gw.get(path + "HostAlias")), (3, "", "later"))
        self.assertIn("no daemon", told.stderr)

    def test_hosts_go_by_their_names(self):
        gw = self.up("watcher", "dhcp")
        paths = [gw.bring(number) for number in (1, 2)]
        gw.ctl("host", mac(1).replace(":", "-"), "set", "alias=TV", "up=2048", "down=8192")
        self.assertEqual([gw.get(paths[0] + name) for name in ("HostAlias", "MaxUSBandwidth", "MaxDSBandwidth")],
                         ["TV", "2048", "8192"])
        self.assertEqual(gw.ctl("host", "TV"), gw.ctl("host", "1"))
        self.assertIn(mac(1), gw.ctl("host", "TV", "--json"))
        gw.ctl("host", "2", "set", "alias=TV")
        before = gw.ctl("store", "export")
        gw("stop", "daemon")
        files = os.listdir(gw.state)
        for reader in (("hosts",), ("ports",), ("get", HOSTS), ("host", "1"), ("store", "export"), ("doctor",)):
            gw.ctl(*reader, check=False)
        self.assertEqual(os.listdir(gw.state), files, "who looks makes nothing")
        gw("start", "daemon")
        for wrong in (("host", "TV"), ("host", "nobody"), ("host", ""), ("host", "1", "set", "up=fast"),
                      ("host", "1", "set", "alias"), ("delete", "TV"), ("delete", "1", "3")):
            failed = gw.ctl(*wrong, check=False)
            self.assertEqual((failed.returncode, failed.stdout), (1, ""), wrong)
        self.assertEqual(gw.ctl("delete", check=False).returncode, 2)
        self.assertEqual(gw.ctl("store", "export"), before)

    def test_a_full_table_is_emptied(self):
        gw = self.up("daemon", "watcher", "dhcp", operator="cm")
        gw.ctl("set", HOSTS + "LANHostMaxNumber", "3")
        gw("start", "daemon")
        for number in (1, 2, 3):
            gw.bring(number)
        gw.emit(*[("mac", "del", mac(number)) for number in (1, 3)])
        newcomer = (("mac", "add", mac(4)), ("arp", "add", "192.168.1.4", mac(4)))
        gw.emit(*newcomer)
        gw.settle_daemon()
        self.assertEqual({address: host["Active"] for address, host in gw.hosts().items()},
                         {mac(1): "0", mac(2): "1", mac(3): "0"})
        deleted = gw.ctl("delete", "--inactive", check=False)
        self.assertEqual((deleted.returncode, deleted.stdout.count("deleted")), (0, 2))
        self.assertIn("until it is started again", deleted.stderr)
        gw("stop", "daemon")
        gw("start", "daemon")
        gw.emit(*newcomer)
        gw.host_with(mac(4), Active="1")
        gw.bring(2)

    def test_export_and_import(self):
        gw = self.up("daemon", "dhcp", "watcher", "sysmgr")
        parameter = "InternetGatewayDevice.DeviceInfo.X_QV_AreaCode"
        for value in (b"", b"\\x41", b"a=b#c", b"\x7f\xff", "名\u202e".encode(), bytes(range(1, 32)), b" a "):
            gw.ctl("set", parameter, value)
            gw.exec("sh", "-c", "ovanictl store export /var/1 && ovanictl set $1 x && ovanictl store import /var/1 &&"
                    "ovanictl store export /var/2 && cmp /var/1 /var/2", "sh", parameter)
            self.assertEqual(json.loads(gw.ctl("get", "--json", parameter)),
                             {"schema": 1, "parameters": {parameter: value.decode(errors="replace")}})
        text = gw.exec("cat", "/var/1")
        lines = text.splitlines()
        self.assertEqual([line.split("=")[0] for line in lines], sorted(line.split("=")[0] for line in lines))
        self.assertEqual(lines, [line.strip() for line in lines], "no editor strips anything")
        mode = MESH + "MeshMode="
        good = mode + "Master\n# for people\n\n"
        for wrong in ("x", "=", ".=", "None=1", mode + "x" * 32, mode + "\\", mode + "\\x0", mode + "\\x00",
                      mode + "\tx", HOSTS + "HostNumberOfEntries=3", ETHERNET + "1.=2"):
            refused = gw.ctl("store", "import", input=good + wrong + "\n" + good, check=False)
            self.assertEqual(refused.returncode, 1, wrong)
            self.assertIn("-:4: ", refused.stderr, wrong)
        self.assertEqual(gw.ctl("store", "export"), text)
